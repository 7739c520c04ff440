// A start that leaves running as it is: transactions that were cut off are finished or taken back, one datastore at a
// time.
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_internal.h"

namespace {

typedef struct _smooth_row {
  int datastore;
  int target;
  const char *name;
} smooth_row_t;

const smooth_row_t smooth_rows[] = {{ENUM_DATASTORE_RUNNING, YMGRM_RUNNING_DB, "running"},
                                    {ENUM_DATASTORE_CANDIDATE, YMGRM_CANDIDATE_DB, "candidate"}};

const smooth_row_t *find_row(int ds_target)
{
  for (const smooth_row_t &row : smooth_rows) {
    if (row.datastore == ds_target) {
      return &row;
    }
  }
  return nullptr;
}

int end_state(const smooth_row_t &row)
{
  if (database_set_transaction_state(row.datastore, E_TRANS_COMMIT_END) != 0) {
    log_error("Reset %s transaction state failed.", row.name);
    return -1;
  }
  return 0;
}

} // namespace

int database_is_cut_off(int ds_target, bool *ret_is)
{
  const smooth_row_t *row = find_row(ds_target);
  if (row == nullptr) {
    *ret_is = false;
    return 0;
  }
  db_connection backup = db_connect(ndb_find(row->target)->backup_rdb);
  redis_reply_ptr size = backup ? redis_command(backup.get(), {"HLEN", DB_JOURNAL_KEY}) : nullptr;
  if (size == nullptr || size->type != REDIS_REPLY_INTEGER) {
    return -1;
  }
  *ret_is = size->integer > 0;
  return 0;
}

int database_smooth_commit_transaction(int ds_target)
{
  const smooth_row_t *row = find_row(ds_target);
  if (row == nullptr) {
    return 0;
  }
  if (db_clean_backup(ndb_find(row->target)) != 0) {
    log_error("Clean %s slave db failed.", row->name);
    return -1;
  }
  return end_state(*row);
}

int database_smooth_cancel_transaction(int ds_target)
{
  const smooth_row_t *row = find_row(ds_target);
  if (row == nullptr) {
    log_error("Target database(%d) is Not supported.", ds_target);
    return -1;
  }
  log_info("Cancel transaction for %s database.", row->name);
  if (db_recover(ndb_find(row->target)) != 0) {
    log_error("Restore key(%s) failed when cancel data in smooth.", "/");
    return -1;
  }
  return end_state(*row);
}
