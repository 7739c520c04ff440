// Open handles, and which data a read through them sees.
#include <cerrno>
#include <cstring>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_internal.h"

namespace {

const ndb_t g_ndb[] = {
    {YMGRM_STARTUP_DB, REDIS_STARTUP_DB_MASTER, REDIS_STARTUP_DB_CLUSTER, "LIST-startup-lock"},
    {YMGRM_RUNNING_DB, REDIS_RUNNING_DB_MASTER, REDIS_RUNNING_DB_CLUSTER, "LIST-running-lock"},
    {YMGRM_CANDIDATE_DB, REDIS_CANDIDATE_DB_MASTER, REDIS_CANDIDATE_DB_CLUSTER, "LIST-candidate-lock"},
    {YMGRM_STATUS_DB, REDIS_STATUS_DB_MASTER, REDIS_STATUS_DB_CLUSTER, "LIST-status-lock"},
};

} // namespace

const ndb_t *ndb_find(int target)
{
  for (const ndb_t &ndb : g_ndb) {
    if (ndb.ndb_idx == target) {
      return &ndb;
    }
  }
  return nullptr;
}

const char *get_lock_list(int target)
{
  const ndb_t *ndb = ndb_find(target);
  return ndb != nullptr ? ndb->lock_list : nullptr;
}

hdb_t *hdb_find(int hdb)
{
  auto *handle = static_cast<hdb_t *>(hdb > 0 ? context_get_list_entry("LIST-hdb", hdb - 1) : nullptr);
  if (handle == nullptr) {
    log_error("%d not exist!", hdb);
  }
  return handle;
}

hdb_t *hdb_find_if(int target, const std::function<bool(hdb_t *)> &visit)
{
  int slots = context_list_size("LIST-hdb");
  for (int i = 0; i < slots; i++) {
    auto *handle = static_cast<hdb_t *>(context_get_list_entry("LIST-hdb", i));
    if (handle != nullptr && handle->target_db == target && visit(handle)) {
      return handle;
    }
  }
  return nullptr;
}

hdb_t *hdb_find_working(int target)
{
  hdb_t *owner = hdb_find_if(target, [](hdb_t *handle) {
    return handle->trans_state == TRANS_STATE_WORKING && hdb_holds_global_wlock(handle);
  });
  if (owner != nullptr) {
    return owner;
  }
  return hdb_find_if(target, [](hdb_t *handle) { return handle->trans_state == TRANS_STATE_WORKING; });
}

int db_open(int target)
{
  const ndb_t *ndb = ndb_find(target);
  if (ndb == nullptr) {
    log_error("db_open only support open startup/running/candidate/status db instead of target_db=%d  ", target);
    return -1;
  }
  auto handle = std::make_unique<hdb_t>();
  handle->target_db = target;
  handle->ndb = ndb;
  handle->ctxt = db_connect(ndb->rdb);
  if (!handle->ctxt || (db_has_unfinished_discard(ndb) && db_recover(ndb) != 0)) {
    return -1;
  }
  int position = context_save_list_entry("LIST-hdb", handle.get());
  if (position < 0) {
    log_error("Context save failed(%d).", position);
    return -1;
  }
  handle->hdb_id = position + 1;
  return handle.release()->hdb_id; // the list holds it until db_close
}

void db_close(int hdb)
{
  auto *handle = static_cast<hdb_t *>(hdb > 0 ? context_get_list_entry("LIST-hdb", hdb - 1) : nullptr);
  if (handle == nullptr) {
    return;
  }
  db_trans_discard(hdb); // what nobody committed must not stay
  context_del_list_entry("LIST-hdb", hdb - 1);
  std::unique_ptr<hdb_t> owner(handle);
}

int get_trans_db(int hdb, int tflag, std::string_view path, hdb_t **ret_handle, db_data_age_t *ret_age)
{
  hdb_t *handle = hdb_find(hdb);
  if (handle == nullptr) {
    return -1;
  }
  bool working = handle->trans_state == TRANS_STATE_WORKING;
  bool wants_new = (tflag & DB_TFLAG_TRANS) != 0;
  db_data_age_t age = DB_DATA_CURRENT;
  if (handle->target_db != YMGRM_STATUS_DB) {
    if (wants_new && (tflag & DB_TFLAG_NOTRANS) == 0 && !working) {
      log_error("start trans first!");
      return -1;
    }
    if (path != "/" && belong_module(path).empty()) {
      return -1;
    }
    bool wants_old = (tflag & DB_TFLAG_BACKUP) != 0 || !wants_new;
    age = working && wants_old ? DB_DATA_BEFORE_TRANSACTION : DB_DATA_CURRENT;
  }
  if (age == DB_DATA_CURRENT && db_flush_pending(handle, DB_FLUSH_UNDOABLE) != 0) {
    return -1;
  }
  *ret_handle = handle;
  *ret_age = age;
  return 0;
}
