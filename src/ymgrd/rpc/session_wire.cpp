#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include "libconf/conf_frame.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/memory.h"
#include "ymgrd/rpc/session_internal.h"

namespace {

constexpr size_t HEAD_SIZE = sizeof(msg_head_t);
static_assert(HEAD_SIZE == CONF_FRAME_HEAD_SIZE && MSG_MAGIC == CONF_FRAME_MAGIC);
constexpr int DEFAULT_MAX_MESSAGE_SIZE = 64 * 1024 * 1024;

// Only called with a whole head in the buffer.
msg_head_t front_head(const conf_buffer_t &buffer)
{
  msg_head_t head;
  std::memcpy(&head, buffer.data, HEAD_SIZE);
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
  *ret_head = front_head(buffer);
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
  return 0;
}

int session_core_send(session_t &session)
{
  conf_buffer_t *buffer = session.send_buf.get();
  if (buffer->used == 0) {
    return 0;
  }
  msg_head_t head = front_head(*buffer);
  size_t total = HEAD_SIZE + head.length;
  ssize_t length = send(session.sock, buffer->data + session.send_cursor, total - session.send_cursor, MSG_NOSIGNAL);
  if (length < 0) {
    int cause = errno;
    if (cause == EAGAIN || cause == EWOULDBLOCK || cause == EINTR) {
      return 0;
    }
    log_error("Session %d send message failed(%s).", session.session_id, std::strerror(cause));
    return -1;
  }
  log_info("Session %d send message.", session.session_id);
  session.exit_cnt = 0;
  session.send_cursor += static_cast<uint32_t>(length);
  if (session.send_cursor < total) {
    return 0;
  }
  // A reply ends its request's context before it is queued: with a context this was some other message.
  if (head.seq == session.wait_reply_seq && session.rpc_context == nullptr) {
    session.bit_rpc = true;
  }
  memory_note_use(total);
  (void)conf_buffer_remove(buffer, 0, total); // it was queued whole
  conf_buffer_slim(buffer);
  session.send_cursor = 0;
  (void)session_schedule(session.session_id); // logged there
  return 0;
}
