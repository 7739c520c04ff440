#include "ymgrd/broker/plugin.h"

#include <cerrno>
#include <cstring>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "libconf/conf_service.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"

namespace {

constexpr int PLUGIN_LIST_SIZE = 128;
constexpr uint32_t SOCKET_FAILURE = EPOLLERR | EPOLLHUP | EPOLLRDHUP;
constexpr uint32_t SOCKET_INPUT = EPOLLIN | EPOLLPRI;

int unknown_plugin(int plugin_id)
{
  log_error("Does not find plugin %d in context.", plugin_id);
  return -1;
}

int enable_service()
{
  int sock = conf_plugin_service_enable();
  if (sock < 0) {
    log_error("Enable plugin service failed(%s).", strerror(errno));
    return -1;
  }
  if (context_save_int("OPT-plugin-sock", sock) != 0) {
    log_error("Save plugin service socket to context failed.");
    conf_plugin_service_disable(sock);
    return -1;
  }
  return 0;
}

void refuse_connection(int connection)
{
  conf_peer_t peer = {};
  if (conf_peer_credentials(connection, &peer) != 0) {
    log_error("Read credentials of plugin connect failed(%s).", strerror(errno));
  }
  log_warn("Remote plugins are not served by this version.");
  log_info("Plugin connect of process %ld (user %ld) is closed.", static_cast<long>(peer.pid),
           static_cast<long>(peer.uid));
}

// Takes every connection that waits. 0, or -1 when the socket fails.
int refuse_connections(int sock)
{
  while (true) {
    unique_fd connection(accept4(sock, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection.get() >= 0) {
      refuse_connection(connection.get());
      continue;
    }
    if (errno == EAGAIN) {
      return 0;
    }
    if (errno != EINTR && errno != ECONNABORTED) { // else that connection has gone, and the next one may wait
      log_error("Accept on plugin connect failed(%s).", strerror(errno));
      return -1;
    }
  }
}

} // namespace

int plugin_init(int stage)
{
  switch (stage) {
  case STAGE_RESOURCE:
    return context_create_list("LIST-plugin", PLUGIN_LIST_SIZE);
  case STAGE_KICKOFF:
    return enable_service();
  default:
    return 0;
  }
}

void plugin_exit()
{
  int sock = plugin_service_sock();
  context_remove_option("OPT-plugin-sock");
  if (sock >= 0) {
    conf_plugin_service_disable(sock);
  }
  if (context_get_option("LIST-plugin") != nullptr) {
    context_destroy_list("LIST-plugin", nullptr); // holds no entries
  }
}

int plugin_create_local_inst(const char *name, const char *so_path)
{
  log_error("Local plugin <%.512s> is not loaded(%.512s): local plugins are not served by this version.", name,
            so_path);
  return -1;
}

int plugin_publish_config(int plugin_id, const plugin_publish_info_t *info, int *status)
{
  *status = SUBPUB_ERROR;
  if (plugin_id != 0) {
    return unknown_plugin(plugin_id);
  }
  const auto &item = info->config;
  // The flag stands before the priority here, unlike in the record.
  if (info->cb_func.config(info->session_id, item.oper_type, item.more_flag, item.priority, item.path) == 0) {
    *status = SUBPUB_CONTINUE;
  }
  return 0;
}

// The broker calls operation handlers inside the daemon itself.
int plugin_publish_operate(int plugin_id, const plugin_publish_info_t *, int *status)
{
  *status = SUBPUB_ERROR;
  return unknown_plugin(plugin_id);
}

int plugin_subscribe_status(int plugin_id, const plugin_subscibe_info_t *info, int *status)
{
  *status = SUBPUB_ERROR;
  if (plugin_id != 0) {
    return unknown_plugin(plugin_id);
  }
  if (info->cb_func.status(info->session_id, info->path) == 0) {
    *status = SUBPUB_CONTINUE;
  }
  return 0;
}

int plugin_service_sock()
{
  return context_get_int("OPT-plugin-sock", -1);
}

int plugin_service_wakeup(uint32_t event)
{
  if ((event & SOCKET_FAILURE) != 0) {
    log_debug("There is error(0x%x) on plugin-service socket.", event);
    (void)context_save_int("OPT-quit-flag",
                           static_cast<int>(event)); // without the option the failure is reported again
    return -1;
  }
  if ((event & SOCKET_INPUT) != 0) {
    return refuse_connections(plugin_service_sock());
  }
  return 0;
}

int plugin_inst_wakeup(int plugin_id, uint32_t)
{
  return unknown_plugin(plugin_id);
}

void plugin_timeout()
{
  // No plugin is connected, so no deadline runs.
}
