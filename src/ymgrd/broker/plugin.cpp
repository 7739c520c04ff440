#include "ymgrd/broker/plugin.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "libconf/conf_event.h"
#include "libconf/conf_service.h"
#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/datastore/ds_plugin_data.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr const char PLUGIN_LIST[] = "LIST-plugin";
constexpr int DEFAULT_PLUGIN_SPEC = 128;
constexpr int MAX_PLUGIN_SPEC = 0xffff; // an id has 16 bits in the event tag
constexpr size_t BUFFER_SIZE = 1024;
constexpr int MOST_CONNECTIONS_PER_EVENT = 16;
constexpr uint32_t SOCKET_FAILURE = EPOLLERR | EPOLLHUP | EPOLLRDHUP;
constexpr uint32_t SOCKET_INPUT = EPOLLIN | EPOLLPRI;

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

// --- Connections of remote plugins.

bool is_overload()
{
  return static_cast<int>(plugin_ids().size()) >= std::min(plugin_spec(), MAX_PLUGIN_SPEC);
}

int watch_socket(const plugin_inst_t &plugin)
{
  int epfd = context_get_int("OPT-ymgrd-epfd", -1);
  if (epfd < 0) {
    log_error("Ymgrd's epoll-fd is not ready.");
    return -1;
  }
  uint32_t tag = ymgrd_event_tag(PLG_INST, static_cast<uint32_t>(plugin.plugin_id));
  if (conf_event_add(epfd, plugin.remote.sock, EPOLLIN, tag) != 0) {
    log_error("Add plugin %.512s's event to epoll failed.", plugin_label(plugin).c_str());
    return -1;
  }
  return 0;
}

void take_connection(unique_fd connection)
{
  conf_peer_t peer = {};
  if (conf_peer_credentials(connection.get(), &peer) != 0) {
    log_error("Read credentials of plugin connect failed(%s).", strerror(errno));
  }
  if (is_overload()) {
    log_warn("Plugin connect of process %ld is closed: there are %d plugins already.", static_cast<long>(peer.pid),
             plugin_spec());
    return;
  }
  auto plugin = std::make_unique<plugin_inst_t>();
  plugin->remote.peer_pid = peer.pid;
  plugin->remote.recv_buf.reset(conf_buffer_create(BUFFER_SIZE));
  plugin->remote.send_buf.reset(conf_buffer_create(BUFFER_SIZE));
  if (plugin->remote.recv_buf == nullptr || plugin->remote.send_buf == nullptr) {
    log_error("Create buffers for plugin connect of process %ld failed.", static_cast<long>(peer.pid));
    return;
  }
  plugin_inst_t *added = plugin.get();
  if (plugin_add_inst(std::move(plugin)) != 0) {
    return;
  }
  added->remote.sock = connection.release(); // closed by plugin_destroy_inst
  if (watch_socket(*added) != 0) {
    plugin_destroy_inst(added);
    return;
  }
  log_debug("Plugin connect of process %ld (user %ld) has id %d.", static_cast<long>(peer.pid),
            static_cast<long>(peer.uid), added->plugin_id);
}

