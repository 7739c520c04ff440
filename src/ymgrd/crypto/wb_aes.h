// AES-128 decryption of one block by lookup tables that hold the key in enciphered form (white-box cryptography after
// Chow, Eisen, Johnson and van Oorschot, 2002). Without external encodings: the result is that of plain AES-128.
// ymgr-keytool makes the tables.
#pragma once

#include <memory>

constexpr int WB_BLOCK_LENGTH = 16;

typedef struct _wb_aes_ctx wb_aes_ctx_t;

wb_aes_ctx_t *wb_aes_ctx_new(); // null when memory is short
void wb_aes_ctx_release(wb_aes_ctx_t *ctx);
struct wb_aes_ctx_delete_t {
  void operator()(wb_aes_ctx_t *ctx) const { wb_aes_ctx_release(ctx); }
};
using wb_aes_ctx_ptr = std::unique_ptr<wb_aes_ctx_t, wb_aes_ctx_delete_t>;

// 0, or -1 (logged): no such file, or not a whole and undamaged table file.
int wb_aes_load_table(wb_aes_ctx_t *ctx, const char *filename);
// 0, or -1 (logged) when no table is loaded. `input` and `output` may be the same.
int wb_aes_decrypt(const wb_aes_ctx_t *ctx, const unsigned char *input, unsigned char *output);
