// Operations on whole datastores.
#include "ymgrd/core/log.h"
#include "ymgrd/database/database_internal.h"

namespace {

// Replaces the target's content by that of `source` (0: by nothing), within its transaction when one is running.
int replace_datastore(const ndb_t *target, int source)
{
  hdb_t *working = hdb_find_working(target->ndb_idx);
  if (working != nullptr) {
    working->pending.replace_all(source);
    return 0;
  }
  hdb_t once; // not an open handle: lives for this one write
  once.target_db = target->ndb_idx;
  once.ndb = target;
  once.ctxt = db_connect(target->rdb);
  if (!once.ctxt || db_clean_backup(target) != 0) {
    return -1;
  }
  once.pending.replace_all(source);
  if (db_flush_pending(&once, DB_FLUSH_FINAL) != 0) {
    return -1;
  }
  return target->ndb_idx == YMGRM_STARTUP_DB ? save_startup() : 0; // a transaction's commit saves by itself
}

} // namespace

int save_startup()
{
  db_connection connection = db_connect(REDIS_STARTUP_DB_MASTER);
  if (!connection) {
    log_error("redis db connect error");
    return 0; // the data is stored; the disk image follows with the server's next save
  }
  return redis_savedb_improve(connection.get());
}

int db_copy(int target, int source)
{
  const ndb_t *target_ndb = ndb_find(target);
  const ndb_t *source_ndb = ndb_find(source);
  if (target_ndb == nullptr || source_ndb == nullptr) {
    return -1;
  }
  if (target == source) {
    return 0;
  }
  (void)db_foreign_writes(); // before what is known of the differences is used
  if (db_has_unfinished_discard(source_ndb) && db_recover(source_ndb) != 0) {
    return -1;
  }
  return replace_datastore(target_ndb, source);
}

int db_clean(int target)
{
  const ndb_t *ndb = ndb_find(target);
  if (ndb == nullptr) {
    return -1;
  }
  if (replace_datastore(ndb, 0) != 0) {
    log_error("Redis delete db(%d) tree(/*) failed.", ndb->rdb);
    return -1;
  }
  return 0;
}
