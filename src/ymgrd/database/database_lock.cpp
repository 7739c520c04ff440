// Locks of modules and of whole datastores: shared or exclusive, re-entrant for one handle, never waited for.
#include <algorithm>

#include <pthread.h>

#include "libconf/conf_queue.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr const char WHOLE_DATASTORE[] = "/";

typedef struct _hdb_list {
  int hdb;
  int times; // how often this handle holds the lock
} hdb_list_t;

// Kept in the lock list of its datastore; the lock's id is its position there plus 1.
struct db_lock_t {
  std::string path; // module name, or "/"
  int type;
  conf_dlq_list_t<hdb_list_t> hdbs;
  int times = 0; // number of holders
  pthread_rwlock_t rwlock;

  db_lock_t(std::string_view unit, int lock_type) : path(unit), type(lock_type)
  {
    pthread_rwlock_init(&rwlock, nullptr);
  }
  db_lock_t(const db_lock_t &) = delete;
  db_lock_t &operator=(const db_lock_t &) = delete;
  ~db_lock_t() { pthread_rwlock_destroy(&rwlock); }

  // Takes the lock for a new holder. 0, or the error of the try-lock.
  int take(int hdb)
  {
    int error = type == DB_LOCK_WRITE ? pthread_rwlock_trywrlock(&rwlock) : pthread_rwlock_tryrdlock(&rwlock);
    if (error == 0) {
      hdbs.push_back({hdb, 1});
      times++;
    }
    return error;
  }
  auto holder(int hdb)
  {
    return std::find_if(hdbs.begin(), hdbs.end(), [hdb](const hdb_list_t &entry) { return entry.hdb == hdb; });
  }
};

typedef enum _lockable {
  NOT_LOCKABLE = -1,
  NEEDS_NEW_LOCK = 0
} lockable_t; // greater: the id of the lock that was joined

db_lock_t *lock_at(const char *list, int position)
{
  return static_cast<db_lock_t *>(context_get_list_entry(list, position));
}

// The whole datastore may be locked when no other handle holds anything that conflicts.
int ndb_is_lockable(const char *list, int type, int hdb)
{
  int slots = context_list_size(list);
  for (int i = 0; i < slots; i++) {
    const db_lock_t *lock = lock_at(list, i);
    if (lock == nullptr) {
      continue;
    }
    bool only_own = std::all_of(lock->hdbs.begin(), lock->hdbs.end(),
                                [hdb](const hdb_list_t &holder) { return holder.hdb == hdb; });
    if (!only_own && (lock->type != type || lock->type == DB_LOCK_WRITE)) {
      return NOT_LOCKABLE;
    }
  }
  return NEEDS_NEW_LOCK;
}

int join_lock(db_lock_t *lock, int id, int type, int hdb)
{
  if (lock->type != type) {
    log_error("%.512s has already been locked by different lock type (ori:%d, cur:%d).", lock->path.c_str(), lock->type,
              type);
    return NOT_LOCKABLE;
  }
  auto holder = lock->holder(hdb);
  if (holder != lock->hdbs.end()) {
    holder->times++;
    return id;
  }
  if (type == DB_LOCK_WRITE) {
    log_error("%.512s has already been locked ", lock->path.c_str());
    return NOT_LOCKABLE;
  }
  if (lock->take(hdb) != 0) {
    log_error("Failed to lock %.512s", lock->path.c_str());
    return NOT_LOCKABLE;
  }
  return id;
}

int module_is_lockable(const char *list, int type, int hdb, const std::string &unit)
{
  int slots = context_list_size(list);
  for (int i = 0; i < slots; i++) {
    db_lock_t *lock = lock_at(list, i);
    if (lock != nullptr && (lock->path == unit || lock->path == WHOLE_DATASTORE)) {
      return join_lock(lock, i + 1, type, hdb);
    }
  }
  return unit == WHOLE_DATASTORE ? ndb_is_lockable(list, type, hdb) : static_cast<int>(NEEDS_NEW_LOCK);
}

int new_lock(const char *list, int type, int hdb, const std::string &unit)
{
  auto lock = std::make_unique<db_lock_t>(unit, type);
  int error = lock->take(hdb);
  if (error != 0) {
    log_error("Failed to lock %.512s:%d.", unit.c_str(), error);
    return -1;
  }
  int position = context_save_list_entry(list, lock.get());
  if (position < 0) {
    (void)pthread_rwlock_unlock(&lock->rwlock); // ours since the line above
    return -1;
  }
  (void)lock.release(); // the list holds it until its last holder unlocks
  return position + 1;
}

} // namespace

void db_free_lock(void *entry)
{
  std::unique_ptr<db_lock_t> owner(static_cast<db_lock_t *>(entry));
}

bool hdb_holds_global_wlock(const hdb_t *handle)
{
  const char *list = handle->ndb->lock_list;
  int slots = context_list_size(list);
  for (int i = 0; i < slots; i++) {
    db_lock_t *lock = lock_at(list, i);
    if (lock != nullptr && lock->type == DB_LOCK_WRITE && lock->path == WHOLE_DATASTORE) {
      return lock->holder(handle->hdb_id) != lock->hdbs.end();
    }
  }
  return false;
}

int db_lock(int hdb, int type, const char *path)
{
  if (path == nullptr || (type != DB_LOCK_READ && type != DB_LOCK_WRITE)) {
    return -1;
  }
  std::string unit = WHOLE_DATASTORE;
  if (path != unit) {
    std::string_view module = belong_module(path);
    if (module.empty()) {
      return -1;
    }
    unit = module.substr(1);
  }
  const hdb_t *handle = hdb_find(hdb);
  if (handle == nullptr) {
    return -1;
  }
  const char *list = handle->ndb->lock_list;
  int id = module_is_lockable(list, type, hdb, unit);
  if (id == NEEDS_NEW_LOCK) {
    id = new_lock(list, type, hdb, unit);
  }
  log_debug("%d:%s get %d lock:(%.512s,%d) of type:%d", hdb, list, id, unit.c_str(), id, type);
  return id;
}

void db_unlock(int hdb, int lock_id)
{
  const hdb_t *handle = hdb_find(hdb);
  if (handle == nullptr) {
    return;
  }
  const char *list = handle->ndb->lock_list;
  db_lock_t *lock = lock_id > 0 ? lock_at(list, lock_id - 1) : nullptr;
  if (lock == nullptr) {
    return;
  }
  auto holder = lock->holder(hdb);
  if (holder == lock->hdbs.end() || --holder->times > 0) {
    return;
  }
  lock->hdbs.erase(holder);
  (void)pthread_rwlock_unlock(&lock->rwlock); // held by this holder since its lock
  log_debug("hdb(%d) freelock:(%.512s, %d)", hdb, lock->path.c_str(), lock_id);
  if (--lock->times == 0) {
    context_del_list_entry(list, lock_id - 1);
    db_free_lock(lock);
  }
}
