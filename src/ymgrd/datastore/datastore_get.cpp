// get (RFC 6241, section 7.7): the status datastore is made equal to running, the publishers of state data below each
// top path of the filter are asked to fill it, one path after the other, and what the filter selects of it is sent.
#include <deque>
#include <memory>
#include <new>

#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_restore.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr const char *GET_OPTION = "OPT-datastore-get";

// The get in progress. The request lives in the session's context, which is looked up again at the end.
typedef struct _ds_get_context {
  int sid = 0;
  std::unique_ptr<nc_filter_t> filter; // null: everything
  std::deque<std::string> paths;       // that are yet to be asked for
} ds_get_context_t;

int ds_save_get_context(std::unique_ptr<ds_get_context_t> context)
{
  if (context_save_record(GET_OPTION, context.get()) != 0) {
    return -1;
  }
  (void)context.release(); // the context store holds its address until the end of the get
  return 0;
}

std::unique_ptr<ds_get_context_t> take_get_context()
{
  std::unique_ptr<ds_get_context_t> context(context_get_record<ds_get_context_t>(GET_OPTION));
  context_remove_option(GET_OPTION);
  return context;
}

int refuse_get(int sid, const lyxml_elem *rpc, const char *message)
{
  log_error("%s", message);
  return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, message);
}

int send_data(int sid, const lyxml_elem *rpc, std::string_view text)
{
  if (ds_get_send_reply(sid, rpc, text) != 0) {
    log_error("Failed to build and send rpc-reply for geting.");
    return -1;
  }
  return 0;
}

// State data of an earlier get goes with the copy, and what was pushed comes back as far as it is asked for.
int prepare_status(const std::vector<std::string> &paths, const char **ret_message)
{
  int running = ds_to_db(ENUM_DATASTORE_RUNNING);
  int status = ds_to_db(ENUM_DATASTORE_STATUS);
  if (running == 0 || status == 0) {
    *ret_message = "Failed to transform running or status database.";
    return -1;
  }
  if (database_copy(status, running) != 0 || ds_write_pushed(paths) != 0) {
    *ret_message = "Failed to merge running into status.";
    return -1;
  }
  return 0;
}

// Asks for the next path. The end of it arrives at ds_get_callback, possibly inside this call. 0 or -1.
int subscribe_next(ds_get_context_t *context)
{
  std::string path = std::move(context->paths.front());
  context->paths.pop_front();
  return broker_subscribe_status(context->sid, path.c_str()); // `context` may be gone
}

constexpr const char *NOT_SUBSCRIBED = "The last status subscribe is not finished or internal error.";

int send_status(const ds_get_context_t &context, const lyxml_elem *rpc)
{
  ds_session_db db;
  if (ds_glock_transact_start(ENUM_DATASTORE_STATUS, context.filter.get(), &db) != 0) {
    return refuse_get(context.sid, rpc, "Failed to lock for get operation.");
  }
  wiped_string text;
  if (ds_get_query_result(db.hdb(), ENUM_DATASTORE_STATUS, context.filter.get(), &text) != 0) {
    return refuse_get(context.sid, rpc, "Failed to get entire data set from database.");
  }
  if (text.empty()) {
    log_debug("Empty data in status database.");
  }
  db.end();
  return send_data(context.sid, rpc, text);
}

} // namespace

int ds_get(int sid, const char *, lyxml_elem *rpc)
{
  if (context_get_option(GET_OPTION) != nullptr) {
    return refuse_get(sid, rpc, "There is another get operation running");
  }
  ds_end_smooth_start();
  std::unique_ptr<nc_filter_t> filter;
  if (ds_take_filter(sid, rpc, "get", &filter) != 0) {
    return -1;
  }
  if (filter != nullptr && nc_filter_is_empty(*filter)) {
    return send_data(sid, rpc, {});
  }
  std::vector<std::string> paths = filter == nullptr ? std::vector<std::string>{"/"} : ds_filter_top_paths(*filter);
  const char *message = nullptr;
  if (prepare_status(paths, &message) != 0) {
    return refuse_get(sid, rpc, message);
  }
  std::unique_ptr<ds_get_context_t> context(new (std::nothrow) ds_get_context_t);
  ds_get_context_t *current = context.get();
  if (context != nullptr) {
    context->sid = sid;
    context->filter = std::move(filter);
    context->paths.assign(paths.begin(), paths.end());
  }
  if (context == nullptr || ds_save_get_context(std::move(context)) != 0) {
    return refuse_get(sid, rpc, "Failed to save get-context.");
  }
  log_info("status published %.512s to broker.", current->paths.front().c_str());
  if (subscribe_next(current) != 0) {
    (void)take_get_context();
    return refuse_get(sid, rpc, NOT_SUBSCRIBED);
  }
  log_debug("get message is been published to plugins.");
  return 0;
}

int ds_get_callback()
{
  auto *current = context_get_record<ds_get_context_t>(GET_OPTION);
  if (current == nullptr) {
    log_error("Failed to get current datastore context for get-operation.");
    return -1;
  }
  bool is_complete = current->paths.empty();
  if (!is_complete) {
    log_info("status published %.512s to broker", current->paths.front().c_str());
    if (subscribe_next(current) == 0) {
      return 0;
    }
  }
  std::unique_ptr<ds_get_context_t> context = take_get_context();
  const rpc_oper_context_t *request = session_get_rpc_context(context->sid);
  if (request == nullptr) {
    log_error("Session rpc context is null, when datastore get callback.");
    return -1;
  }
  return is_complete ? send_status(*context, request->rpc.get())
                     : refuse_get(context->sid, request->rpc.get(), NOT_SUBSCRIBED);
}

void ds_get_forget()
{
  (void)take_get_context(); // freed here
}
