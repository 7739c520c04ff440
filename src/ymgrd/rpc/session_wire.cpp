#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include "libconf/conf_frame.h"
#include "libconf/safe_string.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/memory.h"
#include "ymgrd/rpc/session_internal.h"

namespace {

constexpr size_t HEAD_SIZE = sizeof(msg_head_t);
static_assert(HEAD_SIZE == CONF_FRAME_HEAD_SIZE && MSG_MAGIC == CONF_FRAME_MAGIC);
constexpr int DEFAULT_MAX_MESSAGE_SIZE = 64 * 1024 * 1024;
// Of messages that go out together in one wake-up. A single one may be longer.
constexpr size_t MOST_TOGETHER = 64 * 1024;

// Only called where a whole head is in the buffer.
msg_head_t head_at(const conf_buffer_t &buffer, size_t offset)
{
  msg_head_t head;
  std::memcpy(&head, buffer.data + offset, HEAD_SIZE);
  return head;
}

// 0, or -1 (logged) with the queue unchanged.
int append_message(session_t &session, const msg_head_t &head, size_t body_size,
                   std::span<const std::string_view> pieces)
{
  conf_buffer_t *buffer = session.send_buf.get();
  size_t used_before = buffer->used;
  if (body_size > UINT32_MAX || conf_buffer_append(buffer, &head, HEAD_SIZE) != 0) {
    log_error("Session %d append message head failed.", session.session_id);
    return -1;
  }
  if (conf_buffer_reserve(buffer, body_size) == nullptr) {
    log_error("Session %d append message body failed.", session.session_id);
    (void)conf_buffer_remove(buffer, used_before, HEAD_SIZE);
    return -1;
  }
  for (std::string_view piece : pieces) {
    (void)conf_buffer_append(buffer, piece.data(), piece.size()); // its room is there
  }
  return 0;
}

// Bytes of the whole messages at the front of the queue that may go out together.
size_t sendable(const session_t &session)
{
  size_t length = 0;
  while (session.send_begin + length < session.send_buf->used) {
    size_t total = HEAD_SIZE + head_at(*session.send_buf, session.send_begin + length).length;
    if (length > 0 && length + total > MOST_TOGETHER) {
      break;
    }
    length += total;
  }
  return length;
}

// Passes over the messages that are written now, `written` bytes further than before.
void pass_written(session_t &session, size_t written)
{
  written += session.send_cursor;
  while (session.send_begin < session.send_buf->used) {
    size_t total = HEAD_SIZE + head_at(*session.send_buf, session.send_begin).length;
    if (written > 0) {
      log_info("Session %d send message.", session.session_id);
    }
    if (written < total) {
      break;
    }
    memory_note_use(total);
    session.send_begin += total;
    written -= total;
  }
  session.send_cursor = static_cast<uint32_t>(written);
}

// Clears what has been written since the queue began at `begin`. It is cut out when it is at least as much as what
// stands behind it: each byte moves once on average.
void drop_written(session_t &session, size_t begin)
{
  conf_buffer_t *buffer = session.send_buf.get();
  if (session.send_begin < buffer->used - session.send_begin) {
    memset_s(buffer->data + begin, session.send_begin - begin, 0, session.send_begin - begin);
    return;
  }
  (void)conf_buffer_remove(buffer, 0, session.send_begin); // within the used bytes
  conf_buffer_slim(buffer);
  session.reply_end -= session.reply_end == 0 ? 0 : session.send_begin;
  session.send_begin = 0;
}

} // namespace

uint32_t session_max_message_size()
{
  int limit = context_get_int("OPT-max-message-size", DEFAULT_MAX_MESSAGE_SIZE);
  return static_cast<uint32_t>(limit > 0 ? limit : DEFAULT_MAX_MESSAGE_SIZE);
}

