// Operations on whole datastores: copy-config and delete-config (RFC 6241, sections 7.3 and 7.4).
#include "ymgrd/broker/broker.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_announce.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_restore.h"
#include "ymgrd/datastore/edit_config.h"
#include "ymgrd/rpc/rpc_reply.h"

namespace {

// --- copy-config

// How the target comes to its new content.
typedef enum _copy_way {
  COPY_NOTHING = 0,  // it has it already
  COPY_DATABASE = 1, // by a copy inside the database
  COPY_EDIT = 2,     // by an edit that replaces all and finds out what differs
} copy_way_t;

// One copy-config request on its way: what it asks for, and what it holds.
struct copy_work_t {
  copy_work_t(int session_id, const char *text, lyxml_elem *request) : sid(session_id), data(text), rpc(request) {}

  int sid;
  const char *data;
  lyxml_elem *rpc;
  int source = 0;
  int target = 0;
  int erropt = ERROR_OPTION_ROLLBACK;
  copy_way_t way = COPY_NOTHING;
  ds_config_t config; // the new content, for an edit
  ds_session_db source_db;
  ds_session_db target_db;
  ds_change_t change;
};

void enter_state(const copy_work_t &work, transact_state_e state)
{
  (void)database_set_transaction_state(work.target, state); // logged; a state that is behind is safe
}

int read_parameters(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (ds_get_src_and_dst(lyxml_first_child(work->rpc), &work->source, &work->target) != 0 ||
      work->source == ENUM_DATASTORE_ERROR || work->target == ENUM_DATASTORE_ERROR) {
    log_error("copy-config get source and target failed.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "invalid source or target.");
  }
  if (work->target == ENUM_DATASTORE_CONFIG || work->target == ENUM_DATASTORE_URL || work->source == work->target ||
      work->source == ENUM_DATASTORE_URL) {
    log_error("edit-config get source and target failed.");
    return ds_fail(ret_error, REPLY_ERR_INVALID_VALUE, "invalid source or target.");
  }
  if (work->target == ENUM_DATASTORE_STARTUP && work->source != ENUM_DATASTORE_RUNNING) {
    log_error("target is startup and source is not running.");
    return ds_fail(ret_error, REPLY_ERR_OP_NOT_SUPPORTED, "target is startup and source is not running.");
  }
  return 0;
}

int check_access(const copy_work_t &work, reply_error_ptr *ret_error)
{
  if (ds_is_access(work.target, work.sid) == DS_ACCESS_DENIED) {
    log_error("Target datastore %d has been locked.", work.target);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore has been locked.");
  }
  if (ds_is_configured(work.target) != 0) {
    log_error("Target datastore cannot be configured.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore cannot be configured.");
  }
  return 0;
}

int open_target(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (differ_nodes == nullptr && work->target == ENUM_DATASTORE_CANDIDATE && work->source != ENUM_DATASTORE_RUNNING &&
      database_copy(YMGRM_CANDIDATE_DB, YMGRM_RUNNING_DB) != 0) {
    log_error("copy running to candidate fail.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "copy running to candidate fail.");
  }
  if (work->target_db.open(work->target) != 0) {
    log_error("target ds %d not support.", work->target);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore does not exist.");
  }
  if (ds_lock_all_data(work->target_db.hdb(), DB_LOCK_WRITE, work->target_db.locks()) != 0) {
    log_error("get database lock fail. hdb(%d)", work->target_db.hdb());
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Get target database lock fail.");
  }
  return 0;
}

int open_source(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (work->source_db.open(work->source) != 0) {
    log_error("source ds %d not support.", work->source);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Source datastore does not exist.");
  }
  if (ds_lock_all_data(work->source_db.hdb(), DB_LOCK_READ, work->source_db.locks()) != 0) {
    log_error("get database lock fail. hdb(%d)", work->source_db.hdb());
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Get source database lock fail.");
  }
  return 0;
}

int start_transaction(copy_work_t *work, reply_error_ptr *ret_error)
{
  enter_state(*work, E_TRANS_PREPARE);
  if (work->target_db.start() != 0) {
    log_error("database trans start fail. hdb(%d)", work->target_db.hdb());
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "database trans start fail.");
  }
  enter_state(*work, E_TRANS_PREPARE_END);
  return 0;
}

// The new content as a whole: nothing else will be in the target.
int validate_content(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (datastore_validate(&work->config.tree, REPLY_ERR_OP_FAILED, ret_error) != 0) {
    log_error("copy config mand validate error.");
    return -1;
  }
  return 0;
}

// Replaces all of the target by the content, which is valid. What stands in both is not written again.
int ds_copy_all(copy_work_t *work, const char *failure, reply_error_ptr *ret_error)
{
  work->way = COPY_EDIT;
  edit_request_t request;
  request.hdb = work->target_db.hdb();
  request.tflag = DB_TFLAG_TRANS;
  request.default_operation = NC_EDIT_OP_REPLACE;
  request.config = work->config.tree.get();
  differ_node_t *tree = nullptr;
  if (edit_operations(request, &work->change.data, &tree, &work->change.written, ret_error) != 0) {
    return *ret_error == nullptr ? ds_fail(ret_error, REPLY_ERR_OP_FAILED, failure) : -1;
  }
  work->change.tree.reset(tree);
  return 0;
}

// --- From another datastore.

int copy_inside_database(copy_work_t *work, const char *failure, reply_error_ptr *ret_error)
{
  work->way = COPY_DATABASE;
  if (database_copy(ds_to_db(work->target), ds_to_db(work->source)) != 0) {
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, failure);
  }
  return 0;
}

int copy_stored_content(copy_work_t *work, const char *failure, reply_error_ptr *ret_error)
{
  if (ds_db_get_data_from_top(work->source_db.hdb(), 0, "/", &work->config.tree) != 0) {
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, failure);
  }
  // What was stored long ago need not fit the schema of today.
  return validate_content(work, ret_error) != 0 ? -1 : ds_copy_all(work, failure, ret_error);
}

