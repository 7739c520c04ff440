#include "libconf/conf_buffer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

#include "libconf/safe_string.h"

namespace {

constexpr size_t SMALLEST_SIZE = 1024;

// Moves the used bytes into a block of `size` bytes and clears the old one. 0, or -1 with the buffer unchanged.
int resize(conf_buffer_t *buffer, size_t size)
{
  char *block = new (std::nothrow) char[size];
  if (block == nullptr) {
    return -1;
  }
  std::memcpy(block, buffer->data, buffer->used);
  memset_s(buffer->data, buffer->total, 0, buffer->total);
  delete[] buffer->data;
  buffer->data = block;
  buffer->total = size;
  return 0;
}

} // namespace

conf_buffer_t *conf_buffer_create(size_t size)
{
  size_t total = std::max<size_t>(size, 1);
  char *block = new (std::nothrow) char[total];
  if (block == nullptr) {
    return nullptr;
  }
  auto *buffer = new (std::nothrow) conf_buffer_t{total, 0, block};
  if (buffer == nullptr) {
    delete[] block;
  }
  return buffer;
}

void conf_buffer_destroy(conf_buffer_t *buffer)
{
  if (buffer == nullptr) {
    return;
  }
  memset_s(buffer->data, buffer->total, 0, buffer->total);
  delete[] buffer->data;
  delete buffer;
}

int conf_buffer_append(conf_buffer_t *buffer, const void *bytes, size_t length)
{
  if (length == 0) {
    return 0;
  }
  char *room = bytes == nullptr ? nullptr : conf_buffer_reserve(buffer, length);
  if (room == nullptr) {
    return -1;
  }
  std::memcpy(room, bytes, length);
  conf_buffer_commit(buffer, length);
  return 0;
}

char *conf_buffer_reserve(conf_buffer_t *buffer, size_t length)
{
  if (length > PTRDIFF_MAX - buffer->used) {
    return nullptr;
  }
  size_t needed = buffer->used + length;
  if (needed > buffer->total) {
    size_t doubled = buffer->total > PTRDIFF_MAX / 2 ? PTRDIFF_MAX : buffer->total * 2;
    if (resize(buffer, std::max(needed, doubled)) != 0) {
      return nullptr;
    }
  }
  return buffer->data + buffer->used;
}

void conf_buffer_commit(conf_buffer_t *buffer, size_t length)
{
  buffer->used += std::min(length, buffer->total - buffer->used);
}

int conf_buffer_remove(conf_buffer_t *buffer, size_t offset, size_t length)
{
  if (offset > buffer->used || length > buffer->used - offset) {
    return -1;
  }
  size_t behind = buffer->used - offset - length;
  std::memmove(buffer->data + offset, buffer->data + offset + length, behind);
  buffer->used -= length;
  memset_s(buffer->data + buffer->used, buffer->total - buffer->used, 0, length);
  return 0;
}

void conf_buffer_slim(conf_buffer_t *buffer)
{
  // Only from four times the need down to twice: a buffer that fills and empties in turn is not moved at each turn.
  if (buffer->total <= SMALLEST_SIZE || buffer->used > buffer->total / 4) {
    return;
  }
  (void)resize(buffer, std::max(SMALLEST_SIZE, buffer->used * 2)); // without memory the large block just stays
}
