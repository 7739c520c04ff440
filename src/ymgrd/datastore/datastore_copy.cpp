// Operations on whole datastores: delete-config (RFC 6241, section 7.4).
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/rpc/rpc_reply.h"

namespace {

// --- delete-config

int clear_startup(ds_session_db *db)
{
  if (db->open(ENUM_DATASTORE_STARTUP) != 0 || ds_lock_all_data(db->hdb(), DB_LOCK_WRITE, db->locks()) != 0) {
    log_error("get database lock fail. hdb(%d)", db->hdb());
    return -1;
  }
  (void)database_set_transaction_state(ENUM_DATASTORE_STARTUP, E_TRANS_PREPARE); // logged; a state behind is safe
  if (db->start() != 0) {
    log_error("database trans start fail. hdb(%d)", db->hdb());
    return -1;
  }
  (void)database_set_transaction_state(ENUM_DATASTORE_STARTUP, E_TRANS_DATA_EDIT);
  if (database_clean(YMGRM_STARTUP_DB) != 0) {
    log_error("datastore clean database %d fail. ", db->hdb());
    return -1;
  }
  (void)database_set_transaction_state(ENUM_DATASTORE_STARTUP, E_TRANS_COMMIT);
  if (db->commit() != 0) {
    log_error("database commit %d fail. ", db->hdb());
    return -1;
  }
  return 0;
}

int ds_delete_startup()
{
  (void)database_set_transaction_state(ENUM_DATASTORE_STARTUP, E_TRANS_INIT);
  ds_session_db db;
  int result = clear_startup(&db);
  db.end();
  (void)database_set_transaction_state(ENUM_DATASTORE_STARTUP, E_TRANS_COMMIT_END);
  return result;
}

} // namespace

int ds_delete_config(int sid, const char *, lyxml_elem *rpc)
{
  int target = ENUM_DATASTORE_ERROR;
  if (ds_get_src_and_dst(lyxml_first_child(rpc), nullptr, &target) != 0) {
    log_error("get source ds failed.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "get source ds failed.");
  }
  if (target == ENUM_DATASTORE_ERROR || target == ENUM_DATASTORE_CONFIG || target == ENUM_DATASTORE_URL) {
    log_error("delete-config get source and target failed.");
    return ds_refuse(sid, rpc, REPLY_ERR_INVALID_VALUE, "invalid source or target.");
  }
  if (ds_is_access(target, sid) == DS_ACCESS_DENIED) {
    log_error("Target datastore has been locked.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "Target datastore has been locked.");
  }
  if (target != ENUM_DATASTORE_STARTUP) {
    log_error("Running or candidate db can not be deleted");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_NOT_SUPPORTED, "Running or candidate db can not be deleted");
  }
  if (ds_delete_startup() != 0) {
    log_error("delete-config delete startup failed.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "delete-config delete startup failed");
  }
  return rpc_answer_ok(sid, rpc);
}
