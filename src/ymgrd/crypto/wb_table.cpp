// OpenSSL 3 deprecates the functions of a single digest. They need no memory, and their state can be cleared.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "ymgrd/crypto/wb_table.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libconf/safe_string.h"
#include "libconf/unique_fd.h"

namespace {

constexpr uint8_t MAGIC[8] = {'Y', 'M', 'G', 'R', 'T', 'A', 'B', '2'};
constexpr uint8_t VERSION[4] = {0, 0, 0, 1};
// So that the check equals no other digest of the key.
constexpr std::string_view KEY_CHECK_LABEL = "key table: check of the working key";

static_assert(sizeof(wb_table_file_t::digest) == SHA256_DIGEST_LENGTH);

void digest_of(std::string_view label, const void *data, size_t length, unsigned char *ret_digest)
{
  SHA256_CTX state;
  SHA256_Init(&state);
  SHA256_Update(&state, label.data(), label.size());
  SHA256_Update(&state, data, length);
  SHA256_Final(ret_digest, &state);
  memset_s(&state, sizeof(state), 0, sizeof(state));
}

void file_digest(const wb_table_file_t &file, unsigned char *ret_digest)
{
  digest_of({}, &file, offsetof(wb_table_file_t, digest), ret_digest);
}

// The first half of a digest: a random key of 128 bits is not found from it.
void key_check(const unsigned char *working_key, unsigned char *ret_check)
{
  unsigned char digest[SHA256_DIGEST_LENGTH];
  digest_of(KEY_CHECK_LABEL, working_key, WB_BLOCK_LENGTH, digest);
  std::copy_n(digest, sizeof(wb_table_file_t::key_check), ret_check);
}

// The size of a regular file; -1 for anything else.
off_t getFileSize(int fd)
{
  struct stat status = {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

// 0 with all of it, 1 when the file is shorter, -1.
int read_whole(int fd, wb_table_file_t *file)
{
  auto *data = reinterpret_cast<unsigned char *>(file);
  size_t done = 0;
  while (done < sizeof(*file)) {
    ssize_t count = read(fd, data + done, sizeof(*file) - done);
    if (count == 0) {
      return 1;
    }
    if (count < 0 && errno != EINTR) {
      return -1;
    }
    done += count < 0 ? 0 : static_cast<size_t>(count);
  }
  return 0;
}

bool is_whole(const wb_table_file_t &file)
{
  unsigned char digest[SHA256_DIGEST_LENGTH];
  file_digest(file, digest);
  return std::equal(std::begin(MAGIC), std::end(MAGIC), file.magic) &&
         std::equal(std::begin(VERSION), std::end(VERSION), file.version) &&
         std::equal(std::begin(digest), std::end(digest), file.digest);
}

uint8_t add(const uint8_t *table, uint8_t a, uint8_t b)
{
  int low = table[(a & 0x0F) << 4 | (b & 0x0F)];
  int high = table[(a & 0xF0) | b >> 4];
  return static_cast<uint8_t>((low & 0x0F) | (high & 0xF0));
}

void run_step(const wb_step_t &step, uint8_t *bytes)
{
  const uint8_t *words[4];
  for (int row = 0; row < 4; row++) {
    words[row] = step.word[row][bytes[row]];
  }
  for (int i = 0; i < 4; i++) {
    uint8_t sum = words[0][i];
    for (int row = 1; row < 4; row++) {
      sum = add(step.sum[row - 1][i], sum, words[row][i]);
    }
    bytes[i] = sum;
  }
}

} // namespace

wb_table_file_ptr wb_table_new()
{
  wb_table_file_ptr file(new (std::nothrow) wb_table_file_t());
  if (file != nullptr) {
    std::copy(std::begin(MAGIC), std::end(MAGIC), file->magic);
    std::copy(std::begin(VERSION), std::end(VERSION), file->version);
  }
  return file;
}

void wb_table_seal(wb_table_file_t *file, const unsigned char *working_key)
{
  key_check(working_key, file->key_check);
  file_digest(*file, file->digest);
}

wb_table_fault_t wb_table_read(const char *filename, wb_table_file_ptr *ret_file)
{
  unique_fd fd(open(filename, O_RDONLY | O_CLOEXEC | O_NONBLOCK)); // a pipe of that name must not block
  if (fd.get() < 0) {
    return errno == ENOENT ? WB_TABLE_MISSING : WB_TABLE_UNREADABLE;
  }
  if (getFileSize(fd.get()) != static_cast<off_t>(sizeof(wb_table_file_t))) {
    return WB_TABLE_INVALID;
  }
  wb_table_file_ptr file(new (std::nothrow) wb_table_file_t);
  if (file == nullptr) {
    errno = ENOMEM;
    return WB_TABLE_UNREADABLE;
  }
  int result = read_whole(fd.get(), file.get());
  if (result < 0) {
    return WB_TABLE_UNREADABLE;
  }
  if (result > 0 || !is_whole(*file)) {
    return WB_TABLE_INVALID;
  }
  *ret_file = std::move(file);
  return WB_TABLE_WHOLE;
}

bool wb_table_is_for(const wb_table_file_t &file, const unsigned char *working_key)
{
  unsigned char check[sizeof(file.key_check)];
  key_check(working_key, check);
  return CRYPTO_memcmp(check, file.key_check, sizeof(check)) == 0;
}

void wb_tables_decrypt(const wb_tables_t &tables, const unsigned char *input, unsigned char *output)
{
  uint8_t state[WB_BLOCK_LENGTH];
  uint8_t next[WB_BLOCK_LENGTH];
  std::copy_n(input, WB_BLOCK_LENGTH, state);
  for (const auto &round : tables.rounds) {
    for (int column = 0; column < 4; column++) {
      uint8_t *bytes = next + 4 * column;
      for (int row = 0; row < 4; row++) {
        bytes[row] = state[wb_shifted_from(column, row)];
      }
      run_step(round[column].substitute, bytes);
      run_step(round[column].remix, bytes);
    }
    std::copy_n(next, WB_BLOCK_LENGTH, state);
  }
  for (int i = 0; i < WB_BLOCK_LENGTH; i++) {
    output[i] = tables.last[i][state[wb_shifted_from(i / 4, i % 4)]];
  }
  memset_s(state, sizeof(state), 0, sizeof(state));
  memset_s(next, sizeof(next), 0, sizeof(next));
}
