#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/sealed_text.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/ds_plugin_data.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr const char NO_ERROR_TEXT[] = "No error information";

// What a reply says: its result (null for an error), or the error's code and text.
typedef struct _plugin_outcome {
  const xmlNode *result = nullptr;
  int code = -1;
  std::string message;
} plugin_outcome_t;

plugin_outcome_t read_outcome(const xmlNode *reply)
{
  plugin_outcome_t outcome;
  xmlNode *result = nullptr;
  xmlNode *error = nullptr;
  if (plugin_parse_reply(reply, &result, &error) != 0) {
    outcome.message = "The reply is invalid.";
    return outcome;
  }
  outcome.result = result;
  if (error != nullptr) {
    outcome.code = plugin_get_reply_errcode(error);
    outcome.message = plugin_get_reply_errmsg(error);
  }
  if (outcome.message.empty()) {
    outcome.message = NO_ERROR_TEXT;
  }
  return outcome;
}

void finish_kickoff(plugin_inst_t *plugin, const plugin_outcome_t &outcome)
{
  if (outcome.result != nullptr) {
    plugin->bit_ready = true;
    log_info("Plugin %.512s is ready.", plugin->name.c_str());
    if (context_get_int("OPT-smooth-start", 0) != 1) {        // whose end notes all that have come
      (void)database_save_plugins(plugin_names_up_to_date()); // logged there; the next publication does it, too
    }
  } else {
    log_warn("Plugin %.512s kickoff failed(%d: %.512s).", plugin->name.c_str(), outcome.code, outcome.message.c_str());
    plugin_note_error(plugin, outcome.message);
  }
}

void finish_publish(plugin_inst_t *plugin, const plugin_outcome_t &outcome)
{
  if (outcome.result == nullptr) {
    plugin_change_failed(plugin, outcome.code, outcome.message);
  }
  plugin_resume_publication(plugin);
}

void finish_operation(plugin_inst_t *plugin, const plugin_outcome_t &outcome)
{
  plugin_operation_t operation = plugin_take_operation(plugin);
  if (outcome.result != nullptr) {
    plugin_nbi_reply(operation, outcome.result);
  } else {
    plugin_nbi_error(operation, outcome.code, outcome.message);
  }
}

void finish_status(plugin_inst_t *plugin, const plugin_outcome_t &outcome)
{
  if (outcome.result != nullptr) {
    plugin_status_reply(plugin->name, plugin->sub_path, outcome.result);
  } else {
    log_warn("Plugin %.512s gives no state data of %.512s(%d: %.512s).", plugin->name.c_str(), plugin->sub_path.c_str(),
             outcome.code, outcome.message.c_str());
    plugin_note_error(plugin, outcome.message);
  }
  broker_subscribe_continue(plugin->plugin_id);
}

const struct {
  plugin_request_kind_t kind;
  void (*finish)(plugin_inst_t *plugin, const plugin_outcome_t &outcome);
} finish_rows[] = {
    {PLUGIN_KICKOFF, finish_kickoff},
    {PLUGIN_PUB_CONFIG, finish_publish},
    {PLUGIN_PUB_OPER, finish_operation},
    {PLUGIN_SUB_STATUS, finish_status},
};

// The request that the operation came with; null (logged) when the session has ended.
const lyxml_elem *request_of(const plugin_operation_t &operation)
{
  const rpc_oper_context_t *context =
      operation.session_id == 0 ? nullptr : session_get_rpc_context(operation.session_id);
  if (context == nullptr) {
    log_debug("Nobody waits for the end of %.512s in plugin %.512s.", operation.oper.c_str(),
              operation.plugin_name.c_str());
    return nullptr;
  }
  return context->rpc.get();
}

reply_error_ptr make_error(const plugin_operation_t &operation, int code, const std::string &message)
{
  reply_error_ptr error = rpc_make_error(REPLY_ERR_OP_FAILED, message);
  std::string info = "Error on operation " + operation.oper + " (plugin " + operation.plugin_name + ")";
  if (error != nullptr) { // what is missing for want of memory is only an addition
    (void)rpc_set_error_field(error.get(), REPLY_ERR_FIELD_APPTAG, std::to_string(code).c_str());
    (void)rpc_set_error_field(error.get(), REPLY_ERR_FIELD_PATH, operation.oper.c_str());
    (void)rpc_set_error_field(error.get(), REPLY_ERR_FIELD_INFO, info.c_str());
  }
  return error;
}

} // namespace

