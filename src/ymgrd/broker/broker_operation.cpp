#include <algorithm>
#include <iterator>

#include "ymgrd/broker/broker_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/counters.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_find.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"

namespace {

// These wait while a publication or a status subscription runs.
constexpr const char *busy_operations[] = {
    "/ietf-netconf:edit-config",     "/ietf-netconf:get",         "/ietf-netconf:get-config",
    "/ietf-netconf:delete-config",   "/ietf-netconf:copy-config", "/ietf-netconf:commit",
    "/ietf-netconf:discard-changes", "/ietf-netconf:lock",        "/ietf-netconf:unlock",
    "/ietf-netconf:validate",
};

// 0, or -1 when the error could not be built.
int answer_error(int session_id, const lyxml_elem *rpc, reply_error_ptr error)
{
  lyxml_ptr reply = rpc_build_reply_error(rpc, std::move(error));
  if (reply == nullptr) {
    log_debug("Build reply-error failed.");
    return -1;
  }
  (void)rpc_send_reply(session_id, reply.get()); // logged there; nobody else could be told
  return 0;
}

// The input in clear, in a copy that is gone before anything else happens: what the session keeps stays encrypted.
// 0, or -1 when an error was answered. The copy stays null when there is nothing to decrypt.
int copy_in_clear(const rpc_oper_context_t &context, lyxml_ptr *ret_copy)
{
  if (!encrypt_has_sensitive()) {
    return 0;
  }
  lyxml_ptr copy = lyxml_copy(context.rpc.get());
  reply_error_ptr error;
  if (copy == nullptr ||
      security_find_sensitive_in_rpc(context.oper.c_str(), copy.get(), SENSITIVE_DECRYPT, &error) != 0) {
    error = error == nullptr ? reply_error_ptr(rpc_create_error(REPLY_ERR_OP_FAILED)) : std::move(error);
    (void)answer_error(context.session_id, context.rpc.get(), std::move(error));
    return -1;
  }
  *ret_copy = std::move(copy);
  return 0;
}

int process_outside(const rpc_oper_context_t &context, const subscriber_t &subscriber)
{
  const std::string oper = context.oper; // the context may end with the delivery
  int session_id = context.session_id;
  lyxml_ptr copy;
  if (copy_in_clear(context, &copy) != 0) {
    return -1;
  }
  lyxml_elem *rpc = copy == nullptr ? context.rpc.get() : copy.get();
  if (broker_hooks().parse_rpc(oper.c_str(), rpc) != 0) {
    log_error("valid user-defined rpc fail.");
    reply_error_ptr error(rpc_create_error(broker_hooks().error_kind(REPLY_ERR_INVALID_VALUE, REPLY_ERR_OP_FAILED)));
    if (error != nullptr) {
      broker_hooks().add_path_and_msg(error.get());
    }
    (void)answer_error(session_id, context.rpc.get(), std::move(error));
    return -1;
  }
  plugin_publish_info_t info = {};
  info.session_id = session_id;
  info.cb_func = subscriber.sub_cb;
  info.operate.input = lyxml_first_child(rpc);
  log_debug("Operation <%.512s> from session %d process outside.", oper.c_str(), session_id);
  int status = SUBPUB_ERROR;
  if (broker_hooks().publish_operate(subscriber.plugin_id, &info, &status) != 0 || status == SUBPUB_ERROR) {
    log_debug("Publish operation from session %d failed.", session_id);
    return -1;
  }
  return 0;
}

int process_inside(const rpc_oper_context_t &context, const subscriber_t &subscriber)
{
  if (subscriber.sub_cb.oper == nullptr) {
    return 0;
  }
  int session_id = context.session_id;
  log_debug("Opertaion <%.512s> from session %d process inside.", context.oper.c_str(), session_id);
  if (subscriber.sub_cb.oper(session_id, context.data.c_str(), context.rpc.get()) != 0) {
    log_debug("Opertaion from session %d process failed.", session_id);
    return -1;
  }
  return 0;
}

// Of a name that somebody has registered: else clients could fill the memory with names.
void count_request(const rpc_oper_context_t &context)
{
  if (context.have_subscriber == 0) {
    g_daemon_counters.operations[context.oper]++;
  }
}

// Offers the request to the first subscriber behind the one that was tried last.
int publish_operation_core(int session_id)
{
  rpc_oper_context_t *context = session_get_rpc_context(session_id);
  if (context == nullptr) {
    log_error("Session rpc context is null, when broker publishing.");
    return -1;
  }
  for (const subscriber_t &candidate : broker_registry().oper_subs) {
    if (candidate.serial <= context->cur_oper_sub) {
      continue;
    }
    context->cur_oper_sub = candidate.serial;
    if (candidate.path != context->oper) {
      continue;
    }
    count_request(*context);
    context->need_reply_ok++;
    context->have_subscriber = 1;
    const subscriber_t subscriber = candidate; // may be unregistered by what it does
    int result =
        subscriber.plugin_id != 0 ? process_outside(*context, subscriber) : process_inside(*context, subscriber);
    if (result != 0) {
      return -1;
    }
    break;
  }
  context = session_get_rpc_context(session_id);
  if (context == nullptr || context->have_subscriber != 0) {
    return 0;
  }
  log_info("There is no subscriber for operation <%.512s>.", context->oper.c_str());
  return answer_error(session_id, context->rpc.get(), reply_error_ptr(rpc_create_error(REPLY_ERR_OP_NOT_SUPPORTED)));
}

} // namespace

int broker_publish_operation(int session_id)
{
  rpc_oper_context_t *context = session_get_rpc_context(session_id);
  if (context != nullptr) {
    context->cur_oper_sub = 0;
  }
  if (publish_operation_core(session_id) != 0) {
    log_error("Broker publish operation core error.");
    return -1;
  }
  return 0;
}

int broker_publish_operation_next(int session_id)
{
  if (session_get_rpc_context(session_id) == nullptr) {
    log_error("Session rpc context is null, when broker publishing next operation.");
    return -1;
  }
  if (publish_operation_core(session_id) != 0) {
    log_error("broker publish operation next error.");
    return -1;
  }
  return 0;
}

int broker_check_busy(const char *oper)
{
  if (oper == nullptr || (context_get_option(BROKER_PUBLISH_OPTION) == nullptr &&
                          context_get_option(BROKER_SUBSCRIBE_OPTION) == nullptr)) {
    return 0;
  }
  return std::any_of(std::begin(busy_operations), std::end(busy_operations),
                     [oper](std::string_view name) { return name == oper; })
             ? 1
             : 0;
}
