#include "ymgrd/core/daemon_state.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

#include "libconf/conf_service.h"
#include "libconf/plugin_message.h"
#include "libredisapi/redisapi.h"
#include "ymgrd/broker/plugin.h"
#include "ymgrd/broker/plugin_state.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/counters.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/datastore/ds_lock.h"
#include "ymgrd/datastore/ds_status.h"
#include "ymgrd/notify/event_store.h"
#include "ymgrd/notify/notification_config.h"
#include "ymgrd/notify/subscription.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/ymgrd.h"

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr const char STATE_PATH[] = "/zentra-ymgrd:daemon";

struct datastore_name_t {
  int datastore;
  const char *name;
};
const datastore_name_t datastores[] = {
    {ENUM_DATASTORE_RUNNING, "running"}, {ENUM_DATASTORE_CANDIDATE, "candidate"}, {ENUM_DATASTORE_STARTUP, "startup"}};

// By transact_state_e, from E_TRANS_INVALID on.
const char *const transaction_states[] = {"none",       "begun",     "preparing",  "prepared", "editing",
                                          "publishing", "published", "committing", "done"};

// By plugin_status_t.
const char *const plugin_statuses[] = {"registered", "restoring", "smooth-start", "starting", "ready",
                                       "outdated",   "overdue",   "failed",       "gone"};

std::string g_modules_dir; // the profile may name it by a relative path
time_t g_started = 0;
steady_clock::time_point g_started_steady;

std::string date_and_time(time_t moment)
{
  tm parts = {};
  char text[32] = "";
  gmtime_r(&moment, &parts);
  (void)strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts); // always fits
  return text;
}

// Writes a node and its leaves.
class state_node {
public:
  state_node(ds_status_batch *batch, std::string path) : batch_(batch), path_(std::move(path)) { batch_->set(path_); }

  void text(const char *leaf, const std::string &text) { batch_->set(path_ + "/" + leaf, text); }
  void flag(const char *leaf, bool value) { text(leaf, value ? "true" : "false"); }
  void number(const char *leaf, uint64_t value) { text(leaf, std::to_string(value)); }
  void moment(const char *leaf, time_t value)
  {
    if (value != 0) {
      text(leaf, date_and_time(value));
    }
  }
  void process(const char *leaf, long pid)
  {
    if (pid > 0) { // one outside of the daemon's view has none
      number(leaf, static_cast<uint64_t>(pid));
    }
  }

private:
  ds_status_batch *batch_;
  std::string path_;
};

std::string entry_path(const char *list, const char *key, const std::string &value)
{
  return std::string(STATE_PATH) + "/" + list + "[" + key + "=" + datastore_value_add_quotes(value) + "]";
}

std::string printable(const std::string &path)
{
  return plugin_printable(path, std::string::npos);
}

void write_daemon(ds_status_batch *batch)
{
  auto uptime = std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - g_started_steady);
  state_node node(batch, STATE_PATH);
  node.text("version", YMGRD_VERSION);
  node.moment("started", g_started);
  node.number("uptime", static_cast<uint64_t>(uptime.count()));
  node.process("process-id", getpid());
  node.text("profile", printable(ymgrd_profile_path()));
  node.text("modules-directory", g_modules_dir);
  node.text("run-directory", printable(conf_run_dir()));
  node.number("max-message-size", session_max_message_size());
  node.number("session-limit", static_cast<uint64_t>(std::max(session_spec(), 0)));
  node.number("plugin-limit", static_cast<uint64_t>(std::max(plugin_spec(), 0)));
}

void write_session(ds_status_batch *batch, const session_t &session)
{
  state_node node(batch, entry_path("session", "id", std::to_string(session.session_id)));
  conf_peer_t peer = {};
  std::string address = session_client_address(session);
  node.text("username", session.username);
  if (!address.empty()) {
    node.text("address", address);
  }
  node.moment("login", session.login_time);
  if (conf_peer_credentials(session.sock, &peer) == 0) {
    node.process("process-id", peer.pid);
  }
  node.number("requests", session.requests);
  node.flag("subscribed", client_find(session.session_id) != nullptr);
  node.number("queued", session_queued(session.session_id));
}

void write_plugin(ds_status_batch *batch, const plugin_state_t &plugin)
{
  const plugin_history_t &history = plugin.history;
  state_node node(batch, entry_path("plugin", "name", plugin.name));
  node.text("kind", plugin.is_local ? "local" : "remote");
  node.text("status", plugin_statuses[plugin.status]);
  node.process("process-id", plugin.process_id);
  node.moment("registered", history.registered);
  node.moment("left", plugin.left);
  node.number("registrations", history.registrations);
  node.number("configuration-subscriptions", plugin.config_subscriptions);
  node.number("status-publications", plugin.status_publications);
  node.number("operations", plugin.operations);
  node.number("changes-offered", history.offered);
  node.number("changes-refused", history.refused);
  if (history.last_error_time != 0) {
    node.text("last-error", history.last_error);
    node.moment("last-error-time", history.last_error_time);
  }
}

