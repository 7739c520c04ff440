// What becomes of a change that was applied and checked: pending in candidate, or published to running.
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_kept.h"

differ_node_t *differ_nodes = nullptr;

namespace {

bool candidate_is_valid = true;

void forget_pending()
{
  candidate_is_valid = true;                               // it is running again
  (void)ds_set_modify_status(ENUM_DATASTORE_CANDIDATE, 0); // logged there; at worst a lock is refused
}

void add_pending(int sid, ds_change_t *change)
{
  bool is_change = change->tree != nullptr;
  differ_node_t *later = change->tree.release();
  differ_tree_merge(&differ_nodes, &later, 0);
  if (differ_nodes == nullptr) {
    forget_pending();
    return;
  }
  candidate_is_valid = change->is_valid;
  if (is_change && ds_is_access(ENUM_DATASTORE_CANDIDATE, sid) != DS_ACCESS_HELD) {
    (void)ds_set_modify_status(ENUM_DATASTORE_CANDIDATE, 1); // logged there; the change stands in any case
  }
}

} // namespace

void ds_drop_differ_nodes()
{
  if (differ_nodes != nullptr) {
    free_differ_tree(differ_nodes);
    differ_nodes = nullptr;
    forget_pending();
  }
}

bool ds_candidate_is_valid()
{
  return candidate_is_valid;
}

void ds_note_candidate_valid()
{
  candidate_is_valid = true;
}

ds_accepted_t ds_accept_candidate(int sid, ds_session_db *db, ds_change_t *change)
{
  if (db->commit() != 0) {
    return DS_COMMIT_FAILED;
  }
  add_pending(sid, change);
  if (differ_nodes == nullptr && change->written) {
    ds_kept_drop(); // equal to running, but entries that nobody ordered may stand in another order than running's
  } else {
    ds_kept_store(std::move(change->data));
  }
  (void)database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_PUB); // logged; a state behind is safe
  return DS_ACCEPTED;
}

ds_accepted_t ds_accept_running(int sid, ds_session_db *db, ds_change_t *change, int erropt)
{
  if (change->tree == nullptr) {
    (void)database_set_transaction_state(ENUM_DATASTORE_RUNNING, E_TRANS_COMMIT);
    if (db->commit() != 0) {
      return DS_COMMIT_FAILED;
    }
    (void)database_set_transaction_state(ENUM_DATASTORE_RUNNING, E_TRANS_COMMIT_END);
    ds_kept_store(std::move(change->data));
    return DS_ACCEPTED;
  }
  if (database_flush(db->hdb()) != 0) { // the change must be in the database before plugins ask for it
    return DS_COMMIT_FAILED;
  }
  differ_nodes = change->tree.release();
  if (datastore_publish(sid, db, &change->data, differ_nodes, ENUM_DATASTORE_RUNNING, erropt) != 0) {
    ds_drop_differ_nodes();
    return DS_PUBLISH_FAILED;
  }
  return DS_DEFERRED;
}
