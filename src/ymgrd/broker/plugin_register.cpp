#include <algorithm>
#include <cstdlib>

#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/dbkey.h"

namespace {

constexpr const char ROOT_PATH[] = "/";

const char *verb_of(const plugin_inst_t &plugin, plugin_registration_kind_t kind)
{
  switch (kind) {
  case PLUGIN_REG_CONFIG:
    return "subscribe config";
  case PLUGIN_REG_STATUS:
    return "publish status";
  case PLUGIN_REG_OPERATE:
    break;
  }
  return plugin.local_flag ? "subscribe operation" : "subscribe operate";
}

bool is_config(const lysc_node *node)
{
  return (node->flags & LYS_CONFIG_W) != 0;
}

bool is_data(const lysc_node *node)
{
  for (const lysc_node *at = node; at != nullptr; at = at->parent) {
    if ((at->nodetype & (LYS_RPC | LYS_ACTION | LYS_NOTIF | LYS_INPUT | LYS_OUTPUT)) != 0) {
      return false;
    }
  }
  return true;
}

// Without the names of choices and cases, as requests for state data have it.
std::string plain_path(const lysc_node *node)
{
  c_string_ptr text(lysc_path(node, LYSC_PATH_DATA, nullptr, 0));
  return text == nullptr ? std::string() : text.get();
}

// Each gives the path to register, empty with `*ret_error` when the node can not be registered so.
std::string config_path(const lysc_node *node, std::string *ret_error)
{
  if (!is_data(node) || !is_config(node)) {
    *ret_error = "it is no configuration";
    return {};
  }
  const char *key = dbkey_schema_key(node);
  if (key == nullptr) {
    *ret_error = "it has no key";
    return {};
  }
  return key;
}

std::string status_path(const lysc_node *node, std::string *ret_error)
{
  std::string path = is_data(node) ? plain_path(node) : std::string();
  if (path.empty()) {
    *ret_error = "it is no data";
  }
  return path;
}

std::string operate_path(const lysc_node *node, std::string *ret_error)
{
  if (node->nodetype != LYS_RPC) {
    *ret_error = "it is no rpc";
    return {};
  }
  return std::string("/") + node->module->name + ":" + node->name;
}

// The path to register; empty with `*ret_error`.
std::string resolve(const plugin_registration_t &registration, std::string *ret_error)
{
  if (registration.kind == PLUGIN_REG_CONFIG && registration.path == ROOT_PATH) {
    return ROOT_PATH;
  }
  const lysc_node *node = dbkey_find_path(registration.path, ret_error);
  if (node == nullptr) {
    return {};
  }
  switch (registration.kind) {
  case PLUGIN_REG_CONFIG:
    return config_path(node, ret_error);
  case PLUGIN_REG_STATUS:
    return status_path(node, ret_error);
  case PLUGIN_REG_OPERATE:
    break;
  }
  return operate_path(node, ret_error);
}

int register_one(plugin_inst_t *plugin, const plugin_registration_t &resolved)
{
  switch (resolved.kind) {
  case PLUGIN_REG_CONFIG:
    return broker_reg_config_subscriber(plugin, resolved.path.c_str(), resolved.priority, resolved.callback);
  case PLUGIN_REG_STATUS:
    return broker_reg_status_publisher(plugin, resolved.path.c_str(), resolved.callback);
  case PLUGIN_REG_OPERATE:
    break;
  }
  return broker_reg_oper_subscriber(plugin, resolved.path.c_str(), resolved.callback);
}

int refuse(const plugin_inst_t &plugin, const plugin_registration_t &registration, const std::string &reason,
           std::string *ret_error)
{
  const char *verb = verb_of(plugin, registration.kind);
  log_warn("Plugin <%.512s> %s <%.512s> failed.", plugin.name.c_str(), verb, registration.path.c_str());
  log_warn("Plugin <%.512s>: %.512s", plugin.name.c_str(), reason.c_str());
  *ret_error = std::string(verb) + " " + registration.path + " failed: " + reason;
  return -1;
}

// Of one that missed something in the daemon's earlier life, or came and went in it, a smooth start knows too little.
bool was_up_to_date(const plugin_inst_t &plugin)
{
  std::vector<std::string> names;
  return database_get_plugins(&names) == 0 && std::find(names.begin(), names.end(), plugin.name) != names.end();
}

} // namespace

int plugin_register(plugin_inst_t *plugin, const std::vector<plugin_registration_t> &registrations,
                    std::string *ret_error)
{
  std::vector<plugin_registration_t> resolved = registrations;
  std::vector<std::string> status_paths;
  for (plugin_registration_t &registration : resolved) {
    std::string reason;
    std::string path = resolve(registration, &reason);
    if (path.empty()) {
      return refuse(*plugin, registration, reason, ret_error);
    }
    registration.path = std::move(path);
    if (registration.kind == PLUGIN_REG_STATUS) {
      status_paths.push_back(registration.path);
    }
  }
  for (const plugin_registration_t &registration : resolved) {
    if (register_one(plugin, registration) != 0) {
      broker_cancel_plugin_subpub(plugin);
      return refuse(*plugin, registration, "it could not be registered", ret_error);
    }
  }
  plugin->status_paths = std::move(status_paths);
  return 0;
}

void plugin_bring_up(plugin_inst_t *plugin, bool with_cfgr, bool with_smooth)
{
  plugin->missed_config = false;
  bool is_smooth_start = context_get_int("OPT-smooth-start", 0) == 1;
  if (with_smooth && !plugin->bit_cfgr && is_smooth_start && (plugin->local_flag || was_up_to_date(*plugin))) {
    plugin->bit_smooth = true;
    if (broker_plugin_smooth_start(plugin) == 0) {
      broker_smooth_schedule();
      return;
    }
  } else if (with_cfgr || with_smooth || plugin->bit_cfgr) {
    plugin->bit_smooth = false;
    plugin->bit_cfgr = true;
    if (broker_plugin_cfgr(plugin) == 0) {
      broker_cfgr_schedule();
      return;
    }
  }
  plugin_kickoff(plugin); // nothing to hand over, or (logged) not possible
}
