#include "ymgrd/rpc/rpc.h"

#include <new>

#include "libconf/conf_misc.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/core/counters.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/crypto/encrypt_find.h"
#include "ymgrd/datastore/ds_error.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/schema/schema.h"

namespace {

constexpr std::string_view OWN_OPERATIONS = "/zentra-ymgrd:";

int answer_kind(int session_id, const lyxml_elem *rpc, int err_type)
{
  return rpc_answer_error(session_id, rpc, reply_error_ptr(rpc_create_error(err_type)));
}

// There is no request to take the message id from: the frame's number stands in.
int answer_not_xml(int session_id, const msg_head_t *head)
{
  log_error("Translate rpc message to lyxml tree failed.");
  char message_id[64];
  lyxml_ptr rpc = lyxml_new_root("rpc");
  if (rpc == nullptr || conf_itoa(head->seq, message_id, sizeof(message_id)) < 0 ||
      lyxml_set_elem_attr(rpc.get(), "message-id", message_id) != 0) {
    log_error("allocate memory failed.");
    return -1;
  }
  return answer_kind(session_id, rpc.get(), REPLY_ERR_INVALID_VALUE);
}

int answer_invalid_layer(int session_id, const lyxml_elem *rpc)
{
  log_error("Validate rpc layer fail.");
  reply_error_ptr error(rpc_create_error(REPLY_ERR_UNKNOWN_ELEM));
  if (error != nullptr) {
    ds_add_path_and_msg(error.get());
  }
  return rpc_answer_error(session_id, rpc, std::move(error));
}

int answer_without_name(int session_id, const lyxml_elem *rpc)
{
  log_debug("Get rpc operation name failed.");
  return rpc_answer_error(session_id, rpc, rpc_make_error(REPLY_ERR_MISSING_ATTR, "Get rpc operation name failed."));
}

int answer_refused(int session_id, const lyxml_elem *rpc, const std::string &oper)
{
  log_debug("operation <%.512s> checked failed by session.", oper.c_str());
  return answer_kind(session_id, rpc, REPLY_ERR_OP_FAILED);
}

// Encrypts what must be neither logged nor kept, then logs the request. -1 when that failed: then nothing was logged.
int protect_and_log(int session_id, const std::string &oper, lyxml_elem *rpc, bool *ret_changed,
                    reply_error_ptr *ret_error)
{
  *ret_changed = false;
  if (oper.starts_with(OWN_OPERATIONS)) {
    return 0;
  }
  if (security_find_sensitive_in_rpc(oper.c_str(), rpc, SENSITIVE_ENCRYPT, ret_error, ret_changed) != 0) {
    return -1;
  }
  rpc_log(session_id, rpc);
  return 0;
}

// The request's text: as it came, or as its tree says once values in that were encrypted.
int keep_request_text(rpc_oper_context_t *context, std::string_view payload, bool is_changed)
{
  try {
    context->data = is_changed ? lyxml_print_mem(context->rpc.get()) : std::string(payload);
    if (context->data.empty()) {
      log_error("Print the request of session %d failed.", context->session_id);
      return -1;
    }
    return 0;
  } catch (const std::bad_alloc &) {
    log_error("CONF_ERROR_MALLOC_ERR.");
    return -1;
  }
}

// Makes the request the session's own. Its context on success; null when an error was answered.
rpc_oper_context_t *save_request(int session_id, const std::string &oper, std::string_view payload, bool is_changed,
                                 lyxml_ptr rpc)
{
  if (session_save_rpc_context(session_id, std::make_unique<rpc_oper_context_t>()) != 0) {
    log_error("Session save rpc context error, when proc recieve rpc.");
    (void)answer_kind(session_id, rpc.get(), REPLY_ERR_OP_FAILED);
    return nullptr;
  }
  rpc_oper_context_t *context = session_get_rpc_context(session_id);
  context->session_id = session_id;
  context->oper = oper;
  context->rpc = std::move(rpc);
  if (keep_request_text(context, payload, is_changed) != 0) {
    (void)answer_kind(session_id, context->rpc.get(), REPLY_ERR_OP_FAILED); // drops the context
    return nullptr;
  }
  return context;
}

// One subscriber has failed, but a further one has the request and will reply.
bool is_with_further_subscriber(const rpc_oper_context_t &context)
{
  return context.is_chained && context.need_reply_ok != 0;
}

} // namespace

