#include "ymgrd/crypto/encrypt_key.h"

#include <algorithm>

#include "libconf/safe_string.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"

unsigned char g_aes_key[WORKING_KEY_LENGTH] = {};

namespace {

bool has_sensitive_leaves()
{
  int count = context_list_size("LIST-sencitive");
  for (int i = 0; i < count; i++) {
    if (context_get_list_entry("LIST-sencitive", i) != nullptr) {
      return true;
    }
  }
  return false;
}

} // namespace

int ymgrd_encrypt_key()
{
  const auto *config = context_get_record<database_config>("OPT-database");
  if (config == nullptr) {
    log_error("encrypt key: get database_conf error");
    return -1;
  }
  bool no_key = std::all_of(config->working_key, config->working_key + WORKING_KEY_LENGTH,
                            [](unsigned char b) { return b == 0; });
  if (no_key && has_sensitive_leaves()) {
    return -1;
  }
  return memcpy_s(g_aes_key, sizeof(g_aes_key), config->working_key, sizeof(config->working_key)) == 0 ? 0 : -1;
}
