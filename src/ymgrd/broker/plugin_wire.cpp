#include <cerrno>
#include <cstring>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "libconf/conf_event.h"
#include "libconf/conf_frame.h"
#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/memory.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/ymgrd.h"

namespace {

static_assert(sizeof(plugin_msg_head_t) == CONF_FRAME_HEAD_SIZE && PLUGIN_MSG_MAGIC == CONF_FRAME_MAGIC);

// What may wait for a plugin beside one message of the greatest size.
constexpr size_t SEND_MARGIN = 1024 * 1024;

size_t unwritten(const plugin_inst_t &plugin)
{
  return plugin.remote.send_buf->used - plugin.remote.send_pos;
}

// Tells the event loop whether the plugin waits for room in its socket.
void watch_writing(plugin_inst_t *plugin)
{
  bool is_awaited = unwritten(*plugin) > 0;
  if (is_awaited == plugin->remote.is_write_awaited) {
    return;
  }
  int epfd = context_get_int("OPT-ymgrd-epfd", -1);
  if (epfd < 0) {
    log_error("Ymgrd's epoll-fd is not ready.");
    return;
  }
  uint32_t tag = ymgrd_event_tag(PLG_INST, static_cast<uint32_t>(plugin->plugin_id));
  uint32_t events = is_awaited ? EPOLLIN | EPOLLOUT : EPOLLIN;
  if (conf_event_reset(epfd, plugin->remote.sock, events, tag) != 0) {
    log_error("Reset plugin %.512s's event to epoll failed.", plugin_label(*plugin).c_str());
    return;
  }
  plugin->remote.is_write_awaited = is_awaited;
}

// Written bytes are cut out when they are at least as many as those behind them: each byte moves once on average.
void drop_written(plugin_inst_t *plugin)
{
  plugin_remote_t &remote = plugin->remote;
  if (remote.send_pos < remote.send_buf->used - remote.send_pos) {
    return;
  }
  memory_note_use(remote.send_pos);
  (void)conf_buffer_remove(remote.send_buf.get(), 0, remote.send_pos); // within the used bytes
  conf_buffer_slim(remote.send_buf.get());
  remote.send_pos = 0;
}

// 0, or -1 (logged) with the queue unchanged.
int append_frame(plugin_inst_t *plugin, const plugin_msg_head_t &head, std::initializer_list<std::string_view> pieces)
{
  conf_buffer_t *buffer = plugin->remote.send_buf.get();
  size_t used_before = buffer->used;
  if (conf_buffer_append(buffer, &head, sizeof(head)) != 0) {
    log_error("Append rpc message header to buffer failed.");
    return -1;
  }
  if (conf_buffer_reserve(buffer, head.length) == nullptr) {
    log_error("Append rpc message body to buffer failed.");
    (void)conf_buffer_remove(buffer, used_before, sizeof(head));
    return -1;
  }
  for (std::string_view piece : pieces) {
    (void)conf_buffer_append(buffer, piece.data(), piece.size()); // its room is there
  }
  return 0;
}

void log_lost(const plugin_inst_t &plugin, conf_frame_result_t result, uint32_t limit)
{
  std::string label = plugin_label(plugin);
  switch (result) {
  case CONF_FRAME_TOO_LONG:
    log_error("Message of plugin %.512s is too long(%u bytes, %u allowed).", label.c_str(),
              conf_frame_length(plugin.remote.recv_buf.get()), limit);
    break;
  case CONF_FRAME_NO_MEMORY:
    log_error("Cache receive message failed.");
    break;
  case CONF_FRAME_ERROR:
    log_error("Read message from plugin failed(%s).", std::strerror(errno));
    break;
  default:
    log_debug("Plugin %.512s has closed its connection.", label.c_str());
    break;
  }
}

} // namespace

