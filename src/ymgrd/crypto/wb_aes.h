// AES-128 decryption of one block by the lookup tables of a key table file (wb_table.h), which ymgr-keytool makes.
#pragma once

#include <memory>

#include "ymgrd/crypto/wb_table.h"

typedef struct _wb_aes_ctx wb_aes_ctx_t;

wb_aes_ctx_t *wb_aes_ctx_new(); // null when memory is short
void wb_aes_ctx_release(wb_aes_ctx_t *ctx);
struct wb_aes_ctx_delete_t {
  void operator()(wb_aes_ctx_t *ctx) const { wb_aes_ctx_release(ctx); }
};
using wb_aes_ctx_ptr = std::unique_ptr<wb_aes_ctx_t, wb_aes_ctx_delete_t>;

// 0, or -1 (logged): no such file, or not a whole and undamaged table file. What was loaded before stays then.
int wb_aes_load_table(wb_aes_ctx_t *ctx, const char *filename);
// What the last attempt to load came to; WB_TABLE_MISSING when there was none.
wb_table_fault_t wb_aes_fault(const wb_aes_ctx_t *ctx);
// 0, or -1 (logged) when no table is loaded. `input` and `output` may be the same.
int wb_aes_decrypt(const wb_aes_ctx_t *ctx, const unsigned char *input, unsigned char *output);
// Whether a table is loaded and was made for the working key, of 16 bytes.
bool wb_aes_is_for(const wb_aes_ctx_t *ctx, const unsigned char *working_key);
