// The persisted transaction state of each datastore, from which a restarted daemon learns what was cut off.
#include <cstring>
#include <functional>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr const char INFO_KEY[] = "ymgrd-info";
constexpr const char STATE_FIELD[] = "transact-state";
constexpr const char PUBLICATION_KEY[] = "ymgrd-publication"; // in running's master database: backups are emptied
constexpr const char PLUGINS_KEY[] = "ymgrd-plugins";         // there, too
constexpr int NO_DATABASE = -1;

int master_of(int target)
{
  switch (target) {
  case ENUM_DATASTORE_RUNNING:
    return REDIS_RUNNING_DB_MASTER;
  case ENUM_DATASTORE_STARTUP:
    return REDIS_STARTUP_DB_MASTER;
  case ENUM_DATASTORE_CANDIDATE:
    return REDIS_CANDIDATE_DB_MASTER;
  case ENUM_DATASTORE_STATUS:
    return REDIS_STATUS_DB_MASTER;
  default:
    return NO_DATABASE;
  }
}

int failed_update(int target, transact_state_e state)
{
  log_error("Update datbase(%d) broker state(%d) failed.", target, state);
  return -1;
}

// The state's bytes are native.
void add_state(redis_batch_t *batch, transact_state_e state)
{
  int32_t number = state;
  std::string_view value(reinterpret_cast<const char *>(&number), sizeof(number));
  redis_batch_add(batch, {"HSET", INFO_KEY, STATE_FIELD, value});
}

// The commands in order, in the datastore's master database.
int run_update(int target, transact_state_e state, const std::function<void(redis_batch_t *batch)> &add_commands)
{
  int rdb = master_of(target);
  if (rdb == NO_DATABASE) {
    log_warn("Datastore %d can not be accessed.", target);
    return -1;
  }
  db_connection connection = db_connect(rdb);
  if (!connection) {
    log_error("Redis connect error");
    return -1;
  }
  redis_batch_ptr batch(redis_batch_create());
  add_commands(batch.get());
  bool is_done = true;
  int sent = redis_batch_run(connection.get(), batch.get(), [&is_done](size_t, const redisReply *reply) {
    is_done = is_done && !redis_reply_is_error(reply);
  });
  return sent == 0 && is_done ? 0 : failed_update(target, state);
}

// Each name and a NUL, which no name holds.
std::string text_of(const std::vector<std::string> &plugins)
{
  std::string text;
  for (const std::string &name : plugins) {
    text.append(name).push_back('\0');
  }
  return text;
}

// One command in running's master database. Null (logged) when it fails.
redis_reply_ptr run_in_running(std::initializer_list<std::string_view> words, const char *what)
{
  db_connection connection = db_connect(REDIS_RUNNING_DB_MASTER);
  redis_reply_ptr reply = connection ? redis_command(connection.get(), words) : nullptr;
  if (reply == nullptr || redis_reply_is_error(reply.get())) {
    log_error("%s.", what);
    return nullptr;
  }
  return reply;
}

std::string_view bytes_of(const redisReply &reply)
{
  return reply.type == REDIS_REPLY_STRING ? std::string_view(reply.str, reply.len) : std::string_view();
}

// `words` in the database of the publication, whatever the target's.
void add_in_running(redis_batch_t *batch, int target, std::initializer_list<std::string_view> words)
{
  bool is_elsewhere = master_of(target) != REDIS_RUNNING_DB_MASTER;
  if (is_elsewhere) {
    redis_batch_add(batch, {"SELECT", std::to_string(REDIS_RUNNING_DB_MASTER)});
  }
  redis_batch_add(batch, words);
  if (is_elsewhere) {
    redis_batch_add(batch, {"SELECT", std::to_string(master_of(target))});
  }
}

// What stands in the field of the state.
transact_state_e state_of(const redisReply &reply)
{
  int32_t number = 0;
  if (reply.type != REDIS_REPLY_STRING || reply.len != sizeof(number)) {
    return E_TRANS_INVALID;
  }
  memcpy(&number, reply.str, sizeof(number));
  bool is_state = number >= E_TRANS_INVALID && number <= E_TRANS_COMMIT_END;
  return is_state ? static_cast<transact_state_e>(number) : E_TRANS_INVALID;
}

} // namespace

int database_set_transaction_state(int target, transact_state_e state)
{
  return run_update(target, state, [state](redis_batch_t *batch) { add_state(batch, state); });
}

