// edit-config of candidate and running (RFC 6241, section 7.2).
#include "ymgrd/broker/broker.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_restore.h"
#include "ymgrd/datastore/edit_config.h"
#include "ymgrd/rpc/rpc_reply.h"

namespace {

// One edit-config request on its way: what it asks for, and what it holds.
struct edit_work_t {
  edit_work_t(int session_id, const char *text, lyxml_elem *request) : sid(session_id), data(text), rpc(request) {}

  int sid;
  const char *data;
  lyxml_elem *rpc;
  int target = 0;
  int erropt = ERROR_OPTION_ROLLBACK;
  NC_EDIT_OP_TYPE default_operation = NC_EDIT_OP_MERGE;
  NC_TEST_OPTION test_option = NC_TEST_THEN_SET;
  ds_config_t config;
  ds_session_db db;
  ds_change_t change;
  edit_changes changes; // of the data in `change`
};

// A test leaves no trace, not even in the persisted state. A state that could not be written is logged: one that is
// behind is safe.
void enter_state(const edit_work_t &work, transact_state_e state)
{
  if (work.test_option != NC_TEST_ONLY) {
    (void)database_set_transaction_state(work.target, state);
  }
}

int read_parameters(edit_work_t *work, reply_error_ptr *ret_error)
{
  if (ds_get_src_and_dst(lyxml_first_child(work->rpc), nullptr, &work->target) != 0) {
    log_error("edit-config get source and target failed.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "invalid source or target.");
  }
  if (work->target == ENUM_DATASTORE_CONFIG || work->target == ENUM_DATASTORE_URL) {
    log_error("edit-config get source and target failed.");
    return ds_fail(ret_error, REPLY_ERR_INVALID_VALUE, "invalid source or target.");
  }
  if (work->target == ENUM_DATASTORE_ERROR) {
    log_error("edit-config get source and target failed.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "invalid source or target.");
  }
  work->test_option = datastore_get_test_option(work->rpc);
  if (work->test_option == NC_TEST_OPTION_ERROR) {
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "test-option invalid.");
  }
  return 0;
}

int check_access(const edit_work_t &work, reply_error_ptr *ret_error)
{
  if (ds_is_access(work.target, work.sid) == DS_ACCESS_DENIED) {
    log_error("Target datastore has been locked.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore has been locked.");
  }
  if (ds_is_configured(work.target) != 0) {
    log_error("Target datastore cannot be configured.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore cannot be configured.");
  }
  return 0;
}

int read_options(edit_work_t *work, reply_error_ptr *ret_error)
{
  work->erropt = datastore_get_erropt(work->rpc, error_option);
  if (work->erropt == -1) {
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "error-option invalid.");
  }
  work->default_operation = datastore_get_default_operation(work->rpc);
  if (work->default_operation == NC_EDIT_OP_ERROR) {
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "default-operation invalid.");
  }
  return 0;
}

int open_target(edit_work_t *work, reply_error_ptr *ret_error)
{
  if (differ_nodes == nullptr && work->target == ENUM_DATASTORE_CANDIDATE &&
      database_copy(YMGRM_CANDIDATE_DB, YMGRM_RUNNING_DB) != 0) {
    log_error("copy running to candidate fail.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "copy running to candidate fail.");
  }
  if (work->db.open(work->target) != 0) {
    log_error("target ds %d not support.", work->target);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore does not exist.");
  }
  return 0;
}

int parse_config(edit_work_t *work, reply_error_ptr *ret_error)
{
  ds_long_parse announced(std::char_traits<char>::length(work->data));
  if (ds_parse_rpc_config(work->rpc, NC_OP_EDITCONFIG, &work->config, ret_error) != 0) {
    log_error("parse rpc config error.");
    return -1;
  }
  return 0;
}

int lock_and_start(edit_work_t *work, reply_error_ptr *ret_error)
{
  int hdb = work->db.hdb();
  // A replaced datastore loses nodes that the config does not name: then all of it is locked.
  bool whole = work->default_operation == NC_EDIT_OP_REPLACE;
  int locked = whole ? ds_lock_all_data(hdb, DB_LOCK_WRITE, work->db.locks())
                     : ds_lock_data(work->config.tree.get(), hdb, DB_LOCK_WRITE, work->db.locks());
  if (locked != 0) {
    log_error("get database lock fail. hdb(%d)", hdb);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "get database lock fail.");
  }
  enter_state(*work, E_TRANS_PREPARE);
  if (work->db.start() != 0) {
    log_error("database trans start fail. hdb(%d)", hdb);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "get database lock fail.");
  }
  enter_state(*work, E_TRANS_PREPARE_END);
  return 0;
}

