#include "ymgrd/broker/broker.h"

#include <algorithm>

#include "libconf/plugin_path.h"
#include "ymgrd/broker/broker_internal.h"
#include "ymgrd/core/log.h"

namespace {

broker_registry_t registry;
broker_hooks_t hooks = {};
uint64_t last_serial = 0;

int id_of(const plugin_inst_t *plugin)
{
  return plugin == nullptr ? 0 : hooks.plugin_id(plugin);
}

std::optional<std::string> std_path_of(const char *path)
{
  std::optional<std::string> std_path = plugin_path_schema2std(path);
  if (!std_path) {
    log_error("Schema path %.512s to std failed.", path);
  }
  return std_path;
}

int create_subscriber(const plugin_inst_t *plugin, const char *path, econf_subpub_cb_t cb_func,
                      subscriber_t *ret_subscriber)
{
  std::optional<std::string> std_path = std_path_of(path);
  if (!std_path) {
    log_error("Create subscriber for <%.512s> failed.", path);
    return -1;
  }
  ret_subscriber->serial = ++last_serial;
  ret_subscriber->plugin_id = id_of(plugin);
  ret_subscriber->path = std::move(*std_path);
  ret_subscriber->sub_cb = cb_func;
  return 0;
}

template <class LIST>
typename LIST::iterator find_by_path(LIST *list, const char *path)
{
  std::optional<std::string> std_path = plugin_path_schema2std(path);
  return std::find_if(list->begin(), list->end(),
                      [&](const auto &record) { return std_path && record.path == *std_path; });
}

subscriber_pos remove_config_subscriber(subscriber_pos subscriber)
{
  broker_publish_forget(subscriber);
  return registry.config_subs.erase(subscriber);
}

publisher_pos remove_publisher(publisher_pos publisher)
{
  broker_subscribe_forget(publisher);
  return registry.status_pubs.erase(publisher);
}

} // namespace

broker_registry_t &broker_registry()
{
  return registry;
}

const broker_hooks_t &broker_hooks()
{
  return hooks;
}

void broker_set_hooks(const broker_hooks_t &new_hooks)
{
  hooks = new_hooks;
}

int broker_init(int stage)
{
  if (stage == STAGE_RESOURCE) {
    registry = {};
  } else if (stage == STAGE_RESTORE) {
    broker_cfgr_schedule();
    broker_smooth_schedule();
  }
  return 0;
}

void broker_exit()
{
  broker_publish_abandon();
  broker_subscribe_abandon();
  registry = {};
}

int broker_reg_oper_subscriber(plugin_inst_t *plugin, const char *name, econf_subpub_cb_t cb_func)
{
  subscriber_t subscriber;
  if (create_subscriber(plugin, name, cb_func, &subscriber) != 0) {
    return -1;
  }
  registry.oper_subs.push_back(std::move(subscriber));
  return 0;
}

int broker_reg_config_subscriber(plugin_inst_t *plugin, const char *path, int pri, econf_subpub_cb_t cb_func)
{
  subscriber_t subscriber;
  if (create_subscriber(plugin, path, cb_func, &subscriber) != 0) {
    return -1;
  }
  subscriber.pri = pri;
  auto behind = std::find_if(registry.config_subs.begin(), registry.config_subs.end(),
                             [pri](const subscriber_t &other) { return other.pri > pri; });
  registry.config_subs.insert(behind, std::move(subscriber));
  return 0;
}

int broker_reg_status_publisher(plugin_inst_t *plugin, const char *path, econf_subpub_cb_t cb_func)
{
  std::optional<std::string> std_path = std_path_of(path);
  if (!std_path) {
    log_error("Create publisher for <%.512s> failed.", path);
    return -1;
  }
  auto behind = std::find_if(registry.status_pubs.begin(), registry.status_pubs.end(),
                             [&](const publisher_t &other) { return other.path > *std_path; });
  registry.status_pubs.insert(behind, publisher_t{id_of(plugin), std::move(*std_path), cb_func});
  return 0;
}

void broker_unreg_oper_subscriber(plugin_inst_t *, const char *name)
{
  auto found = find_by_path(&registry.oper_subs, name);
  if (found != registry.oper_subs.end()) {
    registry.oper_subs.erase(found);
  }
}

void broker_unreg_config_subscriber(plugin_inst_t *, const char *path, int)
{
  auto found = find_by_path(&registry.config_subs, path);
  if (found != registry.config_subs.end()) {
    remove_config_subscriber(found);
  }
}

void broker_unreg_status_publisher(plugin_inst_t *, const char *path)
{
  auto found = find_by_path(&registry.status_pubs, path);
  if (found != registry.status_pubs.end()) {
    remove_publisher(found);
  }
}

void broker_cancel_plugin_subpub(plugin_inst_t *plugin)
{
  int plugin_id = id_of(plugin);
  if (plugin_id == 0) {
    return; // the registrations inside the daemon have no plugin
  }
  broker_restore_forget(plugin);
  for (auto at = registry.config_subs.begin(); at != registry.config_subs.end();) {
    at = at->plugin_id == plugin_id ? remove_config_subscriber(at) : std::next(at);
  }
  registry.oper_subs.remove_if([plugin_id](const subscriber_t &record) { return record.plugin_id == plugin_id; });
  for (auto at = registry.status_pubs.begin(); at != registry.status_pubs.end();) {
    at = at->plugin_id == plugin_id ? remove_publisher(at) : std::next(at);
  }
}

int broker_reg_inside_operations(const oper_registration_t *operations, int count, const char **ret_failed)
{
  for (int i = 0; i < count; i++) {
    econf_subpub_cb_t handler = {};
    handler.oper = operations[i].handler;
    if (broker_reg_oper_subscriber(nullptr, operations[i].name, handler) == 0) {
      continue;
    }
    *ret_failed = operations[i].name;
    while (i-- > 0) {
      broker_unreg_oper_subscriber(nullptr, operations[i].name);
    }
    return -1;
  }
  return 0;
}

void broker_give_up(int plugin_id)
{
  if (plugin_id > 0) { // a plugin, not the daemon itself
    hooks.given_up(plugin_id);
  }
  broker_publish_pass_over(plugin_id);
  broker_subscribe_pass_over(plugin_id);
}

void broker_timeout()
{
  broker_publish_tick();
  broker_restore_tick();
  broker_subscribe_tick();
}
