#include "libconf/wiped_string.h"
#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr int64_t PUBLISH_DEADLINE = 60; // seconds
constexpr int64_t SUBSCRIBE_DEADLINE = 15;
constexpr int BRING_UP_ITEM = CONFIG_OP_CFGR | CONFIG_OP_SMOOTH;

// By plugin_request_kind_t.
const struct {
  const char *method;
  int64_t deadline;
  bool plugin_inst_t::*bit;
} request_rows[] = {
    {nullptr, 0, nullptr},
    {"kickoff", PUBLISH_DEADLINE, &plugin_inst_t::bit_kickoff},
    {"publish", PUBLISH_DEADLINE, &plugin_inst_t::bit_pub_config},
    {"publish", PUBLISH_DEADLINE, &plugin_inst_t::bit_pub_oper},
    {"subscribe", SUBSCRIBE_DEADLINE, &plugin_inst_t::bit_sub_status},
};

int unknown_plugin(int plugin_id)
{
  log_error("Does not find plugin %d in context.", plugin_id);
  return -1;
}

// For messages: what the awaited request is.
std::string busy_with(const plugin_inst_t &plugin)
{
  switch (plugin.remote.awaited) {
  case PLUGIN_KICKOFF:
    return "its kickoff";
  case PLUGIN_PUB_CONFIG:
    return "the change of " + plugin.pub_path;
  case PLUGIN_PUB_OPER:
    return "the operation " + plugin.oper;
  case PLUGIN_SUB_STATUS:
    return "state data of " + plugin.sub_path;
  case PLUGIN_NO_REQUEST:
    break;
  }
  return "nothing";
}

uint16_t take_rpc_id(plugin_inst_t *plugin)
{
  uint16_t id = plugin->remote.rpc_id++;
  if (plugin->remote.rpc_id == 0) {
    plugin->remote.rpc_id = 1;
  }
  return id;
}

// Queues the message on the socket. Its id, or 0 (logged).
uint16_t send_message(plugin_inst_t *plugin, plugin_request_kind_t kind, plugin_doc_ptr params)
{
  uint16_t id = take_rpc_id(plugin);
  plugin_doc_ptr message = plugin_build_rpc_message(request_rows[kind].method, std::move(params), id);
  return message != nullptr && plugin_cache_send(plugin, id, message) == 0 ? id : 0;
}

int send_request(plugin_inst_t *plugin, plugin_request_kind_t kind, plugin_doc_ptr params)
{
  uint16_t id = send_message(plugin, kind, std::move(params));
  if (id == 0) {
    return -1;
  }
  plugin->remote.reply_id = id;
  plugin->remote.awaited = kind;
  plugin->remote.tm_rpc = plugin_clock() + request_rows[kind].deadline;
  return 0;
}

// Sends the request, or puts it behind the outstanding one. 0 or -1 (logged).
int request(plugin_inst_t *plugin, plugin_request_kind_t kind, plugin_doc_ptr params)
{
  if (plugin->remote.awaited != PLUGIN_NO_REQUEST) {
    plugin->remote.waiting.push_back({kind, std::move(params)});
  } else if (send_request(plugin, kind, std::move(params)) != 0) {
    return -1;
  }
  plugin->*request_rows[kind].bit = true;
  return 0;
}

// --- Changes of the configuration.

plugin_doc_ptr config_params(const plugin_publish_info_t &info)
{
  plugin_doc_ptr params = plugin_new_params();
  xmlNode *root = plugin_root_of(params);
  if (root == nullptr || plugin_add_text(root, "type", "config") == nullptr ||
      plugin_add_int(root, "session-id", info.session_id) == nullptr ||
      plugin_add_text(root, "callback", std::to_string(info.cb_func.token)) == nullptr) {
    return nullptr;
  }
  xmlNode *item = plugin_add_text(root, "info", "");
  if (item == nullptr || plugin_add_int(item, "oper-type", info.config.oper_type) == nullptr ||
      plugin_add_int(item, "priority", info.config.priority) == nullptr ||
      plugin_add_int(item, "more-flag", info.config.more_flag) == nullptr ||
      plugin_add_text(item, "path", info.config.path) == nullptr) {
    return nullptr;
  }
  return params;
}

