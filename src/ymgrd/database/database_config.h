// The profile's database section: made by the database component and kept by address under "OPT-database".
#pragma once

#include <string>

#include "libconf/safe_string.h"

constexpr int WORKING_KEY_LENGTH = 16;

typedef struct _database_config {
  std::string type;        // "default", "external" or "null"
  int validate_level = -1; // -1 when the profile has none
  // The device's working key in its stored, enciphered form; zero behind the bytes that were given.
  unsigned char working_key[WORKING_KEY_LENGTH] = {};
  // "default": the address of the database, beginning "unix:/" or "tcp:/". "external": the driver's shared object.
  std::string driver_path;
  std::string driver_api_version;

  _database_config() = default;
  _database_config(const _database_config &) = delete;
  _database_config &operator=(const _database_config &) = delete;
  ~_database_config() { memset_s(working_key, sizeof(working_key), 0, sizeof(working_key)); }
} database_config;
