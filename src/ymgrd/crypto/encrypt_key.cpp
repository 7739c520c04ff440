#include "ymgrd/crypto/encrypt_key.h"

#include <algorithm>

#include "libconf/safe_string.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/crypto/working_key.h"

unsigned char g_aes_key[WORKING_KEY_LENGTH] = {};

namespace {

// The daemon runs without: whatever is not sensitive can be managed, and a key table can be put in place at any time.
void try_working_key()
{
  unsigned char key[WORKING_KEY_LENGTH];
  if (ymgrm_decrypt_working(g_aes_key, key) != 0) {
    log_error("Sensitive values can be neither read nor set until the key table %.512s is mended.",
              ymgrd_key_table_path().c_str());
  }
  memset_s(key, sizeof(key), 0, sizeof(key));
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
  if (no_key && encrypt_has_sensitive()) {
    return -1;
  }
  if (memcpy_s(g_aes_key, sizeof(g_aes_key), config->working_key, sizeof(config->working_key)) != 0) {
    return -1;
  }
  if (encrypt_has_sensitive()) {
    try_working_key();
  }
  return 0;
}
