#include "ymgrd/crypto/working_key.h"

#include <cstdint>
#include <ctime>

#include <sys/stat.h>

#include "libconf/safe_string.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/crypto/wb_aes.h"

namespace {

// Tells a file from what it was before, and from another one in its place.
typedef struct _file_state {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  int64_t modified_ns = 0;
  int64_t changed_ns = 0;

  bool operator==(const _file_state &) const = default;
} file_state_t;

typedef struct _key_table {
  wb_aes_ctx_ptr ctx; // null when the file holds no tables
  file_state_t file;  // as it was just before it was read
  bool is_settled = false;
} key_table_t;

int64_t nanoseconds(const timespec &time)
{
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// File systems take the time from a clock that ticks every few milliseconds: a file that was changed a moment ago may
// change once more without looking different. A time to come, after the clock was set back, says nothing.
bool is_settled(const file_state_t &file)
{
  constexpr int64_t LONGEST_TICK_NS = 100'000'000;
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  int64_t age_ns = nanoseconds(now) - file.changed_ns;
  return age_ns < 0 || age_ns > LONGEST_TICK_NS;
}

// The tables of half a megabyte are kept between uses, the key is not. Looking at the file each time costs a
// microsecond, and a file that was replaced, damaged or taken away counts at once.
const wb_aes_ctx_t *take_key_table()
{
  static key_table_t kept;
  const char *path = ymgrd_key_table_path().c_str();
  struct stat status = {};
  bool is_there = stat(path, &status) == 0;
  file_state_t file = {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                       nanoseconds(status.st_ctim)};
  bool is_known = is_there && kept.file == file;
  if (is_known && kept.is_settled) {
    if (kept.ctx == nullptr) {
      log_error("wb load table: Load table failed.");
    }
    return kept.ctx.get();
  }
  kept = {};
  bool settled = is_settled(file); // before it is read
  wb_aes_ctx_ptr ctx(wb_aes_ctx_new());
  if (ctx == nullptr) {
    log_error("wb load table: wb ctx new failed.");
    return nullptr;
  }
  if (wb_aes_load_table(ctx.get(), path) != 0) {
    log_error("wb load table: Load table failed.");
    if (wb_aes_fault(ctx.get()) == WB_TABLE_INVALID) {
      kept = {nullptr, file, settled}; // reading half a megabyte for each of many values would hold up the daemon
    }
    return nullptr;
  }
  if (!is_known && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    log_warn("Others than its owner have access to the key table %.512s (mode %04o).", path,
             static_cast<unsigned>(status.st_mode & 07777));
  }
  kept = {std::move(ctx), file, settled};
  return kept.ctx.get();
}

} // namespace

int ymgrm_decrypt_working(const unsigned char *input, unsigned char *output)
{
  if (input == nullptr || output == nullptr) {
    log_error("dec working: output or input is NULL!");
    return -1;
  }
  const wb_aes_ctx_t *ctx = take_key_table();
  if (ctx == nullptr) {
    return -1;
  }
  unsigned char key[WB_BLOCK_LENGTH];
  int result = wb_aes_decrypt(ctx, input, key);
  if (result != 0) {
    log_error("wb load table: wb decrypt failed.");
  } else if (!wb_aes_is_for(ctx, key)) {
    log_error("The key table %.512s was not made for the working key of the profile.", ymgrd_key_table_path().c_str());
    result = -1;
  } else {
    result = memcpy_s(output, WB_BLOCK_LENGTH, key, sizeof(key)) == 0 ? 0 : -1;
  }
  memset_s(key, sizeof(key), 0, sizeof(key));
  return result;
}
