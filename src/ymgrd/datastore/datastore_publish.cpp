// From an accepted change to the running configuration: commit and discard-changes (RFC 6241, section 8.3), the
// hand-over to the broker, and what follows when the broker is done.
#include <memory>

#include "ymgrd/broker/broker.h"
#include "ymgrd/broker/plugin.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/counters.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_announce.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_publication.h"
#include "ymgrd/datastore/ds_restore.h"
#include "ymgrd/notify/base_notification.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr const char *PUBLISHING_OPTION = "OPT-datastore";

// The publication in flight. The request lives in the session's context, which is looked up again at the end.
struct ds_publishing_t {
  int sid;
  int target_ds;
  ds_session_db db;
  lyd_tree_ptr data;                  // of a running edit: what running holds once the change stands
  base_notification_info_t announced; // the session may be gone when it must be taken back
  bool stands = false;                // running holds the change
};

std::unique_ptr<ds_publishing_t> take_publishing()
{
  std::unique_ptr<ds_publishing_t> record(context_get_record<ds_publishing_t>(PUBLISHING_OPTION));
  if (record != nullptr) {
    context_remove_option(PUBLISHING_OPTION);
  }
  return record;
}

// Makes the change of the database permanent. 0 or -1.
int commit_change(ds_publishing_t *record)
{
  if (record->db.commit() != 0 ||
      (record->target_ds == ENUM_DATASTORE_CANDIDATE && database_copy(YMGRM_RUNNING_DB, YMGRM_CANDIDATE_DB) != 0)) {
    return -1;
  }
  record->stands = true;
  return 0;
}

// With errors of plugins: a rolled back change never reaches the database; else what the plugins applied stays.
reply_error_ptr finish_failed(ds_publishing_t *record, int is_rollback, reply_error_ptr errors)
{
  g_daemon_counters.changes_refused++;
  if (is_rollback) {
    g_daemon_counters.rollbacks++;
    record->db.discard();
    return errors;
  }
  if (record->db.commit() != 0) {
    errors.reset(rpc_append_error(errors.release(), REPLY_ERR_OP_FAILED));
  } else {
    record->stands = true;
  }
  return errors;
}

reply_error_ptr finish_publication(ds_publishing_t *record, int is_rollback, reply_error_ptr errors)
{
  (void)database_set_transaction_state(record->target_ds, E_TRANS_PUB_END); // logged there; see lock_and_start
  if (record->target_ds != ENUM_DATASTORE_RUNNING && record->target_ds != ENUM_DATASTORE_CANDIDATE) {
    log_error("datastore publish callback target ds error(%d)", record->target_ds);
    return reply_error_ptr(rpc_create_error(REPLY_ERR_OP_FAILED));
  }
  (void)database_set_transaction_state(record->target_ds, E_TRANS_COMMIT);
  if (errors != nullptr) {
    return finish_failed(record, is_rollback, std::move(errors));
  }
  return commit_change(record) == 0 ? nullptr : reply_error_ptr(rpc_create_error(REPLY_ERR_ACCESS_DENIED));
}

// After a commit the kept tree is what both datastores hold; after a failure nobody knows.
void keep_data(ds_publishing_t *record, bool succeeded)
{
  if (!succeeded) {
    ds_kept_drop();
  } else if (record->target_ds == ENUM_DATASTORE_RUNNING) {
    ds_kept_store(std::move(record->data));
  }
}

// --- commit

struct commit_databases_t {
  ds_session_db candidate;
  ds_session_db running;
};

