// The commands of ymgr-keytool. They print to standard output and report failures on standard error; the result is the
// program's exit code.
#pragma once

#include <string>

enum { KEYTOOL_OK = 0, KEYTOOL_FAILED = 1, KEYTOOL_USAGE = 2 };

typedef struct _keytool_options {
  std::string config_dir;
  std::string table; // for `print`: the table file; empty for that of the configuration directory
  bool force = false;
  bool print = false;
} keytool_options_t;

// Makes a working key and the table that deciphers it, and puts them in place.
int keytool_provision(const keytool_options_t &options);
// Says whether both are there, belong together, and are kept from others.
int keytool_check(const keytool_options_t &options);

std::string keytool_profile_path(const keytool_options_t &options);
std::string keytool_table_path(const keytool_options_t &options);
