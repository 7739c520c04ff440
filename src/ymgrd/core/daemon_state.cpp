#include "ymgrd/core/daemon_state.h"

#include <charconv>
#include <chrono>
#include <ctime>
#include <iterator>
#include <string>

#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/counters.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/ds_lock.h"
#include "ymgrd/datastore/ds_status.h"
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

void write_daemon(ds_status_batch *batch, const std::string &path)
{
  auto uptime = std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - g_started_steady);
  batch->set(path);
  batch->set(path + "/version", YMGRD_VERSION);
  batch->set(path + "/started", date_and_time(g_started));
  batch->set(path + "/uptime", std::to_string(uptime.count()));
}

void write_session(ds_status_batch *batch, const session_t &session)
{
  std::string path = std::string(STATE_PATH) + "/session[id=\"" + std::to_string(session.session_id) + "\"]";
  batch->set(path);
  batch->set(path + "/username", session.username);
  std::string address = session_client_address(session);
  if (!address.empty()) {
    batch->set(path + "/address", address);
  }
  batch->set(path + "/login", date_and_time(session.login_time));
}

void write_lock(ds_status_batch *batch, const std::string &path, int datastore)
{
  int holder = 0;
  if (ds_get_lock_state(datastore, &holder) != 0 || holder == 0) {
    return;
  }
  batch->set(path + "/lock-holder", std::to_string(holder));
  std::string_view since = ds_get_lock_time(datastore);
  time_t seconds = 0;
  if (std::from_chars(since.data(), since.data() + since.size(), seconds).ec == std::errc()) {
    batch->set(path + "/locked-since", date_and_time(seconds));
  }
}

void write_datastore(ds_status_batch *batch, const datastore_name_t &row)
{
  std::string path = std::string(STATE_PATH) + "/datastore[name=\"" + row.name + "\"]";
  batch->set(path);
  write_lock(batch, path, row.datastore);
  if (row.datastore == ENUM_DATASTORE_CANDIDATE) {
    batch->set(path + "/pending-changes", ds_has_pending_changes() ? "true" : "false");
  }
  auto state = static_cast<size_t>(database_get_transaction_state(row.datastore) - E_TRANS_INVALID);
  batch->set(path + "/transaction-state", transaction_states[state]);
}

void write_counters(ds_status_batch *batch, const std::string &path)
{
  batch->set(path);
  batch->set(path + "/requests", std::to_string(g_daemon_counters.requests));
  batch->set(path + "/errors", std::to_string(g_daemon_counters.errors));
  batch->set(path + "/commits", std::to_string(g_daemon_counters.commits));
}

int publish_state(int, const char *)
{
  ds_status_batch batch;
  if (batch.begin(STATE_PATH) != 0) {
    return -1;
  }
  batch.remove(STATE_PATH); // sessions and locks that are gone must not be told again
  write_daemon(&batch, STATE_PATH);
  for (int id = 1; id <= context_list_size("LIST-session"); id++) {
    const session_t *session = session_find(id);
    if (session != nullptr && session->bit_init && session->sock >= 0) {
      write_session(&batch, *session);
    }
  }
  for (const datastore_name_t &row : datastores) {
    write_datastore(&batch, row);
  }
  write_counters(&batch, std::string(STATE_PATH) + "/counters");
  return batch.commit();
}

} // namespace

int daemon_state_init()
{
  static_assert(std::size(transaction_states) == E_TRANS_COMMIT_END - E_TRANS_INVALID + 1);
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