// Running is always valid; candidate may be set without a test, and is then tested with the next edit that asks for
// one, or at the commit.
bool must_validate(const edit_work_t &work)
{
  if (work.target == ENUM_DATASTORE_RUNNING) {
    return work.change.written;
  }
  return work.test_option != NC_SET && (work.change.written || !ds_candidate_is_valid());
}

int apply_edit(edit_work_t *work, reply_error_ptr *ret_error, const char *edit_message, int invalid_kind)
{
  enter_state(*work, E_TRANS_DATA_EDIT);
  edit_request_t request;
  request.hdb = work->db.hdb();
  request.tflag = DB_TFLAG_TRANS;
  request.done = work->test_option != NC_TEST_ONLY;
  request.default_operation = work->default_operation;
  request.config = work->config.tree.get();
  request.changes = &work->changes;
  ds_change_t *change = &work->change;
  differ_node_t *tree = nullptr;
  if (edit_operations(request, &change->data, &tree, &change->written, ret_error) != 0) {
    if (*ret_error == nullptr) {
      ret_error->reset(rpc_create_error(REPLY_ERR_OP_FAILED));
      if (edit_message != nullptr) {
        rpc_set_error_field(ret_error->get(), REPLY_ERR_FIELD_MSG, edit_message);
      }
    }
    return -1;
  }
  change->tree.reset(tree);
  if (!must_validate(*work)) {
    change->is_valid = ds_candidate_is_valid() && !change->written;
    return 0;
  }
  return ds_validate_edit(&change->data, &work->changes, invalid_kind, ret_error);
}

int edit_running(edit_work_t *work, reply_error_ptr *ret_error)
{
  if (broker_is_publish_over() == -1) {
    log_error("The last publish configuration is not finished yet.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "The last publish configuration is not finished yet.");
  }
  if (differ_nodes != nullptr) {
    log_error("differ tree is not empty, must be published first");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Candidate database is different from running database.");
  }
  return apply_edit(work, ret_error, "edit operation failed.", REPLY_ERR_INVALID_VALUE);
}

int ds_edit_check(edit_work_t *work, reply_error_ptr *ret_error)
{
  switch (work->target) {
  case ENUM_DATASTORE_STARTUP:
    log_error("startup can not be edit by edit-config");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "startup can not be edit by edit-config");
  case ENUM_DATASTORE_CANDIDATE:
    return apply_edit(work, ret_error, nullptr, REPLY_ERR_OP_FAILED);
  case ENUM_DATASTORE_RUNNING:
    return edit_running(work, ret_error);
  default:
    log_error("copy-config target %d not support", work->target);
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "copy-config target not support");
  }
}

int accept_edit(edit_work_t *work, bool *ret_deferred, reply_error_ptr *ret_error)
{
  if (work->test_option == NC_TEST_ONLY) {
    ds_undo_edit(&work->change.data, &work->changes);
    return 0; // nothing was written; the transaction is discarded with its database
  }
  ds_accepted_t accepted = work->target == ENUM_DATASTORE_CANDIDATE
                               ? ds_accept_candidate(work->sid, &work->db, &work->change)
                               : ds_accept_running(work->sid, &work->db, &work->change, work->erropt);
  switch (accepted) {
  case DS_COMMIT_FAILED:
    log_error("commit %d fail.", work->db.hdb());
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Commit fail.");
  case DS_PUBLISH_FAILED:
    ret_error->reset(rpc_create_error(REPLY_ERR_OP_FAILED));
    return -1;
  default:
    *ret_deferred = accepted == DS_DEFERRED;
    return 0;
  }
}

// Everything behind the checks of target and access. On 0 `*ret_deferred` tells that the reply comes from the
// publication.
int run_edit(edit_work_t *work, bool *ret_deferred, reply_error_ptr *ret_error)
{
  if (read_options(work, ret_error) != 0 || open_target(work, ret_error) != 0 || parse_config(work, ret_error) != 0 ||
      lock_and_start(work, ret_error) != 0 || ds_edit_check(work, ret_error) != 0) {
    return -1;
  }
  return accept_edit(work, ret_deferred, ret_error);
}

} // namespace

int ds_edit_config(int sid, const char *data, lyxml_elem *rpc)
{
  edit_work_t work(sid, data, rpc);
  reply_error_ptr error;
  if (read_parameters(&work, &error) != 0 || check_access(work, &error) != 0) {
    return rpc_answer_error(sid, rpc, std::move(error));
  }
  ds_end_smooth_start();
  enter_state(work, E_TRANS_INIT);
  bool deferred = false;
  if (run_edit(&work, &deferred, &error) != 0) {
    work.db.end(); // before the reply: who reads it may edit again at once
    enter_state(work, E_TRANS_COMMIT_END);
    return rpc_answer_error(sid, rpc, std::move(error));
  }
  if (deferred) {
    return 0;
  }
  work.db.end();
  return rpc_answer_ok(sid, rpc);
}
