// lock and unlock (RFC 6241, sections 7.5 and 7.6).
#include <ctime>

#include "ymgrd/core/log.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/rpc/rpc_reply.h"

namespace {

typedef struct _lockable {
  int target;
  const char *name;
  const char *title;
} lockable_t;

const lockable_t lockables[] = {
    {ENUM_DATASTORE_RUNNING, "running", "Running"},
    {ENUM_DATASTORE_STARTUP, "startup", "Startup"},
    {ENUM_DATASTORE_CANDIDATE, "candidate", "Candidate"},
};

const lockable_t *find_lockable(int target)
{
  for (const lockable_t &row : lockables) {
    if (row.target == target) {
      return &row;
    }
  }
  return nullptr;
}

const char *title_of(int target)
{
  const lockable_t *row = find_lockable(target);
  return row == nullptr ? "unknown" : row->title;
}

// lock-denied names the holder, 0 for none (RFC 6241, appendix A).
int deny_lock(reply_error_ptr *ret_error, int holder, const std::string &message)
{
  (void)ds_fail(ret_error, REPLY_ERR_LOCK_DENIED, message);
  if (ret_error != nullptr && *ret_error != nullptr) {
    std::string info = "<session-id>" + std::to_string(holder) + "</session-id>";
    rpc_set_error_field(ret_error->get(), REPLY_ERR_FIELD_INFO, info.c_str());
  }
  return -1;
}

int deny_held_lock(int target, reply_error_ptr *ret_error)
{
  int holder = 0;
  if (ds_get_lock_state(target, &holder) != 0) {
    return deny_lock(ret_error, holder, "Datastore has been locked(failed to get session id lock).");
  }
  log_info("Datastore has been locked by session(%d).", holder);
  return deny_lock(ret_error, holder, "Datastore has been locked by session(" + std::to_string(holder) + ").");
}

int refuse_modified_candidate(reply_error_ptr *ret_error)
{
  int is_modified = 0;
  if (ds_get_modify_status(ENUM_DATASTORE_CANDIDATE, &is_modified) != 0) {
    log_error("failed to get modified status from CANDIDATE DB.");
    return deny_lock(ret_error, 0, "Failed to get modified status from CANDIDATE DB.");
  }
  if (is_modified == 1) {
    log_error("candidate datastore not locked but already modified.");
    return deny_lock(ret_error, 0, "Candidate datastore not locked but already modified.");
  }
  return 0;
}

// What lock and unlock have in common, but for their words.
typedef struct _lock_words {
  const char *name;          // of the operation, in messages
  const char *without_error; // how it is called when the operation failed without an error record
  int (*operation)(int sid, int target, reply_error_ptr *ret_error);
} lock_words_t;

const lock_words_t lock_words = {"LOCK", "lock operation", lock_operation};
const lock_words_t unlock_words = {"UNLOCK", "UNLOCK operation", unlock_operation};

int read_target(const lyxml_elem *rpc, const lock_words_t &words, int *ret_target, reply_error_ptr *ret_error)
{
  int target = ENUM_DATASTORE_ERROR;
  if (ds_get_src_and_dst(lyxml_first_child(rpc), nullptr, &target) != 0 || target == ENUM_DATASTORE_ERROR) {
    std::string message = std::string(words.name) + " get target failed.";
    log_error("%s", message.c_str());
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, message);
  }
  const lockable_t *row = find_lockable(target);
  if (row == nullptr) {
    log_error("edit-config get source and target failed.");
    return ds_fail(ret_error, REPLY_ERR_INVALID_VALUE, "invalid source or target.");
  }
  log_info("%s %s.", row->name, words.name);
  *ret_target = target;
  return 0;
}

int run_operation(int sid, const lyxml_elem *rpc, const lock_words_t &words)
{
  int target = ENUM_DATASTORE_ERROR;
  reply_error_ptr error;
  if (read_target(rpc, words, &target, &error) != 0) {
    return rpc_answer_error(sid, rpc, std::move(error));
  }
  if (words.operation(sid, target, &error) == 0) {
    return rpc_answer_ok(sid, rpc);
  }
  log_error("%s operation return error.", words.name);
  if (error == nullptr) {
    std::string message = std::string(words.without_error) + " return error without error infomation.";
    log_error("%s", message.c_str());
    error = rpc_make_error(REPLY_ERR_OP_FAILED, message);
  }
  return rpc_answer_error(sid, rpc, std::move(error));
}

} // namespace

int lock_operation(int sid, int target, reply_error_ptr *ret_error)
{
  log_debug("Entry: session %d request to lock the %s datastore", sid, title_of(target));
  int access = ds_is_access(target, sid);
  if (access == DS_ACCESS_DENIED) {
    return deny_held_lock(target, ret_error);
  }
  if (target == ENUM_DATASTORE_CANDIDATE && refuse_modified_candidate(ret_error) != 0) {
    return -1;
  }
  if (access == DS_ACCESS_HELD) {
    log_debug("%s datastore has already been locked by current session(%d).", title_of(target), sid);
    return deny_lock(ret_error, sid, "Datastore has already been locked by current session.");
  }
  if (ds_set_lock_state(target, sid) != 0) {
    log_error("datastore lock synchronisation failed.");
    return deny_lock(ret_error, 0, "Datastore lock synchronisation failed.");
  }
  std::string now = std::to_string(static_cast<long>(std::time(nullptr)));
  if (ds_set_lock_time(target, now.c_str()) != 0) {
    log_error("datastore locktime synchronisation failed.");
    (void)ds_set_lock_state(target, 0); // what is refused is not held
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Datastore locktime synchronisation failed.");
  }
  return 0;
}

int unlock_operation(int sid, int target, reply_error_ptr *ret_error)
{
  log_debug("Entry: session(%d) unlock the %s datastore.", sid, title_of(target));
  switch (ds_is_access(target, sid)) {
  case DS_ACCESS_DENIED:
    log_error("Target datastore is locked by another session.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore is locked by another session.");
  case DS_ACCESS_FREE:
    log_warn("Target datastore is not locked.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Target datastore is not locked.");
  default:
    break;
  }
  if (target == ENUM_DATASTORE_CANDIDATE && ds_set_modify_status(target, 0) != 0) {
    log_error("failed to mark candidate as not modified.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Failed to mark candidate as not modified.");
  }
  if (ds_set_lock_state(target, 0) != 0) {
    log_error("datastore lock synchronisation failed when unlock.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Datastore lock synchronisation failed when unlock.");
  }
  if (ds_set_lock_time(target, "") != 0) {
    log_error("datastore locktime synchronisation failed when unlock.");
    return ds_fail(ret_error, REPLY_ERR_OP_FAILED, "Datastore locktime synchronisation failed when unlock.");
  }
  return 0;
}

void ds_session_closed(int session_id)
{
  for (const lockable_t &row : lockables) {
    if (ds_is_access(row.target, session_id) == DS_ACCESS_HELD) {
      (void)unlock_operation(session_id, row.target, nullptr); // logged there; the session is gone either way
    }
  }
}

int ds_lock(int sid, const char *, lyxml_elem *rpc)
{
  return run_operation(sid, rpc, lock_words);
}

int ds_unlock(int sid, const char *, lyxml_elem *rpc)
{
  return run_operation(sid, rpc, unlock_words);
}
