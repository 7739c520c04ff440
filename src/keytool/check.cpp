#include "keytool/keytool.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>

#include "keytool/profile_key.h"
#include "keytool/secret.h"
#include "ymgrd/crypto/wb_table.h"

namespace {

// One line for each thing that was looked at. Whether it is in order.
bool report(bool in_order, const std::string &path, const std::string &text)
{
  printf("%s: %s: %s\n", in_order ? "ok" : "FAULT", path.c_str(), text.c_str());
  return in_order;
}

bool check_mode(const std::string &path, mode_t mode)
{
  char text[64];
  bool is_private = (mode & (S_IRWXG | S_IRWXO)) == 0;
  snprintf_s(text, sizeof(text), "mode %04o%s", static_cast<unsigned>(mode),
             is_private ? "" : ", others than its owner have access: chmod 600");
  return report(is_private, path, text);
}

bool check_profile(const std::string &path, key_bytes_t *ret_stored, bool *ret_has_key)
{
  std::string error;
  profile_file_t profile;
  *ret_has_key = false;
  if (profile_read(path, &profile, &error) != 0) {
    printf("FAULT: %s\n", error.c_str());
    return false;
  }
  static constexpr const char *TEXTS[] = {"has no working key", "has a working key",
                                          "its working-key is not an array of 16 numbers from 0 to 255"};
  profile_key_state_t state = profile_key(profile, ret_stored);
  *ret_has_key = state == PROFILE_KEY_PRESENT;
  bool key_in_order = report(*ret_has_key, path, TEXTS[state]);
  bool mode_in_order = check_mode(path, profile.mode);
  return key_in_order && mode_in_order;
}

bool check_table(const std::string &path, wb_table_file_ptr *ret_file)
{
  switch (wb_table_read(path.c_str(), ret_file)) {
  case WB_TABLE_MISSING:
    return report(false, path, "there is no key table");
  case WB_TABLE_UNREADABLE:
    return report(false, path, strerror(errno));
  case WB_TABLE_INVALID:
    report(false, path, "is damaged, or no key table");
    break;
  case WB_TABLE_WHOLE:
    report(true, path, "is whole");
    break;
  }
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    return report(false, path, strerror(errno));
  }
  return check_mode(path, status.st_mode & 07777) && *ret_file != nullptr;
}

bool check_pair(const std::string &path, const wb_table_file_t &file, const key_bytes_t &stored)
{
  secret_t<key_bytes_t> key;
  wb_tables_decrypt(file.tables, stored.data(), key.value.data());
  bool belongs = wb_table_is_for(file, key.value.data());
  return report(belongs, path, belongs ? "was made for the profile's key" : "was not made for the profile's key");
}

} // namespace

int keytool_check(const keytool_options_t &options)
{
  std::string table_path = keytool_table_path(options);
  secret_t<key_bytes_t> stored;
  wb_table_file_ptr table;
  bool has_key = false;
  bool in_order = check_profile(keytool_profile_path(options), &stored.value, &has_key);
  in_order = check_table(table_path, &table) && in_order;
  bool is_pair = has_key && table != nullptr && check_pair(table_path, *table, stored.value);
  if (!is_pair) { // who has a pair must not be led to replace it: its values would be lost
    printf("\"ymgr-keytool provision\" makes key and table; with --force anew\n");
  }
  return in_order && is_pair ? KEYTOOL_OK : KEYTOOL_FAILED;
}
