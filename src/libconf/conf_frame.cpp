#include "libconf/conf_frame.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>

namespace {

constexpr size_t LARGEST_READ = 64 * 1024;
constexpr size_t MAX_GARBAGE_PER_CALL = 64 * 1024;

bool has_magic(const conf_buffer_t &buffer)
{
  return std::memcmp(buffer.data, &CONF_FRAME_MAGIC, sizeof(CONF_FRAME_MAGIC)) == 0;
}

// Cuts off everything before the next magic, or what may be its first bytes at the buffer's end. The number of bytes
// cut.
size_t drop_garbage(conf_buffer_t *buffer)
{
  size_t skip = 1;
  while (skip < buffer->used && std::memcmp(buffer->data + skip, &CONF_FRAME_MAGIC,
                                            std::min(sizeof(CONF_FRAME_MAGIC), buffer->used - skip)) != 0) {
    skip++;
  }
  (void)conf_buffer_remove(buffer, 0, skip); // within the used bytes
  return skip;
}

// Reads at most `missing` bytes behind the used ones. CONF_FRAME_WHOLE when some came.
conf_frame_result_t read_piece(int sock, conf_buffer_t *buffer, size_t missing)
{
  size_t wanted = std::min(missing, LARGEST_READ);
  char *room = conf_buffer_reserve(buffer, wanted);
  if (room == nullptr) {
    return CONF_FRAME_NO_MEMORY;
  }
  ssize_t length = 0;
  do {
    length = recv(sock, room, wanted, 0);
  } while (length < 0 && errno == EINTR);

  if (length > 0) {
    conf_buffer_commit(buffer, static_cast<size_t>(length));
    return CONF_FRAME_WHOLE;
  }
  if (length == 0) {
    return CONF_FRAME_END;
  }
  return errno == EAGAIN || errno == EWOULDBLOCK ? CONF_FRAME_MORE : CONF_FRAME_ERROR;
}

} // namespace

uint32_t conf_frame_length(const conf_buffer_t *buffer)
{
  uint32_t length = 0;
  std::memcpy(&length, buffer->data + sizeof(CONF_FRAME_MAGIC), sizeof(length));
  return length;
}

conf_frame_result_t conf_frame_receive(int sock, conf_buffer_t *buffer, uint32_t max_length)
{
  size_t garbage = 0;
  while (true) {
    size_t missing = CONF_FRAME_HEAD_SIZE - std::min(CONF_FRAME_HEAD_SIZE, buffer->used);
    if (missing == 0) {
      if (!has_magic(*buffer)) {
        garbage += drop_garbage(buffer);
        if (garbage >= MAX_GARBAGE_PER_CALL) {
          return CONF_FRAME_MORE;
        }
        continue;
      }
      uint32_t length = conf_frame_length(buffer);
      if (length > max_length) {
        return CONF_FRAME_TOO_LONG;
      }
      if (buffer->used - CONF_FRAME_HEAD_SIZE >= length) {
        return CONF_FRAME_WHOLE;
      }
      missing = CONF_FRAME_HEAD_SIZE + length - buffer->used;
    }
    conf_frame_result_t piece = read_piece(sock, buffer, missing);
    if (piece != CONF_FRAME_WHOLE) {
      return piece;
    }
  }
}