int copy_to_running(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (differ_nodes != nullptr) {
    const char *message = "Some changes have not been committed. Copy-config can not be completed";
    log_error("%s", message);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, message);
  }
  if (work->source == ENUM_DATASTORE_CANDIDATE) {
    log_debug("copy candiate to running but candidate no change.");
    return 0;
  }
  return copy_stored_content(work, "copy to running failed", ret_error);
}

int copy_to_candidate(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (work->source != ENUM_DATASTORE_RUNNING) {
    return copy_stored_content(work, "copy to candidate failed", ret_error);
  }
  log_debug("copy-config from running to candidate");
  return copy_inside_database(work, "copy to candidate failed", ret_error);
}

int ds_copy_from_ds(copy_work_t *work, reply_error_ptr *ret_error)
{
  switch (work->target) {
  case ENUM_DATASTORE_STARTUP:
    return copy_inside_database(work, "startup db save failed", ret_error);
  case ENUM_DATASTORE_RUNNING:
    return copy_to_running(work, ret_error);
  case ENUM_DATASTORE_CANDIDATE:
    return copy_to_candidate(work, ret_error);
  default:
    log_error("copy-config target %d not support", work->target);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "copy-config target not support");
  }
}

int copy_datastore(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (start_transaction(work, ret_error) != 0 || open_source(work, ret_error) != 0) {
    return -1;
  }
  enter_state(*work, E_TRANS_DATA_EDIT);
  if (ds_copy_from_ds(work, ret_error) != 0) {
    log_error("copy from config to datastore %d failed.", work->target);
    return *ret_error == nullptr ? ds_fail(ret_error, REPLY_ERR_OP_FAILED, "copy config fail.") : -1;
  }
  return 0;
}

// --- From <config>.

int ds_copy_from_config(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (work->target != ENUM_DATASTORE_RUNNING && work->target != ENUM_DATASTORE_CANDIDATE) {
    log_error("Copy-config target %d not support", work->target);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "copy-config target not support");
  }
  if (work->target == ENUM_DATASTORE_RUNNING) {
    if (broker_is_publish_over() == -1) {
      log_error("The last publish configuration is not finished yet.");
      return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "The last publish configuration is not finished yet.");
    }
    if (differ_nodes != nullptr) {
      log_error("differ tree is not empty, must be published first");
      return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "differ tree is not empty, must be published first");
    }
  }
  return ds_copy_all(work, "edit operation failed", ret_error);
}