int fail_publish(plugin_inst_t *plugin, const std::string &reason)
{
  const std::string text = "Plugin " + plugin->name + " " + reason;
  plugin->history.refused++;
  plugin_note_error(plugin, text);
  (void)broker_save_error(-1, text.c_str()); // logged there
  return -1;
}

// A plugin that is being brought up is told what that needs, and nothing else: it will know the rest by then. So will
// one that comes up later.
bool is_left_out(const plugin_inst_t &plugin, int oper_type)
{
  if (!plugin.bit_activate) {
    return true;
  }
  return (plugin.bit_cfgr && (oper_type & CONFIG_OP_CFGR) == 0) ||
         (plugin.bit_smooth && (oper_type & CONFIG_OP_SMOOTH) == 0);
}

// Only what must not be lost waits while a plugin is busy, and what comes while it is just about to begin.
bool may_wait(const plugin_inst_t &plugin, int oper_type)
{
  return plugin.remote.awaited == PLUGIN_KICKOFF || (oper_type & (BRING_UP_ITEM | CONFIG_OP_ROLLBACK)) != 0;
}

// An overdue plugin does not hold anybody up again. It is restored when it is back; what is taken back reaches it
// before that.
int publish_to_overdue(plugin_inst_t *plugin, const plugin_publish_info_t &info, int *status)
{
  plugin->missed_config = true;
  if ((info.config.oper_type & CONFIG_OP_ROLLBACK) != 0) {
    plugin_doc_ptr params = config_params(info);
    if (params == nullptr || send_message(plugin, PLUGIN_PUB_CONFIG, std::move(params)) == 0) {
      log_error("Cache publish-config rpc failed for plugin %.512s.", plugin->name.c_str());
      return -1;
    }
    *status = SUBPUB_CONTINUE;
    return 0;
  }
  return fail_publish(plugin, "does not answer");
}

int publish_remote_config(plugin_inst_t *plugin, const plugin_publish_info_t &info, int *status)
{
  if (is_left_out(*plugin, info.config.oper_type)) {
    plugin->missed_config = plugin->missed_config || !plugin->bit_activate;
    *status = SUBPUB_CONTINUE;
    return 0;
  }
  plugin->history.offered++;
  if (plugin->bit_overdue) {
    return publish_to_overdue(plugin, info, status);
  }
  if (plugin->bit_pub_config || (plugin_is_busy(*plugin) && !may_wait(*plugin, info.config.oper_type))) {
    log_info("Plugin %.512s is busy so can't do config-publish.", plugin->name.c_str());
    return fail_publish(plugin, "is busy with " + busy_with(*plugin));
  }
  plugin_doc_ptr params = config_params(info);
  if (params == nullptr) {
    log_error("Build publish-config path failed.");
    return fail_publish(plugin, std::string("can not be offered ") + info.config.path);
  }
  plugin->pub_path = info.config.path;
  plugin->pub_oper_type = info.config.oper_type;
  if (request(plugin, PLUGIN_PUB_CONFIG, std::move(params)) != 0) {
    log_error("Cache publish-config rpc failed for plugin %.512s.", plugin->name.c_str());
    return fail_publish(plugin, std::string("can not be sent ") + info.config.path);
  }
  *status = SUBPUB_WAIT;
  return 0;
}

int publish_inside_config(const plugin_publish_info_t &info, int *status)
{
  const auto &item = info.config;
  // The flag stands before the priority here, unlike in the record.
  if (info.cb_func.config(info.session_id, item.oper_type, item.more_flag, item.priority, item.path) == 0) {
    *status = SUBPUB_CONTINUE;
  }
  return 0;
}

