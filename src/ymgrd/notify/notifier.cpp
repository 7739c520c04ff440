#include "ymgrd/notify/notifier.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "libconf/conf_service.h"
#include "libconf/safe_string.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr int SUBSCRIPTION_LIST_SIZE = 8;
constexpr uint32_t SOCKET_FAILURE = EPOLLERR | EPOLLHUP | EPOLLRDHUP;
// Datagrams taken in one wake-up: a plugin that floods the socket must not keep the loop from the agents.
constexpr int MOST_AT_ONCE = 64;

typedef std::array<char, 4097> notifier_buffer_t;

int create_resources()
{
  if (context_create_list("LIST-subscription", SUBSCRIPTION_LIST_SIZE) != 0) {
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
  return 0;
}

// 1 when a datagram was taken, 0 when none waits, -1 when the socket fails.
int drop_datagram(int sock, notifier_buffer_t *buffer)
{
  ssize_t length = recv(sock, buffer->data(), buffer->size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length >= 0) {
    memset_s(buffer->data(), buffer->size(), 0, buffer->size());
    log_info("Receive plugin notification, length is %d", static_cast<int>(length));
    log_warn("If you want to use notification, Please configure it in ymgrd.conf first.");
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
  if (context_get_option("LIST-subscription") != nullptr) {
    context_destroy_list("LIST-subscription", nullptr); // holds no entries
  }
}

void notifier_parse_notification(const cJSON *)
{
  log_warn("The profile's section <notification> is not served by this version.");
}

int notifier_emit(time_t, std::string)
{
  return -1;
}

void notifier_run_pending() {}

bool notifier_has_work()
{
  return false;
}

void notifier_del_client(int) {}

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
  for (int i = 0; i < MOST_AT_ONCE && taken == 1; i++) {
    taken = drop_datagram(notifier_service_sock(), buffer);
  }
  return taken < 0 ? -1 : 0;
}

void notifier_timer()
{
  // Without subscriptions nothing is due at any time.
}
