#include "ymgrd/notify/notifier.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "libconf/conf_service.h"
#include "libconf/safe_string.h"
#include "libconf/wiped_string.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/notify/base_event.h"
#include "ymgrd/notify/create_subscription.h"
#include "ymgrd/notify/event_store.h"
#include "ymgrd/notify/notifier_send.h"
#include "ymgrd/notify/plugin_event.h"
#include "ymgrd/notify/streams_state.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr uint32_t SOCKET_FAILURE = EPOLLERR | EPOLLHUP | EPOLLRDHUP;
// Datagrams, and their bytes, taken in one wake-up: a plugin that floods the socket must not keep the loop from the
// agents.
constexpr int MOST_AT_ONCE = 64;
constexpr size_t MOST_BYTES_AT_ONCE = 64 * 1024; // the last one may go beyond
// Of one event.
constexpr size_t LONGEST_DATAGRAM = 256 * 1024;

typedef std::array<char, 4097> notifier_buffer_t;

std::vector<stored_event_t> g_taken_up; // since the last notifier_flush

int create_resources()
{
  if (client_create_list() != 0) {
    return -1;
  }
  auto buffer = std::make_unique<notifier_buffer_t>(); // zeroed
  if (context_save_record("OPT-notifier-buffer", buffer.get()) != 0) {
    log_error("Save notifier buffer to context failed.");
    return -1;
  }
  (void)buffer.release(); // freed by notifier_exit
  return 0;
}

int notifier_reg_operation()
{
  const oper_registration_t operations[] = {{CREATE_SUBSCRIPTION, oper_create_subscription}};
  const char *failed = "";
  if (broker_reg_inside_operations(operations, std::size(operations), &failed) != 0) {
    log_error("Notifier register operation %s callback failed.", failed);
    return -1;
  }
  return 0;
}

int notifier_reg_status()
{
  if (notification_get_config() == nullptr) {
    return 0; // there are no streams
  }
  if (lys_find_path(schema_ctx(), nullptr, STREAMS_STATE_PATH, 0) == nullptr) {
    log_info("The event streams' state is not published: its module is not loaded.");
    return 0;
  }
  econf_subpub_cb_t handler = {};
  handler.status = nc_notifications_status;
  return broker_reg_status_publisher(nullptr, STREAMS_STATE_PATH, handler);
}

bool is_announced(const char *capability)
{
  for (int i = 0; i < context_list_size("LIST-cpblt"); i++) {
    const auto *announced = static_cast<const char *>(context_get_list_entry("LIST-cpblt", i));
    if (announced != nullptr && std::strcmp(announced, capability) == 0) {
      return true;
    }
  }
  return false;
}

// Unless the profile lists them itself.
void announce_capabilities()
{
  for (const char *capability :
       {"urn:ietf:params:netconf:capability:notification:1.0", "urn:ietf:params:netconf:capability:interleave:1.0"}) {
    if (!is_announced(capability) && schema_add_capability(capability) != 0) {
      log_warn("Add capability <%s> failed.", capability);
    }
  }
}

// The stream whose events are stored; null when none are.
const notification_config_stream *stored_stream()
{
  const notification_config_stream *stream = notification_find_stream(NETCONF_STREAM);
  return stream != nullptr && notification_has_replay(*stream) ? stream : nullptr;
}

// A database that is not there now is asked again when there is something to store.
void notifier_db_event_init()
{
  if (notification_get_config() == nullptr) {
    return;
  }
  announce_capabilities();
  if (stored_stream() != nullptr) {
    (void)event_store_open();
  }
}

int configure()
{
  if (notifier_reg_operation() != 0 || notifier_reg_status() != 0) {
    return -1;
  }
  notifier_db_event_init();
  return 0;
}

int enable_service()
{
  int sock = conf_plugin_notifier_enable();
  if (sock < 0) {
    log_error("Enable notification service failed(%s).", strerror(errno));
    return -1;
  }
  if (context_save_int("OPT-notify-sock", sock) != 0) {
    log_error("Save notification service socket to context failed.");
    conf_plugin_notifier_disable(sock);
    return -1;
  }
  if (notification_get_config() != nullptr) {
    (void)base_event_compare_capabilities(); // logged there; there is no event then
  }
  return 0;
}

void take_plugin_event(std::string_view datagram)
{
  log_info("Receive plugin notification, length is %zu", datagram.size());
  if (notification_get_config() == nullptr) {
    log_warn("If you want to use notification, Please configure it in ymgrd.conf first.");
    return;
  }
  std::string content;
  if (plugin_event_check(datagram, &content) == 0) {
    (void)notifier_emit(time(nullptr), std::move(content)); // logged there
  }
}

