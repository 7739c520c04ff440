// Working keys for daemons under test.
#pragma once

#include <string>
#include <vector>

namespace support {

// What ymgr-keytool printed, errors too.
typedef struct _keytool_run {
  int exit_code = -1; // -1 when it did not end by itself
  std::string output;
} keytool_run_t;

keytool_run_t run_keytool(const std::vector<std::string> &arguments);

// Makes a key table in the directory, which holds none yet. The key that belongs to it, as a JSON array: for
// daemon_options_t::working_key. Throws when that fails.
std::string provision_key(const std::string &config_dir);

} // namespace support
