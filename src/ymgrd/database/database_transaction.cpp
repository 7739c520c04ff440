// Transactions: start, commit, discard, and what happens to one that was cut off.
//
//   INIT --start--> WORKING --commit/discard--> INIT        a commit that fails stays WORKING, to be discarded
#include <array>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database_internal.h"

namespace {

typedef enum _backup_state {
  BACKUP_UNKNOWN,    // not looked at since the start, or since the server was restarted
  BACKUP_CLEAN,      // nothing in it but what open transactions saved
  BACKUP_UNFINISHED, // a discard failed half-way: the old content is still there
} backup_state_t;

std::array<backup_state_t, YMGRM_STATUS_DB + 1> g_backups; // by logical number; zero is BACKUP_UNKNOWN

backup_state_t *backup_of(const ndb_t *ndb)
{
  return &g_backups[static_cast<size_t>(ndb->ndb_idx)];
}

bool is_healthy(const hdb_t *handle)
{
  return handle->trans_state == TRANS_STATE_WORKING && !handle->uncertain &&
         handle->generation == db_server_generation();
}

bool has_open_transactions(const ndb_t *ndb)
{
  return hdb_find_if(ndb->ndb_idx, [](hdb_t *handle) { return is_healthy(handle) && !handle->saved.empty(); }) !=
         nullptr;
}

// A database is only flushed when it holds something: the server tells every client of a flush, as if all had changed.
int holds_keys(rContext *connection, bool *ret_holds)
{
  redis_reply_ptr size = redis_command(connection, {"DBSIZE"});
  if (size == nullptr || size->type != REDIS_REPLY_INTEGER) {
    return -1;
  }
  *ret_holds = size->integer > 0;
  return 0;
}

// Reads from the backup database what the handles that `is_wanted` names saved.
int load_saved(const ndb_t *ndb, const std::function<bool(std::string_view owner)> &is_wanted, db_saved_t *ret_saved)
{
  db_connection backup = db_connect(ndb->backup_rdb);
  if (!backup) {
    return -1;
  }
  redis_reply_ptr journal = redis_hash_get_all_bin_safe(backup.get(), DB_JOURNAL_KEY);
  redis_reply_ptr modules = redis_hash_get_all_bin_safe(backup.get(), "/");
  if (journal == nullptr || modules == nullptr) {
    return -1;
  }
  db_saved_t saved;
  for (size_t i = 0; i + 1 < journal->elements; i += 2) {
    std::string_view key = redis_reply_text(journal->element[i]);
    if (is_wanted(redis_reply_text(journal->element[i + 1])) && !belong_module(key).empty()) {
      saved.keys.emplace(key);
      saved.modules.emplace(belong_module(key).substr(1), false);
    }
  }
  if (!saved.keys.empty()) {
    for (size_t i = 0; i + 1 < modules->elements; i += 2) {
      saved.modules[std::string(redis_reply_text(modules->element[i]))] = true;
    }
  }
  *ret_saved = std::move(saved);
  return 0;
}

void add_drop(redis_batch_t *batch, const ndb_t *ndb, const db_saved_t &saved)
{
  if (saved.empty()) {
    return;
  }
  std::vector<std::string_view> keys(saved.keys.begin(), saved.keys.end());
  std::vector<std::string_view> modules;
  for (const auto &[module, registered] : saved.modules) {
    modules.push_back(module);
  }
  redis_batch_add(batch, {"SELECT", std::to_string(ndb->backup_rdb)});
  db_add_chunked(batch, {"UNLINK"}, keys);
  db_add_chunked(batch, {"HDEL", DB_JOURNAL_KEY}, keys);
  db_add_chunked(batch, {"HDEL", "/"}, modules);
  redis_batch_add(batch, {"SELECT", std::to_string(ndb->rdb)});
}

// The commands that give the master its old content back. A key that had none is not in the backup and stays deleted.
void add_restore(redis_batch_t *batch, const ndb_t *ndb, const db_saved_t &saved)
{
  std::vector<std::string_view> keys(saved.keys.begin(), saved.keys.end());
  std::string master = std::to_string(ndb->rdb);
  std::string registered_value = db_make_value(DB_VALUE_NODE, {});
  db_add_chunked(batch, {"UNLINK"}, keys);
  for (const auto &[module, registered] : saved.modules) {
    if (registered) {
      redis_batch_add(batch, {"HSET", "/", module, registered_value});
    } else {
      redis_batch_add(batch, {"HDEL", "/", module});
    }
  }
  redis_batch_add(batch, {"SELECT", std::to_string(ndb->backup_rdb)});
  for (std::string_view key : keys) {
    redis_batch_add(batch, {"COPY", key, key, "DB", master, "REPLACE"});
  }
  redis_batch_add(batch, {"SELECT", master});
  add_drop(batch, ndb, saved);
}

int run_restore(redis_batch_t *batch, const ndb_t *ndb, const db_saved_t &saved)
{
  rContext *writer = db_writer(ndb->rdb);
  if (writer == nullptr || redis_batch_run_atomic(writer, batch) != 0) {
    db_differences_forget(ndb->ndb_idx);
    return -1;
  }
  if (!saved.empty()) {
    std::vector<std::string_view> touched(saved.keys.begin(), saved.keys.end());
    touched.push_back("/");
    db_differences_touch(ndb->ndb_idx, touched);
  }
  return 0;
}

int undo_flushed(hdb_t *handle)
{
  const ndb_t *ndb = handle->ndb;
  db_saved_t saved = std::move(handle->saved);
  if (handle->uncertain || handle->generation != db_server_generation()) {
    std::string own = std::to_string(handle->hdb_id);
    if (load_saved(
            ndb, [&own](std::string_view owner) { return owner == own; }, &saved) != 0) {
      return -1;
    }
  }
  if (saved.empty()) {
    return 0;
  }
  redis_batch_ptr batch(redis_batch_create());
  add_restore(batch.get(), ndb, saved);
  return run_restore(batch.get(), ndb, saved);
}

void end_transaction(hdb_t *handle)
{
  handle->trans_state = TRANS_STATE_INIT;
  handle->pending.clear();
  handle->pending.forget_gone();
  handle->saved = {};
  handle->uncertain = false;
}

} // namespace