// Takes one datagram, of which `size` bytes are wanted, and clears the buffer behind it. Its length, or -1 with errno.
ssize_t receive_into(int sock, char *bytes, size_t size)
{
  ssize_t length = recv(sock, bytes, size, MSG_DONTWAIT);
  if (length >= 0) {
    take_plugin_event(std::string_view(bytes, static_cast<size_t>(length)));
  }
  memset_s(bytes, size, 0, size);
  return length;
}

// The next datagram of that length; a longer one than allowed is dropped.
ssize_t receive_datagram(int sock, size_t length, notifier_buffer_t *buffer)
{
  if (length <= buffer->size()) {
    return receive_into(sock, buffer->data(), buffer->size());
  }
  if (length > LONGEST_DATAGRAM) {
    log_error("A plugin notification is too long(%zu bytes, %zu allowed).", length, LONGEST_DATAGRAM);
    return recv(sock, nullptr, 0, MSG_DONTWAIT);
  }
  std::vector<char, wiping_allocator<char>> own(length);
  return receive_into(sock, own.data(), own.size());
}

// 1 when a datagram was taken, whose length is added; 0 when none waits, -1 when the socket fails.
int take_datagram(int sock, notifier_buffer_t *buffer, size_t *bytes)
{
  ssize_t length = recv(sock, nullptr, 0, MSG_DONTWAIT | MSG_PEEK | MSG_TRUNC);
  if (length >= 0) {
    *bytes += static_cast<size_t>(length);
    length = receive_datagram(sock, static_cast<size_t>(length), buffer);
  }
  if (length >= 0) {
    return 1;
  }
  if (errno == EAGAIN || errno == EINTR) {
    return 0; // after an interruption the socket is reported again
  }
  log_error("Receive plugin notification failed(%s).", strerror(errno));
  return -1;
}

} // namespace

int notifier_init(int stage)
{
  switch (stage) {
  case STAGE_RESOURCE:
    return create_resources();
  case STAGE_CONFIG:
    return configure();
  case STAGE_KICKOFF:
    return enable_service();
  default:
    return 0;
  }
}

void notifier_exit()
{
  int sock = notifier_service_sock();
  context_remove_option("OPT-notify-sock");
  if (sock >= 0) {
    conf_plugin_notifier_disable(sock);
  }
  std::unique_ptr<notifier_buffer_t> buffer(context_get_record<notifier_buffer_t>("OPT-notifier-buffer"));
  context_remove_option("OPT-notifier-buffer");
  client_destroy_list();
  g_taken_up.clear();
  event_store_close();
  notification_free_config();
}

int notifier_emit(time_t eventtime, std::string content)
{
  if (notification_get_config() == nullptr) {
    log_warn("If you want to use notification, Please configure it in ymgrd.conf first.");
    return -1;
  }
  stored_event_t event;
  event.eventtime = eventtime;
  event.content = std::move(content);
  g_taken_up.push_back(std::move(event));
  return 0;
}

void notifier_flush()
{
  if (g_taken_up.empty()) {
    return;
  }
  std::vector<stored_event_t> events = std::exchange(g_taken_up, {});
  const notification_config_stream *stream = stored_stream();
  // Without the database only the stored copy is lost.
  if (stream == nullptr || event_store_append(events, stream->replay_max) != 0) {
    notifier_send_live(events, nullptr);
    return;
  }
  uint64_t first_number = event_store_end() - events.size();
  notifier_send_live(events, &first_number);
}

void notifier_run_pending()
{
  notifier_flush();
  if (client_is_any()) {
    notifier_send_stored();
  }
}

bool notifier_has_work()
{
  return !g_taken_up.empty() || (client_is_any() && notifier_can_send_stored());
}

void notifier_del_client(int session_id)
{
  client_delete(session_id);
}

int notifier_service_sock()
{
  return context_get_int("OPT-notify-sock", -1);
}

int notifier_service_wakeup(uint32_t event)
{
  if ((event & SOCKET_FAILURE) != 0) {
    log_debug("There is error(0x%x) on notify-service socket.", event);
    (void)context_save_int("OPT-quit-flag",
                           static_cast<int>(event)); // without the option the failure is reported again
    return -1;
  }
  auto *buffer = context_get_record<notifier_buffer_t>("OPT-notifier-buffer");
  if ((event & EPOLLIN) == 0 || buffer == nullptr) {
    return 0;
  }
  int taken = 1;
  size_t bytes = 0;
  for (int i = 0; i < MOST_AT_ONCE && bytes < MOST_BYTES_AT_ONCE && taken == 1; i++) {
    taken = take_datagram(notifier_service_sock(), buffer, &bytes);
  }
  return taken < 0 ? -1 : 0;
}

void notifier_timer()
{
  if (client_is_any()) {
    notifier_flush(); // events up to the stop time come before its end is told
    notifier_note_lost();
    notifier_send_complete();
  }
}