// --- Operations.

plugin_doc_ptr operate_params(const plugin_publish_info_t &info)
{
  wiped_string input;
  plugin_doc_ptr params = plugin_new_params();
  xmlNode *root = plugin_root_of(params);
  if (root == nullptr || plugin_append_markup(info.operate.input->parent, &input) != 0 ||
      plugin_add_text(root, "type", "operate") == nullptr ||
      plugin_add_int(root, "session-id", info.session_id) == nullptr ||
      plugin_add_text(root, "callback", std::to_string(info.cb_func.token)) == nullptr) {
    return nullptr;
  }
  xmlNode *item = plugin_add_text(root, "info", "");
  return item == nullptr || plugin_add_markup(item, input) != 0 ? nullptr : std::move(params);
}

// The reason why the plugin can not take an operation now; empty when it can.
std::string why_not_operating(const plugin_inst_t &plugin)
{
  if (plugin.bit_overdue) {
    return "Plugin " + plugin.name + " does not answer";
  }
  if (plugin_is_busy(plugin) || !plugin.bit_activate || !plugin.bit_ready) {
    log_info("Plugin %.512s is busy or not ready so ignore operate-publish.", plugin.name.c_str());
    return "Plugin is busy or not ready so ignore operate-publish.";
  }
  return {};
}

void publish_remote_operate(plugin_inst_t *plugin, const plugin_publish_info_t &info, const std::string &oper)
{
  plugin_operation_t operation = {info.session_id, oper, plugin->name};
  std::string reason = why_not_operating(*plugin);
  if (!reason.empty()) {
    plugin_nbi_error(operation, -1, reason);
    return;
  }
  plugin_doc_ptr params = operate_params(info);
  if (params == nullptr || request(plugin, PLUGIN_PUB_OPER, std::move(params)) != 0) {
    log_error("Cache publish-operate rpc failed for plugin %.512s.", plugin->name.c_str());
    plugin_nbi_error(operation, -1, "Plugin " + plugin->name + " can not be sent the operation");
    return;
  }
  plugin->session_id = info.session_id;
  plugin->oper = oper;
}

// --- State data.

plugin_doc_ptr subscribe_params(const plugin_subscibe_info_t &info)
{
  plugin_doc_ptr params = plugin_new_params();
  xmlNode *root = plugin_root_of(params);
  if (root == nullptr || plugin_add_text(root, "type", "config") == nullptr ||
      plugin_add_int(root, "session-id", info.session_id) == nullptr ||
      plugin_add_text(root, "path", info.path) == nullptr ||
      (info.filter != nullptr && plugin_add_text(root, "filter", info.filter) == nullptr) ||
      plugin_add_text(root, "callback", std::to_string(info.cb_func.token)) == nullptr) {
    return nullptr;
  }
  return params;
}

int subscribe_remote(plugin_inst_t *plugin, const plugin_subscibe_info_t &info, int *status)
{
  *status = SUBPUB_CONTINUE; // what a plugin can not tell is left out
  if (!plugin->bit_activate) {
    return 0;
  }
  if (plugin->bit_overdue) {
    log_warn("Plugin %.512s does not answer, so it is not asked for %.512s.", plugin->name.c_str(), info.path);
    return -1;
  }
  if (plugin_is_busy(*plugin) && plugin->remote.awaited != PLUGIN_KICKOFF) {
    log_warn("Plugin %.512s is not asked for %.512s while it is busy with %.512s.", plugin->name.c_str(), info.path,
             busy_with(*plugin).c_str());
    return -1;
  }
  plugin_doc_ptr params = subscribe_params(info);
  if (params == nullptr || request(plugin, PLUGIN_SUB_STATUS, std::move(params)) != 0) {
    log_error("Plugin %.512s can not be asked for %.512s.", plugin->name.c_str(), info.path);
    return -1;
  }
  plugin->sub_path = info.path;
  *status = SUBPUB_WAIT;
  return 0;
}

} // namespace

