#include "ymgrd/crypto/wb_aes.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "ymgrd/core/log.h"

struct _wb_aes_ctx {
  wb_table_file_ptr file; // null until one is loaded
  wb_table_fault_t fault = WB_TABLE_MISSING;
};

namespace {

int check_ctx_and_filename(const wb_aes_ctx_t *ctx, const char *filename)
{
  if (ctx == nullptr || filename == nullptr) {
    log_error("wb load table: error, ptr-table is null.");
    return -1;
  }
  return 0;
}

} // namespace

wb_aes_ctx_t *wb_aes_ctx_new()
{
  return new (std::nothrow) wb_aes_ctx_t;
}

void wb_aes_ctx_release(wb_aes_ctx_t *ctx)
{
  delete ctx;
}

int wb_aes_load_table(wb_aes_ctx_t *ctx, const char *filename)
{
  if (check_ctx_and_filename(ctx, filename) != 0) {
    return -1;
  }
  ctx->fault = wb_table_read(filename, &ctx->file);
  switch (ctx->fault) {
  case WB_TABLE_WHOLE:
    return 0;
  case WB_TABLE_MISSING:
    log_error("wb load table: File not exist...");
    return -1;
  case WB_TABLE_UNREADABLE:
    log_error("wb load table: %.512s cannot be read: %s.", filename, strerror(errno));
    return -1;
  case WB_TABLE_INVALID:
    break;
  }
  log_error("Invalid file format...");
  return -1;
}

wb_table_fault_t wb_aes_fault(const wb_aes_ctx_t *ctx)
{
  return ctx->fault;
}

int wb_aes_decrypt(const wb_aes_ctx_t *ctx, const unsigned char *input, unsigned char *output)
{
  if (ctx == nullptr || ctx->file == nullptr) {
    log_error("wb load table: error, ptr-table is null.");
    return -1;
  }
  wb_tables_decrypt(ctx->file->tables, input, output);
  return 0;
}

bool wb_aes_is_for(const wb_aes_ctx_t *ctx, const unsigned char *working_key)
{
  return ctx->file != nullptr && wb_table_is_for(*ctx->file, working_key);
}
