#include "ymgrd/broker/plugin_state.h"

#include <algorithm>
#include <map>
#include <unordered_map>

#include "ymgrd/broker/broker_internal.h"
#include "ymgrd/broker/plugin_internal.h"

namespace {

constexpr size_t MOST_GONE = 128;
constexpr size_t LONGEST_ERROR = 500;

std::map<std::string, plugin_state_t> g_gone; // by the name as it is registered

const struct {
  plugin_status_t status;
  bool (*applies)(const plugin_inst_t &plugin);
} status_rows[] = {
    {PLUGIN_STATUS_OVERDUE, [](const plugin_inst_t &plugin) { return plugin.bit_overdue; }},
    {PLUGIN_STATUS_REGISTERED, [](const plugin_inst_t &plugin) { return !plugin.bit_activate; }},
    {PLUGIN_STATUS_RESTORING, [](const plugin_inst_t &plugin) { return plugin.bit_cfgr; }},
    {PLUGIN_STATUS_SMOOTH_START, [](const plugin_inst_t &plugin) { return plugin.bit_smooth; }},
    {PLUGIN_STATUS_STARTING, [](const plugin_inst_t &plugin) { return plugin.bit_kickoff; }},
    {PLUGIN_STATUS_FAILED, [](const plugin_inst_t &plugin) { return !plugin.bit_ready; }},
    {PLUGIN_STATUS_OUTDATED, [](const plugin_inst_t &plugin) { return plugin.missed_config; }},
    {PLUGIN_STATUS_READY, [](const plugin_inst_t &) { return true; }},
};

plugin_status_t status_of(const plugin_inst_t &plugin)
{
  return std::find_if(std::begin(status_rows), std::end(status_rows),
                      [&](const auto &row) { return row.applies(plugin); })
      ->status;
}

plugin_state_t describe(const plugin_inst_t &plugin)
{
  plugin_state_t state;
  state.name = plugin_printable(plugin.name, std::string::npos);
  state.is_local = plugin.local_flag;
  state.process_id = plugin.remote.peer_pid;
  state.status = status_of(plugin);
  state.history = plugin.history;
  return state;
}

template <class LIST>
void count(const LIST &registrations, std::unordered_map<int, plugin_state_t> *states,
           uint32_t plugin_state_t::*counter)
{
  for (const auto &registration : registrations) {
    auto state = states->find(registration.plugin_id);
    if (state != states->end()) {
      (state->second.*counter)++;
    }
  }
}

} // namespace

void plugin_note_registered(plugin_inst_t *plugin)
{
  auto earlier = g_gone.find(plugin->name);
  if (earlier != g_gone.end()) {
    plugin->history = std::move(earlier->second.history);
    g_gone.erase(earlier);
  }
  plugin->history.registered = time(nullptr);
  plugin->history.registrations++;
}

void plugin_note_error(plugin_inst_t *plugin, const std::string &text)
{
  plugin->history.last_error = plugin_printable(text, LONGEST_ERROR);
  plugin->history.last_error_time = time(nullptr);
}

void plugin_note_gone(const plugin_inst_t &plugin)
{
  if (plugin.name.empty()) {
    return;
  }
  if (g_gone.size() >= MOST_GONE) {
    g_gone.erase(std::min_element(g_gone.begin(), g_gone.end(), [](const auto &first, const auto &second) {
      return first.second.left < second.second.left;
    }));
  }
  plugin_state_t state = describe(plugin);
  state.status = plugin.local_flag ? PLUGIN_STATUS_FAILED : PLUGIN_STATUS_GONE;
  state.left = time(nullptr);
  g_gone[plugin.name] = std::move(state);
}

void plugin_forget_gone()
{
  g_gone.clear();
}

std::vector<plugin_state_t> plugin_states()
{
  std::unordered_map<int, plugin_state_t> present;
  for (int plugin_id : plugin_ids()) {
    const plugin_inst_t *plugin = plugin_find(plugin_id);
    if (plugin != nullptr && !plugin->name.empty()) {
      present.emplace(plugin_id, describe(*plugin));
    }
  }
  const broker_registry_t &registry = broker_registry();
  count(registry.config_subs, &present, &plugin_state_t::config_subscriptions);
  count(registry.status_pubs, &present, &plugin_state_t::status_publications);
  count(registry.oper_subs, &present, &plugin_state_t::operations);

  std::vector<plugin_state_t> states;
  for (auto &[plugin_id, state] : present) {
    states.push_back(std::move(state));
  }
  for (const auto &[name, state] : g_gone) {
    states.push_back(state);
  }
  std::sort(states.begin(), states.end(),
            [](const plugin_state_t &first, const plugin_state_t &second) { return first.name < second.name; });
  return states;
}