bool plugin_is_busy(const plugin_inst_t &plugin)
{
  return plugin.bit_kickoff || plugin.bit_pub_config || plugin.bit_pub_oper || plugin.bit_sub_status;
}

void plugin_end_request(plugin_inst_t *plugin)
{
  plugin_remote_t &remote = plugin->remote;
  plugin->*request_rows[remote.awaited].bit = false;
  remote.awaited = PLUGIN_NO_REQUEST;
  remote.reply_id = 0;
  remote.tm_rpc = 0;
  if (remote.waiting.empty()) {
    return;
  }
  plugin_request_t next = std::move(remote.waiting.front());
  remote.waiting.pop_front();
  if (send_request(plugin, next.kind, std::move(next.params)) != 0) {
    log_error("Plugin %.512s is cut off: its next request can not be sent.", plugin->name.c_str());
    plugin_cut_off(plugin); // its end resolves what waits
  }
}

void plugin_drop_requests(plugin_inst_t *plugin)
{
  plugin->bit_kickoff = plugin->bit_pub_config = plugin->bit_pub_oper = plugin->bit_sub_status = false;
  plugin->remote.awaited = PLUGIN_NO_REQUEST;
  plugin->remote.waiting.clear();
  plugin->remote.reply_id = 0;
  plugin->remote.tm_rpc = 0;
}

int plugin_publish_config(int plugin_id, const plugin_publish_info_t *info, int *status)
{
  *status = SUBPUB_ERROR;
  if (plugin_id == 0) {
    return publish_inside_config(*info, status);
  }
  plugin_inst_t *plugin = plugin_find(plugin_id);
  if (plugin == nullptr) {
    return unknown_plugin(plugin_id);
  }
  if (plugin->local_flag) {
    plugin_local_config(plugin, *info, status);
    return 0;
  }
  return publish_remote_config(plugin, *info, status);
}

int plugin_publish_operate(int plugin_id, const plugin_publish_info_t *info, int *status)
{
  *status = SUBPUB_ERROR;
  plugin_inst_t *plugin = plugin_find(plugin_id);
  const rpc_oper_context_t *context = session_get_rpc_context(info->session_id);
  if (plugin == nullptr || context == nullptr) {
    return unknown_plugin(plugin_id);
  }
  const std::string oper = context->oper; // the context may end with the delivery
  *status = SUBPUB_CONTINUE;              // the session is answered, now or later
  if (plugin->local_flag) {
    plugin_local_operate(plugin, *info, oper);
  } else {
    publish_remote_operate(plugin, *info, oper);
  }
  return 0;
}

int plugin_subscribe_status(int plugin_id, const plugin_subscibe_info_t *info, int *status)
{
  *status = SUBPUB_ERROR;
  if (plugin_id == 0) {
    if (info->cb_func.status(info->session_id, info->path) == 0) {
      *status = SUBPUB_CONTINUE;
    }
    return 0;
  }
  plugin_inst_t *plugin = plugin_find(plugin_id);
  if (plugin == nullptr) {
    return unknown_plugin(plugin_id);
  }
  if (plugin->local_flag) {
    plugin_local_status(plugin, *info);
    *status = SUBPUB_CONTINUE;
    return 0;
  }
  return subscribe_remote(plugin, *info, status);
}

void plugin_kickoff(plugin_inst_t *plugin)
{
  plugin->bit_cfgr = false;
  plugin->bit_smooth = false;
  if (plugin->local_flag) {
    plugin->bit_ready = true;
    return;
  }
  // An overdue plugin is kicked off when it is back.
  if (plugin->bit_activate && !plugin->bit_overdue && !plugin->bit_kickoff &&
      request(plugin, PLUGIN_KICKOFF, nullptr) != 0) {
    log_error("Kickoff of plugin %.512s failed.", plugin->name.c_str());
  }
}