plugin_recv_t plugin_core_recv(plugin_inst_t *plugin, uint16_t *ret_msg_id, plugin_doc_ptr *ret_message)
{
  conf_buffer_t *buffer = plugin->remote.recv_buf.get();
  uint32_t limit = session_max_message_size();
  conf_frame_result_t result = conf_frame_receive(plugin->remote.sock, buffer, limit);
  if (result == CONF_FRAME_MORE) {
    return PLUGIN_RECV_MORE;
  }
  if (result != CONF_FRAME_WHOLE) {
    log_lost(*plugin, result, limit);
    return PLUGIN_RECV_LOST;
  }
  plugin_msg_head_t head;
  std::memcpy(&head, buffer->data, sizeof(head));
  *ret_msg_id = head.msg_id;
  *ret_message = plugin_parse_message({buffer->data + sizeof(head), head.length});
  memory_note_use(head.length);
  (void)conf_buffer_remove(buffer, 0, sizeof(head) + head.length); // it was found whole
  conf_buffer_slim(buffer);
  return PLUGIN_RECV_MESSAGE;
}

int plugin_cache_send(plugin_inst_t *plugin, uint16_t msg_id, const plugin_doc_ptr &message)
{
  wiped_string text = plugin_print_message(message);
  if (text.empty()) {
    log_error("Dump rpc node failed.");
    return -1;
  }
  return plugin_cache_send(plugin, msg_id, {std::string_view(text)});
}

int plugin_cache_send(plugin_inst_t *plugin, uint16_t msg_id, std::initializer_list<std::string_view> pieces)
{
  if (plugin->remote.is_cut) {
    return -1; // logged when it was cut off
  }
  size_t length = 0;
  for (std::string_view piece : pieces) {
    length += piece.size();
  }
  uint32_t limit = session_max_message_size();
  if (length > limit) {
    log_error("Message to plugin %.512s is too long(%zu bytes, %u allowed).", plugin_label(*plugin).c_str(), length,
              limit);
    return -1;
  }
  size_t waiting = unwritten(*plugin);
  if (waiting + length + sizeof(plugin_msg_head_t) > limit + SEND_MARGIN) {
    log_error("Plugin %.512s is cut off: it does not read, and %zu bytes wait for it.", plugin_label(*plugin).c_str(),
              waiting);
    plugin_cut_off(plugin);
    return -1;
  }
  if (append_frame(plugin, {PLUGIN_MSG_MAGIC, static_cast<uint32_t>(length), msg_id, 0}, pieces) != 0) {
    return -1;
  }
  if (waiting == 0) {
    plugin_core_send(plugin);
  }
  return 0;
}

void plugin_core_send(plugin_inst_t *plugin)
{
  plugin_remote_t &remote = plugin->remote;
  if (unwritten(*plugin) == 0 || remote.is_cut) {
    return;
  }
  ssize_t length = send(remote.sock, remote.send_buf->data + remote.send_pos, unwritten(*plugin), MSG_NOSIGNAL);
  if (length < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
    log_error("Plugin %.512s send message failed(%s).", plugin_label(*plugin).c_str(), std::strerror(errno));
    plugin_cut_off(plugin);
    return;
  }
  if (length > 0) {
    remote.send_pos += static_cast<uint32_t>(length);
    log_info("Send message to plugin %.512s len %zd,buf len %zu.", plugin_label(*plugin).c_str(), length,
             unwritten(*plugin));
    drop_written(plugin);
  }
  watch_writing(plugin);
}

void plugin_cut_off(plugin_inst_t *plugin)
{
  plugin_remote_t &remote = plugin->remote;
  if (remote.is_cut) {
    return;
  }
  remote.is_cut = true;
  (void)shutdown(remote.sock, SHUT_RDWR); // fails when the peer has gone: that is reported in the same way
  (void)conf_buffer_remove(remote.send_buf.get(), 0, remote.send_buf->used);
  remote.send_pos = 0;
  watch_writing(plugin);
}
