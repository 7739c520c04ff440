// Deadlines. A plugin that has not answered in time is overdue until it sends anything. Meanwhile nobody waits for it;
// a change that it did not take is handed over by a restore when it is back.
#include <chrono>

#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/log.h"

namespace {

constexpr const char NO_ANSWER[] = "Wait message reply timeout.";

void log_publish_timeout(const plugin_inst_t &plugin)
{
  const char *what = "publish configuration";
  if ((plugin.pub_oper_type & CONFIG_OP_CFGR) != 0) {
    what = "restore configuration";
  } else if ((plugin.pub_oper_type & CONFIG_OP_SMOOTH) != 0) {
    what = "smooth-start";
  }
  log_warn("Plugin %.512s %s timeout.", plugin.name.c_str(), what);
}

// Nothing is waited for any more. What is resolved may already ask the plugin for something else, so its state comes
// first.
void make_overdue(plugin_inst_t *plugin)
{
  plugin->bit_overdue = true;
  plugin_note_error(plugin, NO_ANSWER);
  plugin->missed_config = plugin->missed_config || plugin->bit_pub_config;
  plugin_drop_requests(plugin);
}

void plugin_rpc_timeout(plugin_inst_t *plugin)
{
  bool is_kickoff = plugin->bit_kickoff;
  bool is_publishing = plugin->bit_pub_config;
  bool is_operating = plugin->bit_pub_oper;
  bool is_subscribed = plugin->bit_sub_status;
  make_overdue(plugin);
  if (is_kickoff) {
    log_warn("Plugin %.512s kickoff timeout.", plugin->name.c_str());
  }
  if (is_publishing) {
    plugin_change_failed(plugin, -1, NO_ANSWER);
    log_publish_timeout(*plugin);
    plugin_resume_publication(plugin);
  }
  if (is_operating) {
    log_warn("Plugin %.512s publish operate timeout.", plugin->name.c_str());
    plugin_nbi_error(plugin_take_operation(plugin), -1, NO_ANSWER);
  }
  if (is_subscribed) {
    log_warn("Plugin %.512s subscribe status timeout.", plugin->name.c_str());
    log_warn("Plugin %.512s did not tell %.512s.", plugin->name.c_str(), plugin->sub_path.c_str());
    broker_subscribe_continue(plugin->plugin_id);
  }
}

bool is_past_deadline(const plugin_inst_t &plugin)
{
  return plugin.remote.tm_rpc != 0 && plugin.remote.tm_rpc < plugin_clock();
}

// A change was not told, for example because the plugin was deactivated for a while.
bool is_out_of_date(const plugin_inst_t &plugin)
{
  return plugin.missed_config && plugin.wants_cfgr && plugin.bit_activate && !plugin.bit_overdue && !plugin.bit_cfgr &&
         !plugin.bit_smooth && !plugin_is_busy(plugin);
}

} // namespace

int64_t plugin_clock()
{
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void plugin_timeout()
{
  for (int plugin_id : plugin_ids()) {
    plugin_inst_t *plugin = plugin_find(plugin_id);
    if (plugin == nullptr || plugin->local_flag) {
      continue;
    }
    if (is_past_deadline(*plugin)) {
      plugin_rpc_timeout(plugin);
    } else if (is_out_of_date(*plugin)) {
      plugin_bring_up(plugin, true, false);
    }
  }
}

void plugin_given_up(int plugin_id)
{
  plugin_inst_t *plugin = plugin_find(plugin_id);
  if (plugin == nullptr || plugin->local_flag) {
    return;
  }
  bool is_operating = plugin->bit_pub_oper;
  make_overdue(plugin);
  if (is_operating) {
    plugin_nbi_error(plugin_take_operation(plugin), -1, NO_ANSWER);
  }
}

void plugin_wake(plugin_inst_t *plugin)
{
  log_info("Plugin %.512s answers again.", plugin_label(*plugin).c_str());
  if (!plugin->bit_activate || plugin_is_busy(*plugin)) {
    return; // what it needs follows from its activation, or from plugin_timeout
  }
  if (plugin->bit_cfgr || plugin->bit_smooth || (plugin->missed_config && plugin->wants_cfgr)) {
    plugin_bring_up(plugin, plugin->wants_cfgr, plugin->bit_smooth);
  } else if (!plugin->bit_ready) {
    plugin_kickoff(plugin);
  }
}
