#include "ymgrd/datastore/ds_lock.h"

#include <memory>

#include "libconf/safe_string.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/dbkey.h"

namespace {

struct lock_option_t {
  int target;
  const char *option;
};

// In the order in which the records are made.
const lock_option_t lock_options[] = {
    {ENUM_DATASTORE_STARTUP, "OPT-lock-startup"},
    {ENUM_DATASTORE_RUNNING, "OPT-lock-running"},
    {ENUM_DATASTORE_CANDIDATE, "OPT-lock-candidate"},
};

ds_lock_t *lock_record(int target)
{
  for (const lock_option_t &row : lock_options) {
    if (row.target == target) {
      return context_get_record<ds_lock_t>(row.option);
    }
  }
  return nullptr;
}

// The record of a datastore that has a NETCONF lock; logs when there is none.
ds_lock_t *accessible_lock_record(int target)
{
  ds_lock_t *record = lock_record(target);
  if (record == nullptr) {
    log_error("datastore %ud can not be read.", static_cast<unsigned>(target));
  }
  return record;
}

// Gives the data locks behind the first `keep` back.
void unlock_behind(ds_db_locks_t *locks, size_t keep)
{
  for (size_t i = keep; i < locks->size(); i++) {
    database_unlock((*locks)[i].hdb, (*locks)[i].lock_id);
  }
  locks->resize(keep);
}

int lock_path(int hdb, int type, const char *path, ds_db_locks_t *locks)
{
  int lock_id = database_lock(hdb, type, path);
  if (lock_id <= 0) {
    return -1;
  }
  locks->push_back({hdb, lock_id});
  return 0;
}

} // namespace

int ds_lock_init()
{
  for (const lock_option_t &row : lock_options) {
    auto record = std::make_unique<ds_lock_t>();
    if (context_save_record(row.option, record.get()) != 0) {
      return -1;
    }
    (void)record.release(); // the context store holds its address from here on
  }
  return 0;
}

void ds_lock_uninit()
{
  for (const lock_option_t &row : lock_options) {
    std::unique_ptr<ds_lock_t> record(context_get_record<ds_lock_t>(row.option));
    if (record != nullptr) {
      context_remove_option(row.option);
    }
  }
}

int ds_get_lock_state(int target, int *ret_sid)
{
  if (ret_sid == nullptr) {
    log_error("output parameter is NULL.");
    return -1;
  }
  const ds_lock_t *record = accessible_lock_record(target);
  if (record == nullptr) {
    return -1;
  }
  *ret_sid = record->sid;
  return 0;
}

int ds_set_lock_state(int target, int sid)
{
  if (sid < 0) {
    log_error("session id is invalid(%d).", sid);
    return -1;
  }
  ds_lock_t *record = accessible_lock_record(target);
  if (record == nullptr) {
    return -1;
  }
  record->sid = sid;
  return 0;
}

const char *ds_get_lock_time(int target)
{
  const ds_lock_t *record = accessible_lock_record(target);
  return record == nullptr ? nullptr : record->locktime;
}

int ds_set_lock_time(int target, const char *time_str)
{
  if (time_str == nullptr) {
    log_error("param(locktime) is NULL.");
    return -1;
  }
  ds_lock_t *record = accessible_lock_record(target);
  if (record == nullptr) {
    return -1;
  }
  return strncpy_s(record->locktime, sizeof(record->locktime), time_str, std::strlen(time_str)) == 0 ? 0 : -1;
}

int ds_get_modify_status(int target, int *ret_is_modify)
{
  if (ret_is_modify == nullptr) {
    log_error("param(modify-status) is NULL.");
    return -1;
  }
  const ds_lock_t *record = accessible_lock_record(target);
  if (record == nullptr) {
    return -1;
  }
  *ret_is_modify = record->modify;
  return 0;
}

int ds_set_modify_status(int target, int is_modify)
{
  ds_lock_t *record = accessible_lock_record(target);
  if (record == nullptr) {
    return -1;
  }
  record->modify = is_modify;
  return 0;
}

int ds_is_access(int target, int sid)
{
  int holder = 0;
  if (ds_get_lock_state(target, &holder) != 0) {
    return DS_ACCESS_DENIED;
  }
  if (holder == 0) {
    return DS_ACCESS_FREE;
  }
  return holder == sid ? DS_ACCESS_HELD : DS_ACCESS_DENIED;
}

int ds_is_configured(int target)
{
  if (target == ENUM_DATASTORE_RUNNING && context_get_option("OPT-broker-publish") != nullptr) {
    log_error("Configuration is publishing.");
    return -1;
  }
  return 0;
}

int ds_lock_data(const lyd_node *top, int hdb, int type, ds_db_locks_t *locks)
{
  size_t before = locks->size();
  for (const lyd_node *node = top; node != nullptr; node = node->next) {
    std::string key = dbkey_data_key(node);
    if (lock_path(hdb, type, key.c_str(), locks) != 0) {
      log_error("get lock on node %.512s fail.", key.c_str());
      unlock_behind(locks, before);
      return -1;
    }
  }
  return 0;
}

int ds_lock_all_data(int hdb, int type, ds_db_locks_t *locks)
{
  if (lock_path(hdb, type, "/", locks) != 0) {
    log_error("get lock on '/' in %d fail.", hdb);
    return -1;
  }
  return 0;
}

void ds_unlock_data(ds_db_locks_t *locks)
{
  unlock_behind(locks, 0);
}