session_recv_t session_core_recv(session_t &session)
{
  uint32_t limit = session_max_message_size();
  switch (conf_frame_receive(session.sock, session.recv_buf.get(), limit)) {
  case CONF_FRAME_WHOLE:
    return SESSION_RECV_MESSAGE;
  case CONF_FRAME_MORE:
    return SESSION_RECV_MORE;
  case CONF_FRAME_END:
    return SESSION_RECV_END;
  case CONF_FRAME_TOO_LONG:
    log_error("Message of session %d is too long(%u bytes, %u allowed).", session.session_id,
              conf_frame_length(session.recv_buf.get()), limit);
    return SESSION_RECV_ERROR;
  case CONF_FRAME_NO_MEMORY:
    log_error("Session %d has no memory for its message.", session.session_id);
    return SESSION_RECV_ERROR;
  case CONF_FRAME_ERROR:
    break;
  }
  log_error("Session %d receive message failed(%s).", session.session_id, std::strerror(errno));
  return SESSION_RECV_ERROR;
}

session_recv_t session_get_rpc(session_t &session, msg_head_t *ret_head, std::string_view *ret_payload)
{
  session_recv_t result = session_core_recv(session);
  if (result != SESSION_RECV_MESSAGE) {
    return result;
  }
  const conf_buffer_t &buffer = *session.recv_buf;
  *ret_head = head_at(buffer, 0);
  *ret_payload = std::string_view(buffer.data + HEAD_SIZE, ret_head->length);
  log_info("Session %d receive message.", session.session_id);
  return SESSION_RECV_MESSAGE;
}

void session_free_message(session_t &session, const msg_head_t &head)
{
  memory_note_use(head.length);
  (void)conf_buffer_remove(session.recv_buf.get(), 0, HEAD_SIZE + head.length); // it was found whole
  conf_buffer_slim(session.recv_buf.get());
}

int session_cache_send(int session_id, int type, const char *buf, int len)
{
  const std::string_view pieces[] = {std::string_view(buf, len < 0 ? 0 : static_cast<size_t>(len))};
  return session_cache_send_pieces(session_id, type, pieces);
}

int session_cache_send_pieces(int session_id, int type, std::span<const std::string_view> pieces)
{
  session_t *session = session_find(session_id);
  if (session == nullptr || session->sock < 0) {
    log_error("Does not find session %d in context.", session_id);
    return -1;
  }
  if (session->bit_exit && type != SESSION_MSG_REPLY) {
    log_debug("Session %d is to be closed and gets no further message.", session_id);
    return -1;
  }
  size_t total = 0;
  for (std::string_view piece : pieces) {
    total += piece.size();
  }
  msg_head_t head = {MSG_MAGIC, static_cast<uint32_t>(total), 0, 0};
  if (type == SESSION_MSG_REPLY) {
    head.seq = session->wait_reply_seq;
  }
  if (append_message(*session, head, total, pieces) != 0) {
    // Without its reply the agent would wait for ever: the connection ends instead.
    session->bit_exit = session->bit_exit || type == SESSION_MSG_REPLY;
    return -1;
  }
  if (type == SESSION_MSG_REPLY) {
    session->reply_end = session->send_buf->used;
  }
  return 0;
}

bool session_has_unwritten(const session_t &session)
{
  return session.sock >= 0 && session.send_begin < session.send_buf->used;
}

size_t session_queued(int session_id)
{
  const session_t *session = session_find(session_id);
  bool is_open = session != nullptr && session->sock >= 0;
  return is_open ? session->send_buf->used - session->send_begin - session->send_cursor : 0;
}

int session_core_send(session_t &session)
{
  if (!session_has_unwritten(session)) {
    return 0;
  }
  const char *unwritten = session.send_buf->data + session.send_begin + session.send_cursor;
  ssize_t written = send(session.sock, unwritten, sendable(session) - session.send_cursor, MSG_NOSIGNAL);
  if (written < 0) {
    int cause = errno;
    if (cause == EAGAIN || cause == EWOULDBLOCK || cause == EINTR) {
      return 0;
    }
    log_error("Session %d send message failed(%s).", session.session_id, std::strerror(cause));
    return -1;
  }
  session.exit_cnt = 0;
  size_t begin = session.send_begin;
  pass_written(session, static_cast<size_t>(written));
  if (session.reply_end > 0 && session.send_begin >= session.reply_end) {
    session.reply_end = 0;
    session.bit_rpc = true;
  }
  drop_written(session, begin);
  (void)session_schedule(session.session_id); // logged there
  return 0;
}