int open_for_commit(int sid, commit_databases_t *databases, reply_error_ptr *ret_error)
{
  if (databases->candidate.open(ENUM_DATASTORE_CANDIDATE) != 0) {
    log_error("Target datastore candidate can't open.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore candidate can't open.");
  }
  if (ds_lock_all_data(databases->candidate.hdb(), DB_LOCK_READ, databases->candidate.locks()) != 0) {
    log_error("Get database candidate lock fail.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Get target database candidate lock fail.");
  }
  if (ds_is_access(ENUM_DATASTORE_RUNNING, sid) == DS_ACCESS_DENIED) {
    log_error("Target datastore running has been locked.");
    return ds_fail(ret_error, REPLY_ERR_IN_USE, "Target datastore running has been locked.");
  }
  (void)database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_PUB);
  if (databases->running.open(ENUM_DATASTORE_RUNNING) != 0) {
    log_error("target ds running can't open.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore running can't open.");
  }
  if (ds_lock_all_data(databases->running.hdb(), DB_LOCK_WRITE, databases->running.locks()) != 0) {
    log_error("get database running lock fail.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Get target database running lock fail.");
  }
  if (databases->running.start() != 0) {
    log_error("database running trans start fail.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "database running trans start fail.");
  }
  return 0;
}

// What was set without a test must be valid before it is published. The pending changes stay as they are.
int check_candidate(const ds_session_db &candidate, reply_error_ptr *ret_error)
{
  if (ds_candidate_is_valid()) {
    return 0;
  }
  lyd_tree_ptr data;
  if (ds_take_data(candidate.hdb(), 0, "/", &data) != 0) {
    ret_error->reset(rpc_create_error(REPLY_ERR_OP_FAILED));
    return -1;
  }
  if (datastore_validate(&data, REPLY_ERR_OP_FAILED, ret_error) != 0) {
    log_error("Candidate is not valid, it can not be committed.");
    if (data != nullptr) {
      ds_kept_store(std::move(data));
    }
    return -1;
  }
  ds_note_candidate_valid();
  ds_kept_store(std::move(data));
  return 0;
}

// The broker did not take the change: candidate becomes running again.
reply_error_ptr undo_commit(commit_databases_t *databases)
{
  ds_drop_differ_nodes();
  ds_kept_drop();
  (void)database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_COMMIT);
  const char *message = nullptr;
  if (database_copy(YMGRM_CANDIDATE_DB, YMGRM_RUNNING_DB) != 0) {
    log_error("database copy from running to candidate fail.");
    databases->running.discard();
    log_error("Discard %d change when publish error.", databases->running.hdb());
    message = "Discard change when publish error.";
  } else if (databases->running.commit() != 0) {
    log_error("Commit %d fail when publish error.", databases->running.hdb());
    message = "Commit fail when publish error.";
  }
  (void)database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_COMMIT_END);
  return message == nullptr ? reply_error_ptr(rpc_create_error(REPLY_ERR_OP_FAILED))
                            : rpc_make_error(REPLY_ERR_OP_FAILED, message);
}

// The layer check lets parameters that no module has pass when the request declares namespaces of others. A change that
// is to be taken back unless it is confirmed must never stay for that.
bool asks_for_confirmation(const lyxml_elem *commit)
{
  for (const char *parameter : {"confirmed", "confirm-timeout", "persist", "persist-id"}) {
    if (lyxml_find_child(commit, parameter) != nullptr) {
      return true;
    }
  }
  return false;
}

} // namespace

int datastore_publish(int sid, ds_session_db *db, lyd_tree_ptr *data, differ_node_t *dtree, int target_ds, int erropt)
{
  auto record = std::make_unique<ds_publishing_t>(ds_publishing_t{sid, target_ds, {}, nullptr, {}, false});
  ds_publishing_t *publishing = record.get();
  if (context_save_record(PUBLISHING_OPTION, publishing) != 0) {
    log_error("Save %s option to context failed.", PUBLISHING_OPTION);
    return -1;
  }
  (void)record.release(); // the context store holds its address until the publication ends
  if (ds_announce_change(sid, dtree, &publishing->announced) != 0) {
    (void)take_publishing();
    return -1;
  }
  if (database_begin_publication(target_ds, ds_journal_of(dtree)) != 0) { // before anybody is told
    ds_announce_undone(std::move(take_publishing()->announced));
    return -1;
  }
  publishing->db = std::move(*db); // the publication may end inside the next call
  if (data != nullptr) {
    publishing->data = std::move(*data);
  }
  if (broker_publish_config(sid, erropt, dtree) != 0) {
    *db = std::move(publishing->db);
    ds_announce_undone(std::move(take_publishing()->announced));
    (void)database_drop_publication(plugin_names_up_to_date()); // logged there; nobody was told anything
    log_error("error happened when publishing config");
    return -1;
  }
  log_debug("config is been publishing");
  return 0;
}