int rpc_recv_proc(int session_id, const msg_head_t *head, std::string_view payload)
{
  encrypt_use one_request;
  g_daemon_counters.requests++;
  lyxml_ptr rpc = lyxml_parse_mem(payload);
  if (rpc == nullptr) {
    return answer_not_xml(session_id, head);
  }
  if (rpc_validate_standard_rpc(rpc.get()) != 0) {
    return answer_invalid_layer(session_id, rpc.get());
  }
  std::string oper = rpc_operation_name(rpc.get());
  if (oper.empty()) {
    return answer_without_name(session_id, rpc.get());
  }
  if (session_check_operation(session_id, oper.c_str()) != 0) {
    return answer_refused(session_id, rpc.get(), oper);
  }
  bool is_changed = false;
  reply_error_ptr error;
  if (protect_and_log(session_id, oper, rpc.get(), &is_changed, &error) != 0) {
    return error == nullptr ? answer_kind(session_id, rpc.get(), REPLY_ERR_OP_FAILED)
                            : rpc_answer_error(session_id, rpc.get(), std::move(error));
  }
  rpc_oper_context_t *context = save_request(session_id, oper, payload, is_changed, std::move(rpc));
  if (context == nullptr) {
    return -1;
  }
  if (broker_check_busy(oper.c_str()) == 1) {
    log_info("Broker is busy, rpc of session (%d) wait for next schedule.", session_id);
    return 0;
  }
  context->is_publishing = 1;
  return rpc_publish_request(session_id);
}

int rpc_publish_request(int session_id)
{
  encrypt_use one_request; // which may have waited for its turn
  if (broker_publish_operation(session_id) == 0) {
    return 0;
  }
  const rpc_oper_context_t *context = session_get_rpc_context(session_id);
  if (context == nullptr) {
    return -1; // answered, which ended the request
  }
  if (!is_with_further_subscriber(*context)) { // then its subscriber has failed without a reply
    (void)answer_kind(session_id, context->rpc.get(), REPLY_ERR_OP_FAILED);
    context = session_get_rpc_context(session_id);
  }
  if (context != nullptr && is_with_further_subscriber(*context)) {
    return 0;
  }
  session_del_rpc_context(session_id);
  return -1;
}

std::string rpc_operation_name(const lyxml_elem *rpc)
{
  if (rpc == nullptr) {
    log_debug("RPC node is null.");
    return {};
  }
  if (rpc->type != XML_ELEMENT_NODE) {
    log_debug("Invalidate rpc node.");
    return {};
  }
  if (lyxml_name(rpc) != "rpc") {
    log_debug("The message is not a rpc(%.64s).", lyxml_name(rpc).data());
    return {};
  }
  const lyxml_elem *operation = lyxml_first_child(rpc);
  if (operation == nullptr) {
    log_debug("There is no operation node in xml document.");
    return {};
  }
  if (lyxml_next(operation) != nullptr) {
    log_warn("RPC has multiple operation nodes.");
    return {};
  }
  std::string ns(lyxml_ns(operation));
  if (ns.empty()) {
    log_warn("RPC operation node does not have namespace.");
    return {};
  }
  std::string name(lyxml_name(operation));
  std::string module = schema_get_module_name(ns);
  if (module.empty()) {
    log_debug("There is no module for namespace <%.512s>.", ns.c_str());
    return name;
  }
  return "/" + module + ":" + name;
}

std::string rpc_get_msgid(const lyxml_elem *rpc)
{
  std::string message_id;
  (void)lyxml_get_attr(rpc, "message-id", &message_id); // stays empty when there is none
  return message_id;
}