void plugin_reply_dispatch(plugin_inst_t *plugin, const xmlNode *reply, uint16_t msg_id)
{
  int id = plugin_get_msgid(reply) != 0 ? plugin_get_msgid(reply) : msg_id;
  plugin_request_kind_t kind = plugin->remote.awaited;
  if (kind == PLUGIN_NO_REQUEST || id != plugin->remote.reply_id) {
    log_warn("Plugin %.512s's reply-ok is timeout or error.", plugin_label(*plugin).c_str());
    return;
  }
  plugin_outcome_t outcome = read_outcome(reply);
  plugin_end_request(plugin);
  for (const auto &row : finish_rows) {
    if (row.kind == kind) {
      row.finish(plugin, outcome);
      return;
    }
  }
}

void plugin_resume_publication(plugin_inst_t *plugin)
{
  if ((plugin->pub_oper_type & CONFIG_OP_CFGR) != 0) {
    (void)broker_plugin_cfgr(plugin); // logged there
  } else if ((plugin->pub_oper_type & CONFIG_OP_SMOOTH) != 0) {
    (void)broker_plugin_smooth_start(plugin); // logged there
  } else {
    broker_publish_continue(plugin->plugin_id);
  }
}

void plugin_change_failed(plugin_inst_t *plugin, int code, const std::string &text)
{
  plugin->history.refused++;
  plugin_note_error(plugin, text);
  if ((plugin->pub_oper_type & CONFIG_OP_ROLLBACK) != 0) {
    log_warn("Config rollback failed on %.512s.", plugin->pub_path.c_str());
  }
  (void)broker_save_error(code, text.c_str()); // logged there
}

plugin_operation_t plugin_take_operation(plugin_inst_t *plugin)
{
  plugin_operation_t operation = {plugin->session_id, std::move(plugin->oper), plugin->name};
  plugin->session_id = 0;
  plugin->oper.clear();
  return operation;
}

void plugin_nbi_reply(const plugin_operation_t &operation, const xmlNode *result)
{
  const lyxml_elem *rpc = request_of(operation);
  if (rpc == nullptr) {
    return;
  }
  wiped_string output;
  std::string reason;
  if (ds_plugin_check_output(operation.oper, result, &output, &reason) != 0) {
    plugin_nbi_error(operation, -1, "Plugin " + operation.plugin_name + " gave a wrong output: " + reason);
    return;
  }
  if (output.empty()) {
    (void)rpc_answer_ok(operation.session_id, rpc); // logged there
    return;
  }
  lyxml_ptr reply = rpc_build_reply(rpc);
  if (reply != nullptr && sealed_text_is_in(output)) {                    // no XML until it is opened
    (void)rpc_send_data_reply(operation.session_id, reply.get(), output); // logged there
    return;
  }
  if (reply == nullptr || plugin_add_markup(reply.get(), output) != 0) {
    plugin_nbi_error(operation, -1, "The output of plugin " + operation.plugin_name + " can not be sent");
    return;
  }
  (void)rpc_send_reply(operation.session_id, reply.get()); // logged there
}

void plugin_nbi_error(const plugin_operation_t &operation, int code, const std::string &message)
{
  log_warn("Operation %.512s of session %d failed in plugin %.512s(%d: %.512s).", operation.oper.c_str(),
           operation.session_id, operation.plugin_name.c_str(), code, message.c_str());
  if (const lyxml_elem *rpc = request_of(operation)) {
    (void)rpc_answer_error(operation.session_id, rpc, make_error(operation, code, message)); // logged there
  }
}

void plugin_status_reply(const std::string &name, const std::string &path, const xmlNode *data)
{
  std::string reason;
  if (ds_plugin_set_status(path, data, &reason) != 0) {
    log_warn("State data of %.512s from plugin %.512s is left out: %.512s", path.c_str(), name.c_str(), reason.c_str());
  }
}