int database_begin_publication(int target, const std::string &journal)
{
  return run_update(target, E_TRANS_PUB, [target, &journal](redis_batch_t *batch) {
    add_in_running(batch, target, {"SET", PUBLICATION_KEY, journal});
    add_state(batch, E_TRANS_PUB);
  });
}

int database_get_publication(std::string *ret_journal)
{
  redis_reply_ptr reply = run_in_running({"GET", PUBLICATION_KEY}, "The publication that was cut off can not be read");
  if (reply == nullptr) {
    return -1;
  }
  ret_journal->assign(bytes_of(*reply));
  return 0;
}

int database_end_publication(int target, const std::vector<std::string> &plugins)
{
  const std::string text = text_of(plugins);
  return run_update(target, E_TRANS_COMMIT_END, [target, &text](redis_batch_t *batch) {
    add_in_running(batch, target, {"SET", PLUGINS_KEY, text});
    add_in_running(batch, target, {"DEL", PUBLICATION_KEY});
    add_state(batch, E_TRANS_COMMIT_END);
  });
}

int database_drop_publication(const std::vector<std::string> &plugins)
{
  return database_save_plugins(plugins) == 0 &&
                 run_in_running({"DEL", PUBLICATION_KEY}, "The publication that was cut off can not be forgotten")
             ? 0
             : -1;
}

int database_save_plugins(const std::vector<std::string> &plugins)
{
  return run_in_running({"SET", PLUGINS_KEY, text_of(plugins)}, "The plugins' names can not be saved") ? 0 : -1;
}

int database_get_plugins(std::vector<std::string> *ret_plugins)
{
  redis_reply_ptr reply = run_in_running({"GET", PLUGINS_KEY}, "The plugins' names can not be read");
  if (reply == nullptr) {
    return -1;
  }
  ret_plugins->clear();
  std::string_view text = bytes_of(*reply);
  for (size_t end = 0; (end = text.find('\0')) != std::string_view::npos; text.remove_prefix(end + 1)) {
    ret_plugins->emplace_back(text.substr(0, end));
  }
  return 0;
}

transact_state_e database_get_transaction_state(int target)
{
  int rdb = master_of(target);
  if (rdb == NO_DATABASE) {
    log_error("Database %d can not be accessed.", target);
    return E_TRANS_INVALID;
  }
  db_connection connection = db_connect(rdb);
  if (!connection) {
    log_error("Redis connect error");
    return E_TRANS_INVALID;
  }
  redis_reply_ptr reply = redis_hash_get_bin_safe(connection.get(), INFO_KEY, STATE_FIELD);
  if (reply == nullptr || reply->type != REDIS_REPLY_STRING || reply->len != sizeof(int32_t)) {
    log_warn("Datbase(%d) has no transaction state flag.", target);
    return E_TRANS_INVALID;
  }
  return state_of(*reply);
}

int database_get_figures(const std::vector<int> &targets, std::vector<database_figures_t> *ret_figures)
{
  constexpr size_t COMMANDS = 3; // for each datastore
  int rdb = targets.empty() ? NO_DATABASE : master_of(targets.back());
  db_connection connection = rdb == NO_DATABASE ? db_connection() : db_connect(rdb);
  if (!connection) {
    log_error("The figures of the datastores can not be read.");
    return -1;
  }
  // The last database selected is the connection's own.
  redis_batch_ptr batch(redis_batch_create());
  for (int target : targets) {
    redis_batch_add(batch.get(), {"SELECT", std::to_string(master_of(target))});
    redis_batch_add(batch.get(), {"HGET", INFO_KEY, STATE_FIELD});
    redis_batch_add(batch.get(), {"DBSIZE"});
  }
  std::vector<database_figures_t> figures(targets.size());
  bool is_refused = false;
  int sent = redis_batch_run(connection.get(), batch.get(), [&](size_t index, const redisReply *reply) {
    database_figures_t &figure = figures[index / COMMANDS];
    is_refused = is_refused || redis_reply_is_error(reply);
    if (index % COMMANDS == 1) {
      figure.state = state_of(*reply);
    } else if (index % COMMANDS == 2) {
      figure.records = static_cast<uint64_t>(reply->integer);
    }
  });
  if (sent != 0 || is_refused) {
    log_error("The figures of the datastores can not be read.");
    return -1;
  }
  *ret_figures = std::move(figures);
  return 0;
}