int read_content(copy_work_t *work, reply_error_ptr *ret_error)
{
  ds_long_parse announced(std::char_traits<char>::length(work->data));
  if (ds_parse_rpc_config(work->rpc, NC_OP_COPYCONFIG, &work->config, ret_error) != 0) {
    log_error("Something wrong when parse xml data for copy-config.");
    return -1;
  }
  return 0;
}

int copy_config(copy_work_t *work, reply_error_ptr *ret_error)
{
  if (read_content(work, ret_error) != 0 || validate_content(work, ret_error) != 0 ||
      start_transaction(work, ret_error) != 0) {
    return -1;
  }
  ds_set_nodelist_op(work->config.tree.get(), NC_EDIT_OP_REPLACE, &work->config.arena);
  enter_state(*work, E_TRANS_DATA_EDIT);
  if (ds_copy_from_config(work, ret_error) != 0) {
    log_error("copy from config to datastore %d failed.", work->target);
    return *ret_error == nullptr ? ds_fail(ret_error, REPLY_ERR_OP_FAILED, "copy from config fail.") : -1;
  }
  log_debug("Copy from config finished.");
  return 0;
}

// --- The end of a copy.

ds_accepted_t accept_inside_database(copy_work_t *work)
{
  enter_state(*work, E_TRANS_COMMIT);
  if (work->target_db.commit() != 0) {
    ds_kept_drop();
    return DS_COMMIT_FAILED;
  }
  if (work->target == ENUM_DATASTORE_CANDIDATE && differ_nodes != nullptr) { // it is running again
    ds_kept_drop();
    ds_drop_differ_nodes();
  }
  enter_state(*work, E_TRANS_COMMIT_END);
  return DS_ACCEPTED;
}

ds_accepted_t accept(copy_work_t *work)
{
  if (work->way != COPY_EDIT) {
    return accept_inside_database(work);
  }
  return work->target == ENUM_DATASTORE_CANDIDATE
             ? ds_accept_candidate(work->sid, &work->target_db, &work->change)
             : ds_accept_running(work->sid, &work->target_db, &work->change, work->erropt);
}

int finish(copy_work_t *work, bool *ret_deferred, reply_error_ptr *ret_error)
{
  switch (accept(work)) {
  case DS_COMMIT_FAILED:
    log_error("Commit %d fail.", work->target_db.hdb());
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Commit fail.");
  case DS_PUBLISH_FAILED:
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Broker publish failed");
  case DS_DEFERRED:
    log_debug("Publish for copy-config finished.");
    *ret_deferred = true;
    return 0;
  default:
    return 0;
  }
}

int run_copy(copy_work_t *work, bool *ret_deferred, reply_error_ptr *ret_error)
{
  work->erropt = datastore_get_erropt(work->rpc, error_option_copy);
  if (work->erropt == -1) {
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "error-option invalid.");
  }
  if (open_target(work, ret_error) != 0) {
    return -1;
  }
  int copied = work->source == ENUM_DATASTORE_CONFIG ? copy_config(work, ret_error) : copy_datastore(work, ret_error);
  return copied != 0 ? -1 : finish(work, ret_deferred, ret_error);
}

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

int ds_copy_config(int sid, const char *data, lyxml_elem *rpc)
{
  copy_work_t work(sid, data, rpc);
  reply_error_ptr error;
  if (read_parameters(&work, &error) != 0 || check_access(work, &error) != 0) {
    return rpc_answer_error(sid, rpc, std::move(error));
  }
  ds_end_smooth_start();
  enter_state(work, E_TRANS_INIT);
  bool deferred = false;
  int result = run_copy(&work, &deferred, &error);
  if (deferred) {
    return 0;
  }
  work.target_db.end(); // before the reply: who reads it may copy again at once
  work.source_db.end();
  if (result != 0) {
    enter_state(work, E_TRANS_COMMIT_END);
    return rpc_answer_error(sid, rpc, std::move(error));
  }
  if (work.target == ENUM_DATASTORE_STARTUP) {
    ds_announce_startup(sid);
  }
  return rpc_answer_ok(sid, rpc);
}

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
  ds_end_smooth_start();
  if (ds_delete_startup() != 0) {
    log_error("delete-config delete startup failed.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "delete-config delete startup failed");
  }
  ds_announce_startup(sid);
  return rpc_answer_ok(sid, rpc);
}