void db_add_drop_saved(redis_batch_t *batch, const hdb_t *handle)
{
  add_drop(batch, handle->ndb, handle->saved);
}

bool db_has_unfinished_discard(const ndb_t *ndb)
{
  return *backup_of(ndb) == BACKUP_UNFINISHED;
}

void db_backups_forget()
{
  g_backups.fill(BACKUP_UNKNOWN);
}

int db_recover(const ndb_t *ndb)
{
  if (*backup_of(ndb) == BACKUP_CLEAN) {
    return 0;
  }
  auto is_left_behind = [ndb](std::string_view owner) {
    return hdb_find_if(ndb->ndb_idx, [owner](hdb_t *handle) {
             return is_healthy(handle) && owner == std::to_string(handle->hdb_id);
           }) == nullptr;
  };
  db_saved_t saved;
  bool has_leftovers = false;
  db_connection backup = db_connect(ndb->backup_rdb);
  if (!backup || holds_keys(backup.get(), &has_leftovers) != 0 || load_saved(ndb, is_left_behind, &saved) != 0) {
    return -1;
  }
  redis_batch_ptr batch(redis_batch_create());
  if (!saved.empty()) {
    log_warn("Undoing a transaction of db(%d) that was cut off.", ndb->rdb);
    for (const auto &[module, registered] : saved.modules) {
      log_info("Restore key:/%s.", module.c_str());
    }
    add_restore(batch.get(), ndb, saved);
  }
  if (has_leftovers && !has_open_transactions(ndb)) {
    redis_batch_add(batch.get(), {"SELECT", std::to_string(ndb->backup_rdb)});
    redis_batch_add(batch.get(), {"FLUSHDB"});
    redis_batch_add(batch.get(), {"SELECT", std::to_string(ndb->rdb)});
  }
  if (run_restore(batch.get(), ndb, saved) != 0) {
    return -1;
  }
  *backup_of(ndb) = BACKUP_CLEAN;
  return 0;
}

int db_recover_all()
{
  for (int target = YMGRM_STARTUP_DB; target <= YMGRM_STATUS_DB; target++) {
    const ndb_t *ndb = ndb_find(target);
    if (db_recover(ndb) != 0) {
      log_error("What was left in db(%d) by an earlier run is not undone.", ndb->backup_rdb);
      return -1;
    }
  }
  return 0;
}

int db_clean_backup(const ndb_t *ndb)
{
  if (*backup_of(ndb) == BACKUP_CLEAN || has_open_transactions(ndb)) {
    return 0;
  }
  rContext *writer = db_writer(ndb->backup_rdb);
  if (writer == nullptr) {
    log_error("db clean:redis connect failed.");
    return -1;
  }
  bool has_leftovers = false;
  if (holds_keys(writer, &has_leftovers) != 0 || (has_leftovers && redis_flushdb(writer) != 0)) {
    log_error("db clean:redis db(%d) does not exist", ndb->backup_rdb);
    return -1;
  }
  *backup_of(ndb) = BACKUP_CLEAN;
  return 0;
}

int db_trans_start(int hdb)
{
  hdb_t *handle = hdb_find(hdb);
  if (handle == nullptr || handle->trans_state == TRANS_STATE_WORKING) {
    return -1;
  }
  if (redis_ensure_connected(handle->ctxt.get()) != 0 || db_recover(handle->ndb) != 0) {
    return -1;
  }
  handle->generation = db_server_generation();
  handle->trans_state = TRANS_STATE_WORKING;
  return 0;
}

int db_trans_commit(int hdb)
{
  hdb_t *handle = hdb_find(hdb);
  if (handle == nullptr || handle->trans_state != TRANS_STATE_WORKING) {
    return -1;
  }
  if (db_flush_pending(handle, DB_FLUSH_FINAL) != 0) {
    return -1;
  }
  end_transaction(handle);
  return handle->target_db == YMGRM_STARTUP_DB ? save_startup() : 0;
}

void db_trans_discard(int hdb)
{
  hdb_t *handle = hdb_find(hdb);
  if (handle == nullptr || handle->trans_state != TRANS_STATE_WORKING) {
    return;
  }
  if (undo_flushed(handle) != 0) {
    // The journal stays in the backup database: the next open or start tries again.
    log_error("failed to cpoy db:%d->%d", handle->ndb->backup_rdb, handle->ndb->rdb);
    *backup_of(handle->ndb) = BACKUP_UNFINISHED;
  }
  end_transaction(handle);
}