void write_lock(state_node *node, int datastore)
{
  int holder = 0;
  if (ds_get_lock_state(datastore, &holder) != 0 || holder == 0) {
    return;
  }
  node->number("lock-holder", static_cast<uint64_t>(holder));
  std::string_view since = ds_get_lock_time(datastore);
  time_t seconds = 0;
  if (std::from_chars(since.data(), since.data() + since.size(), seconds).ec == std::errc()) {
    node->moment("locked-since", seconds);
  }
}

void write_datastores(ds_status_batch *batch)
{
  std::vector<int> targets;
  for (const datastore_name_t &row : datastores) {
    targets.push_back(row.datastore);
  }
  std::vector<database_figures_t> figures(targets.size());
  const bool is_known = database_get_figures(targets, &figures) == 0;
  for (size_t i = 0; i < figures.size(); i++) {
    state_node node(batch, entry_path("datastore", "name", datastores[i].name));
    write_lock(&node, datastores[i].datastore);
    if (datastores[i].datastore == ENUM_DATASTORE_CANDIDATE) {
      node.flag("pending-changes", ds_has_pending_changes());
    }
    if (is_known) {
      node.text("transaction-state", transaction_states[figures[i].state - E_TRANS_INVALID]);
    }
    if (is_known && database_is_builtin()) {
      node.number("entries", figures[i].records);
    }
    if (datastores[i].datastore == ENUM_DATASTORE_RUNNING) {
      node.moment("last-change", g_daemon_counters.last_change);
    }
  }
}

void write_event_log(ds_status_batch *batch)
{
  const notification_config_stream *stream = notification_find_stream(NETCONF_STREAM);
  if (stream != nullptr && notification_has_replay(*stream) && event_store_open() == 0) {
    state_node node(batch, std::string(STATE_PATH) + "/event-log");
    node.number("stored-events", event_store_end() - event_store_begin());
  }
}

void write_counters(ds_status_batch *batch)
{
  const daemon_counters_t &counters = g_daemon_counters;
  state_node node(batch, std::string(STATE_PATH) + "/counters");
  node.number("requests", counters.requests);
  node.number("errors", counters.errors);
  node.number("commits", counters.commits);
  node.number("sessions", counters.sessions);
  node.number("changes-refused", counters.changes_refused);
  node.number("rollbacks", counters.rollbacks);
  node.number("notifications-sent", counters.notifications_sent);
  node.number("notifications-missed", counters.notifications_missed);
  node.number("database-connections-lost", redis_lost_connections());
  for (const auto &[operation, count] : counters.operations) {
    size_t colon = operation.find(':'); // "/MODULE:NAME", of characters that need no quotes
    state_node entry(batch, std::string(STATE_PATH) + "/counters/operation[module=\"" + operation.substr(1, colon - 1) +
                                "\",name=\"" + operation.substr(colon + 1) + "\"]");
    entry.number("count", count);
  }
}

int publish_state(int, const char *)
{
  ds_status_batch batch;
  if (batch.begin(STATE_PATH) != 0) {
    return -1;
  }
  batch.remove(STATE_PATH); // sessions, plugins and locks that are gone must not be told again
  write_daemon(&batch);
  for (int id = 1; id <= context_list_size("LIST-session"); id++) {
    const session_t *session = session_find(id);
    if (session != nullptr && session->bit_init && session->sock >= 0) {
      write_session(&batch, *session);
    }
  }
  for (const plugin_state_t &plugin : plugin_states()) {
    write_plugin(&batch, plugin);
  }
  write_datastores(&batch);
  write_event_log(&batch);
  write_counters(&batch);
  return batch.commit();
}

} // namespace

int daemon_state_init()
{
  static_assert(std::size(transaction_states) == E_TRANS_COMMIT_END - E_TRANS_INVALID + 1);
  static_assert(std::size(plugin_statuses) == PLUGIN_STATUS_GONE + 1);
  std::error_code error;
  std::filesystem::path modules_dir = std::filesystem::absolute(ymgrd_modules_dir(), error);
  g_modules_dir = printable(error ? ymgrd_modules_dir() : modules_dir.string());
  g_started = time(nullptr);
  g_started_steady = steady_clock::now();
  if (lys_find_path(schema_ctx(), nullptr, STATE_PATH, 0) == nullptr) {
    log_info("The daemon's state is not published: its module is not loaded.");
    return 0;
  }
  econf_subpub_cb_t handler = {};
  handler.status = publish_state;
  return broker_reg_status_publisher(nullptr, STATE_PATH, handler);
}