// Takes connections that wait; the rest is reported again. 0, or -1 when the socket fails.
int take_connections(int sock)
{
  for (int taken = 0; taken < MOST_CONNECTIONS_PER_EVENT; taken++) {
    unique_fd connection(accept4(sock, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection.get() >= 0) {
      take_connection(std::move(connection));
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
  return 0;
}

// --- The end of a remote plugin.

// The connection has ended. What is waited for goes on without the plugin, at once: its error comes first, while the
// publication still stands on the plugin's subscription; then the plugin goes; then the others have their turn.
void plugin_lost(plugin_inst_t *plugin)
{
  std::string label = plugin_label(*plugin);
  bool is_publishing = plugin->bit_pub_config;
  bool is_operating = plugin->bit_pub_oper;
  bool is_subscribed = plugin->bit_sub_status;
  int plugin_id = plugin->plugin_id;
  plugin_operation_t operation = plugin_take_operation(plugin);
  std::string sub_path = plugin->sub_path;
  log_info("Plugin %.512s has gone(id=%d).", label.c_str(), plugin_id);
  if (is_publishing) {
    std::string text = "Plugin " + label + " has gone while it was offered " + plugin->pub_path;
    plugin_change_failed(plugin, -1, text);
  }
  plugin_destroy_inst(plugin);
  if (is_publishing) {
    broker_publish_continue(plugin_id); // a restore goes on by itself
  }
  if (is_operating) {
    plugin_nbi_error(operation, -1, "Plugin " + label + " has gone while it processed the operation");
  }
  if (is_subscribed) {
    log_warn("Plugin %.512s has gone while it was asked for %.512s.", label.c_str(), sub_path.c_str());
    broker_subscribe_continue(plugin_id);
  }
}

void dispatch_message(plugin_inst_t *plugin, uint16_t msg_id, const plugin_doc_ptr &message)
{
  bool was_overdue = plugin->bit_overdue;
  plugin->bit_overdue = false;
  const xmlNode *root = plugin_root_of(message);
  if (plugin_is_reply(root)) {
    plugin_reply_dispatch(plugin, root, msg_id);
  } else {
    plugin_rpc_dispatch(plugin, root, msg_id);
  }
  if (was_overdue) {
    plugin_wake(plugin);
  }
}

void end_plugins()
{
  for (int plugin_id : plugin_ids()) {
    plugin_inst_t *plugin = plugin_find(plugin_id);
    if (plugin != nullptr) {
      plugin_destroy_inst(plugin);
    }
  }
}

} // namespace

int plugin_spec()
{
  return context_get_int("OPT-plugin-spec", DEFAULT_PLUGIN_SPEC);
}

int plugin_init(int stage)
{
  if (stage == STAGE_RESOURCE) {
    return context_create_list(PLUGIN_LIST, DEFAULT_PLUGIN_SPEC);
  }
  plugin_start_local(stage);
  return stage == STAGE_KICKOFF ? enable_service() : 0;
}

void plugin_exit()
{
  int sock = plugin_service_sock();
  context_remove_option("OPT-plugin-sock");
  if (sock >= 0) {
    conf_plugin_service_disable(sock);
  }
  if (context_get_option(PLUGIN_LIST) != nullptr) {
    end_plugins();
    context_destroy_list(PLUGIN_LIST, nullptr); // holds no entries any more
  }
  plugin_forget_gone();
}

plugin_inst_t *plugin_find(int plugin_id)
{
  return plugin_id < 1 ? nullptr : static_cast<plugin_inst_t *>(context_get_list_entry(PLUGIN_LIST, plugin_id - 1));
}

plugin_inst_t *plugin_find_by_name(const std::string &name)
{
  for (int plugin_id : plugin_ids()) {
    plugin_inst_t *plugin = plugin_find(plugin_id);
    if (plugin->name == name) {
      return plugin;
    }
  }
  return nullptr;
}

std::vector<int> plugin_ids()
{
  std::vector<int> ids;
  int size = context_list_size(PLUGIN_LIST);
  for (int plugin_id = 1; plugin_id <= size; plugin_id++) {
    if (plugin_find(plugin_id) != nullptr) {
      ids.push_back(plugin_id);
    }
  }
  return ids;
}

std::vector<std::string> plugin_names_up_to_date()
{
  std::vector<std::string> names;
  for (int plugin_id : plugin_ids()) {
    const plugin_inst_t *plugin = plugin_find(plugin_id);
    bool is_told = plugin->bit_ready && !plugin->missed_config && !plugin->bit_cfgr && !plugin->bit_smooth;
    if (is_told && !plugin->local_flag) {
      names.push_back(plugin->name);
    }
  }
  return names;
}

std::string plugin_label(const plugin_inst_t &plugin)
{
  return plugin.name.empty() ? "of process " + std::to_string(plugin.remote.peer_pid) : plugin.name;
}

int plugin_get_id(const plugin_inst_t *plugin)
{
  return plugin->plugin_id;
}

const char *plugin_get_name(int plugin_id)
{
  const plugin_inst_t *plugin = plugin_find(plugin_id);
  return plugin == nullptr ? nullptr : plugin->name.c_str();
}

int plugin_add_inst(std::unique_ptr<plugin_inst_t> plugin)
{
  int index = context_save_list_entry(PLUGIN_LIST, plugin.get());
  if (index < 0) {
    log_error("Save plugin %.512s to list failed.", plugin_label(*plugin).c_str());
    return -1;
  }
  plugin->plugin_id = index + 1;
  (void)plugin.release(); // the list's, until plugin_destroy_inst
  return 0;
}

void plugin_destroy_inst(plugin_inst_t *plugin)
{
  std::unique_ptr<plugin_inst_t> owned(plugin);
  plugin_note_gone(*plugin);
  broker_cancel_plugin_subpub(plugin);
  ds_plugin_forget_pushed(plugin->plugin_id);
  if (plugin->local_flag) {
    plugin_local_uninstall(plugin);
  }
  if (plugin->remote.sock >= 0) {
    int epfd = context_get_int("OPT-ymgrd-epfd", -1);
    if (epfd >= 0) {
      (void)conf_event_remove(epfd, plugin->remote.sock); // close() alone does not while a child holds a copy
    }
    close(plugin->remote.sock);
  }
  context_del_list_entry(PLUGIN_LIST, plugin->plugin_id - 1);
}

void plugin_session_closed(int session_id)
{
  for (int plugin_id : plugin_ids()) {
    plugin_inst_t *plugin = plugin_find(plugin_id);
    if (plugin->bit_pub_oper && plugin->session_id == session_id) {
      log_debug("Session %d has ended before plugin %.512s answered %.512s.", session_id, plugin->name.c_str(),
                plugin->oper.c_str());
      plugin->session_id = 0;
      session_del_rpc_context(session_id);
    }
  }
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
    return take_connections(plugin_service_sock());
  }
  return 0;
}

int plugin_inst_wakeup(int plugin_id, uint32_t event)
{
  plugin_inst_t *plugin = plugin_find(plugin_id);
  if (plugin == nullptr || plugin->local_flag) {
    log_error("Does not find plugin %d in context.", plugin_id);
    return -1;
  }
  if ((event & EPOLLOUT) != 0) {
    plugin_core_send(plugin);
  }
  if ((event & (SOCKET_INPUT | SOCKET_FAILURE)) == 0) {
    return 0;
  }
  // What the plugin sent before its end still counts: the end is what is read last.
  uint16_t msg_id = 0;
  plugin_doc_ptr message;
  switch (plugin_core_recv(plugin, &msg_id, &message)) {
  case PLUGIN_RECV_MESSAGE: // one for each event: all plugins and sessions have their turn
    dispatch_message(plugin, msg_id, message);
    return 0;
  case PLUGIN_RECV_MORE:
    if ((event & SOCKET_FAILURE) == 0) {
      return 0;
    }
    break;
  case PLUGIN_RECV_LOST:
    break;
  }
  plugin_lost(plugin);
  return 0;
}
