#include "ymgrd/core/daemon_state.h"

#include <charconv>
#include <chrono>
#include <ctime>
#include <iterator>
#include <string>

#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/counters.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/ds_lock.h"
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

// The status database while the state is written: all of it arrives at once, or nothing.
class state_writer {
public:
  state_writer() = default;
  state_writer(const state_writer &) = delete;
  state_writer &operator=(const state_writer &) = delete;
  ~state_writer();

  int begin();
  void set(const std::string &path, const std::string &text = "")
  {
    failed_ = failed_ || database_set(hdb_, path.c_str(), DB_DATA_CONTENT, text.c_str()) != 0;
  }
  void add(const std::string &entry)
  {
    failed_ = failed_ || database_new(hdb_, entry.c_str(), nullptr, 0, DB_DATA_CONTENT, nullptr) != 0;
  }
  int commit() { return !failed_ && database_trans_commit(hdb_) == 0 ? 0 : -1; }

private:
  int remove_older();

  int hdb_ = 0;
  int lock_id_ = 0;
  bool failed_ = false;
};

state_writer::~state_writer()
{
  database_unlock(hdb_, lock_id_);
  database_close(hdb_); // discards what was not committed
}

int state_writer::begin()
{
  hdb_ = database_open(YMGRM_STATUS_DB);
  if (hdb_ <= 0) {
    return -1;
  }
  lock_id_ = database_lock(hdb_, DB_LOCK_WRITE, STATE_PATH);
  return lock_id_ > 0 && database_trans_start(hdb_) == 0 ? remove_older() : -1;
}

// Sessions and locks that are gone must not be told again.
int state_writer::remove_older()
{
  char *text = nullptr;
  if (database_get(hdb_, DB_TFLAG_ABSENT_OK, STATE_PATH, 1, &text) != 0) {
    return -1;
  }
  c_string_ptr owner(text);
  return text == nullptr ? 0 : database_delete(hdb_, STATE_PATH);
}

void write_daemon(state_writer *writer, const std::string &path)
{
  auto uptime = std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - g_started_steady);
  writer->set(path);
  writer->set(path + "/version", YMGRD_VERSION);
  writer->set(path + "/started", date_and_time(g_started));
  writer->set(path + "/uptime", std::to_string(uptime.count()));
}

void write_session(state_writer *writer, const session_t &session)
{
  std::string path = std::string(STATE_PATH) + "/session[id=\"" + std::to_string(session.session_id) + "\"]";
  writer->add(path);
  writer->set(path + "/username", session.username);
  std::string address = session_client_address(session);
  if (!address.empty()) {
    writer->set(path + "/address", address);
  }
  writer->set(path + "/login", date_and_time(session.login_time));
}

void write_lock(state_writer *writer, const std::string &path, int datastore)
{
  int holder = 0;
  if (ds_get_lock_state(datastore, &holder) != 0 || holder == 0) {
    return;
  }
  writer->set(path + "/lock-holder", std::to_string(holder));
  std::string_view since = ds_get_lock_time(datastore);
  time_t seconds = 0;
  if (std::from_chars(since.data(), since.data() + since.size(), seconds).ec == std::errc()) {
    writer->set(path + "/locked-since", date_and_time(seconds));
  }
}

void write_datastore(state_writer *writer, const datastore_name_t &row)
{
  std::string path = std::string(STATE_PATH) + "/datastore[name=\"" + row.name + "\"]";
  writer->add(path);
  write_lock(writer, path, row.datastore);
  if (row.datastore == ENUM_DATASTORE_CANDIDATE) {
    writer->set(path + "/pending-changes", ds_has_pending_changes() ? "true" : "false");
  }
  auto state = static_cast<size_t>(database_get_transaction_state(row.datastore) - E_TRANS_INVALID);
  writer->set(path + "/transaction-state", transaction_states[state]);
}

void write_counters(state_writer *writer, const std::string &path)
{
  writer->set(path);
  writer->set(path + "/requests", std::to_string(g_daemon_counters.requests));
  writer->set(path + "/errors", std::to_string(g_daemon_counters.errors));
  writer->set(path + "/commits", std::to_string(g_daemon_counters.commits));
}

int publish_state(int, const char *)
{
  state_writer writer;
  if (writer.begin() != 0) {
    return -1;
  }
  write_daemon(&writer, STATE_PATH);
  for (int id = 1; id <= context_list_size("LIST-session"); id++) {
    const session_t *session = session_find(id);
    if (session != nullptr && session->bit_init && session->sock >= 0) {
      write_session(&writer, *session);
    }
  }
  for (const datastore_name_t &row : datastores) {
    write_datastore(&writer, row);
  }
  write_counters(&writer, std::string(STATE_PATH) + "/counters");
  return writer.commit();
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