bool ds_get_publication(ds_publication_t *ret_publication)
{
  const auto *record = context_get_record<ds_publishing_t>(PUBLISHING_OPTION);
  if (record == nullptr) {
    return false;
  }
  *ret_publication = {record->target_ds, record->db.hdb(), record->data.get()};
  return true;
}

int datastore_publish_callback(int is_rollback, reply_error_ptr errors)
{
  log_info("Publish configuration was end.");
  std::unique_ptr<ds_publishing_t> record = take_publishing();
  if (record == nullptr) {
    log_error("Get current datastore information failed.");
    context_remove_option(PUBLISHING_OPTION);
    ds_drop_differ_nodes();
    return -1;
  }
  reply_error_ptr error = finish_publication(record.get(), is_rollback, std::move(errors));
  g_daemon_counters.commits += error == nullptr ? 1 : 0;
  if (record->stands) {
    g_daemon_counters.last_change = time(nullptr);
  } else {
    ds_announce_undone(std::move(record->announced));
  }
  keep_data(record.get(), error == nullptr);
  (void)database_end_publication(record->target_ds, plugin_names_up_to_date());
  record->db.end();
  ds_drop_differ_nodes();
  const rpc_oper_context_t *context = session_get_rpc_context(record->sid);
  if (context == nullptr) { // the session ended meanwhile: the change stands, nobody waits for the reply
    log_error("Session rpc context is null, when datastore publish callback.");
    return -1;
  }
  return error == nullptr ? rpc_answer_ok(record->sid, context->rpc.get())
                          : rpc_answer_error(record->sid, context->rpc.get(), std::move(error));
}

int ds_commit(int sid, const char *, lyxml_elem *rpc)
{
  if (asks_for_confirmation(lyxml_first_child(rpc))) {
    log_error("Confirmed commit is not supported.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_NOT_SUPPORTED, "Confirmed commit is not supported.");
  }
  if (differ_nodes == nullptr) {
    log_debug("Nothing to be committed.");
    return rpc_answer_ok(sid, rpc);
  }
  if (ds_is_configured(ENUM_DATASTORE_RUNNING) != 0) {
    log_error("Target datastore cannot be configured.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "Target datastore cannot be configured.");
  }
  ds_end_smooth_start();
  if (ds_is_access(ENUM_DATASTORE_CANDIDATE, sid) == DS_ACCESS_DENIED) {
    log_error("Target datastore candidate has been locked.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "Target datastore candidate has been locked.");
  }
  commit_databases_t databases;
  reply_error_ptr error;
  if (open_for_commit(sid, &databases, &error) != 0 || check_candidate(databases.candidate, &error) != 0) {
    return rpc_answer_error(sid, rpc, std::move(error));
  }
  if (datastore_publish(sid, &databases.running, nullptr, differ_nodes, ENUM_DATASTORE_CANDIDATE,
                        ERROR_OPTION_ROLLBACK) != 0) {
    error = undo_commit(&databases);
    databases.running.end();
    return rpc_answer_error(sid, rpc, std::move(error));
  }
  return 0;
}

int ds_discarde_changes(int sid, const char *, lyxml_elem *rpc)
{
  if (differ_nodes == nullptr) {
    log_error("Nothing to be discarded.");
    return rpc_answer_ok(sid, rpc);
  }
  if (ds_is_access(ENUM_DATASTORE_CANDIDATE, sid) == DS_ACCESS_DENIED) {
    log_error("Candidate datastore has been locked by another session.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "Candidate datastore has been locked by another session.");
  }
  ds_end_smooth_start();
  (void)database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_INIT);
  (void)database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_DATA_EDIT);
  ds_kept_drop();
  int copied = database_copy(YMGRM_CANDIDATE_DB, YMGRM_RUNNING_DB);
  (void)database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_COMMIT_END);
  if (copied != 0) {
    log_error("copy candidate to running fail.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "copy candidate to running fail.");
  }
  ds_drop_differ_nodes();
  return rpc_answer_ok(sid, rpc);
}
