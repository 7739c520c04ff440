// The working key in the profile: the member "working-key" of its section "database".
#pragma once

#include <array>
#include <string>

#include "keytool/replace_file.h"
#include "libconf/wiped_string.h"
#include "ymgrd/core/handles.h"

typedef std::array<unsigned char, 16> key_bytes_t;

typedef enum _profile_key_state {
  PROFILE_KEY_NONE = 0, // or only zeros, which the daemon takes for none
  PROFILE_KEY_PRESENT,
  PROFILE_KEY_INVALID, // something, but not 16 bytes
} profile_key_state_t;

typedef struct _profile_file {
  std::string path; // where it really is: links are followed
  cjson_ptr json;
  cJSON *database = nullptr; // part of json
  file_owner_t owner;
  mode_t mode = 0; // permission bits
} profile_file_t;

// 0, or -1 with the cause: not to be read, no JSON, no database section.
int profile_read(const std::string &path, profile_file_t *ret_profile, std::string *ret_error);
// The key in its stored, enciphered form; `ret_key` is set when it is present.
profile_key_state_t profile_key(const profile_file_t &profile, key_bytes_t *ret_key);
// Puts the key into the file, which becomes mode 0600 and is printed anew: members and their order stay, white space
// does not.
int profile_write_key(profile_file_t *profile, const key_bytes_t &key, std::string *ret_error);
// The member as it stands in a profile: "working-key": [...]
wiped_string profile_key_fragment(const key_bytes_t &key);
