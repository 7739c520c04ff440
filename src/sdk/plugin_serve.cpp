// Requests of the daemon and their answers, and the daemon's data on request.
#include <cerrno>
#include <climits>
#include <cstring>

#include <poll.h>

#include "sdk/plugin_connection.h"

namespace {

// --- Answers.

void send_error(ymgr_plugin_t *plugin, uint16_t id, const sdk_refusal_t &refusal)
{
  plugin_doc_ptr reply = plugin_build_reply_error(refusal.code, refusal.message.c_str(), id);
  if (reply == nullptr) { // the plugin's text may hold what XML can not carry
    reply = plugin_build_reply_error(refusal.code, "The plugin's message can not be sent.", id);
  }
  if (reply == nullptr || sdk_connection_send(plugin, reply, id) != 0) {
    sdk_connection_drop(plugin, "memory is short"); // a request without an answer would hold the daemon up
  }
}

// 0; -1 after an error was sent instead, with the error set.
int send_result(ymgr_plugin_t *plugin, uint16_t id, std::string_view data)
{
  plugin_doc_ptr reply = plugin_build_reply_ok(id);
  if (reply == nullptr) {
    (void)sdk_fail_memory(plugin);
  } else if (!data.empty() && plugin_add_markup(plugin_result_of(reply), data) != 0) {
    (void)sdk_fail(plugin, "The plugin's data is not well-formed.");
  } else if (sdk_connection_send(plugin, reply, id) == 0) {
    return 0;
  }
  std::string reason = plugin->error;
  sdk_log(plugin, SDK_LOG_ERROR, "%s", reason.c_str());
  send_error(plugin, id, {SDK_GENERAL_ERROR, reason});
  plugin->error = std::move(reason);
  return -1;
}

// Answers the request whose callback has returned, unless that is put off or nobody waits any more.
void answer_served(ymgr_plugin_t *plugin, int result, std::string_view data)
{
  sdk_connection_t *connection = plugin->connection.get();
  uint16_t id = connection->serving_id;
  connection->serving_id = 0;
  if (id == 0 && result != 0) {
    id = connection->deferral.request_id; // put off, and refused all the same; 0 when it is answered or lost
    connection->deferral = {};
  }
  if (id == 0) {
    return;
  }
  if (result != 0) {
    send_error(plugin, id, *plugin->refusal);
  } else {
    (void)send_result(plugin, id, data); // says itself what is wrong
  }
}

// --- Requests.

// What arrived is no valid request: a text for the answer.
using fault_t = const char *;
constexpr fault_t NO_FAULT = nullptr;

const sdk_registration_t *find_registration(const ymgr_plugin_t *plugin, const xmlNode *params, sdk_kind kind)
{
  std::optional<int64_t> number =
      plugin_child_int(params, "callback", 1, static_cast<int64_t>(plugin->registrations.size()));
  if (!number) {
    return nullptr;
  }
  const sdk_registration_t &registration = plugin->registrations[static_cast<size_t>(*number) - 1];
  return registration.kind == kind ? &registration : nullptr;
}

fault_t serve_config(ymgr_plugin_t *plugin, const xmlNode *params)
{
  const sdk_registration_t *registration = find_registration(plugin, params, sdk_kind::config);
  const xmlNode *info = plugin_find_element(params, "info");
  std::optional<int64_t> session_id = plugin_child_int(params, "session-id", INT_MIN, INT_MAX);
  std::optional<int64_t> oper_type = plugin_child_int(info, "oper-type", 0, INT_MAX);
  std::optional<int64_t> priority = plugin_child_int(info, "priority", INT_MIN, INT_MAX);
  std::optional<int64_t> more = plugin_child_int(info, "more-flag", INT_MIN, INT_MAX);
  std::optional<std::string> path = plugin_child_text(info, "path");
  if (registration == nullptr || !session_id || !oper_type || !priority || !more || !path) {
    return "Invalid publication of a change.";
  }
  ymgr_change_t change = {static_cast<int>(*session_id), static_cast<int>(*oper_type), static_cast<int>(*priority),
                          static_cast<int>(*more), path->c_str()};
  answer_served(plugin, sdk_call_config(plugin, *registration, change), {});
  return NO_FAULT;
}

fault_t serve_rpc(ymgr_plugin_t *plugin, const xmlNode *params)
{
  const sdk_registration_t *registration = find_registration(plugin, params, sdk_kind::rpc);
  const xmlNode *info = plugin_find_element(params, "info");
  std::optional<int64_t> session_id = plugin_child_int(params, "session-id", INT_MIN, INT_MAX);
  wiped_string input;
  if (registration == nullptr || !session_id || plugin_first_element(info) == nullptr ||
      plugin_append_markup(info, &input) != 0) {
    return "Invalid publication of an operation.";
  }
  sdk_text_ptr output;
  int result = sdk_call_rpc(plugin, *registration, static_cast<int>(*session_id), input.c_str(), &output);
  answer_served(plugin, result, output == nullptr ? std::string_view() : output.get());
  return NO_FAULT;
}

fault_t serve_publish(ymgr_plugin_t *plugin, const xmlNode *params)
{
  std::optional<std::string> type = plugin_child_text(params, "type");
  sdk_connection_t *connection = plugin->connection.get();
  if (type == "config") {
    connection->serving_kind = sdk_kind::config;
    return serve_config(plugin, params);
  }
  if (type == "operate") {
    connection->serving_kind = sdk_kind::rpc;
    return serve_rpc(plugin, params);
  }
  return "Unknown type of publication.";
}

fault_t serve_subscribe(ymgr_plugin_t *plugin, const xmlNode *params)
{
  const sdk_registration_t *registration = find_registration(plugin, params, sdk_kind::status);
  std::optional<std::string> path = plugin_child_text(params, "path");
  if (registration == nullptr || !path) {
    return "Invalid subscription of state data.";
  }
  plugin->connection->serving_kind = sdk_kind::status;
  sdk_text_ptr data;
  int result = sdk_call_status(plugin, *registration, path->c_str(), &data);
  answer_served(plugin, result, data == nullptr ? std::string_view() : data.get());
  return NO_FAULT;
}

fault_t serve_kickoff(ymgr_plugin_t *plugin, const xmlNode *)
{
  plugin->is_ready = true;
  plugin->connection->was_ready = true;
  sdk_call_ready(plugin);
  answer_served(plugin, 0, {});
  return NO_FAULT;
}

typedef struct _sdk_method {
  const char *name;
  fault_t (*serve)(ymgr_plugin_t *plugin, const xmlNode *params);
} sdk_method_t;

constexpr sdk_method_t METHODS[] = {
    {"publish", serve_publish},
    {"subscribe", serve_subscribe},
    {"kickoff", serve_kickoff},
};

fault_t serve(ymgr_plugin_t *plugin, const xmlNode *request)
{
  std::string method;
  xmlNode *params = nullptr;
  if (plugin_parse_rpc(request, &method, &params) != 0) {
    return "Invalid message.";
  }
  for (const sdk_method_t &known : METHODS) {
    if (method == known.name) {
      return known.serve(plugin, params);
    }
  }
  return "Unknown method.";
}

void serve_request(ymgr_plugin_t *plugin, const plugin_doc_ptr &request)
{
  sdk_connection_t *connection = plugin->connection.get();
  int id = plugin_get_msgid(plugin_root_of(request));
  if (id == 0) {
    sdk_connection_drop(plugin, "a request has no id");
    return;
  }
  // The daemon waits for one answer at a time: it has given up an older one.
  connection->deferral = {};
  connection->serving_id = static_cast<uint16_t>(id);
  fault_t fault = serve(plugin, plugin_root_of(request));
  if (fault != NO_FAULT) {
    sdk_log(plugin, SDK_LOG_ERROR, "Request %d of the daemon is refused: %s", id, fault);
    connection->serving_id = 0;
    send_error(plugin, static_cast<uint16_t>(id), {SDK_GENERAL_ERROR, fault});
  }
}

int process(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  if (plugin->is_in_callback) {
    return 0; // callbacks run one after the other
  }
  plugin->is_sealed = true;
  try {
    if (sdk_connection_step(plugin) != 0) {
      return -1;
    }
    while (!connection->requests.empty()) {
      plugin_doc_ptr request = std::move(connection->requests.front());
      connection->requests.pop_front();
      serve_request(plugin, request);
    }
    return 0;
  } catch (const std::bad_alloc &) {
    // Which request was left without an answer is not known: the daemon starts over with a new connection.
    sdk_connection_drop(plugin, "memory is short");
    return 0;
  }
}

int run(ymgr_plugin_t *plugin)
{
  sdk_connection_t *connection = plugin->connection.get();
  while (!connection->is_stopping.exchange(false)) {
    if (process(plugin) != 0) {
      return -1;
    }
    pollfd event = {connection->epoll.get(), POLLIN, 0};
    if (poll(&event, 1, -1) < 0 && errno != EINTR) {
      return sdk_fail(plugin, "Waiting for the daemon failed(%s).", std::strerror(errno));
    }
  }
  return 0;
}

// The request that was put off under that number. 0 with its id, and it is answered now; -1 with the error set.
int take_deferral(ymgr_plugin_t *plugin, int number, sdk_deferral_t *ret_deferral)
{
  sdk_deferral_t *deferral = &plugin->connection->deferral;
  if (number <= 0 || deferral->number != number) {
    return sdk_fail(plugin, "The daemon does not wait for the answer %d any more.", number);
  }
  *ret_deferral = *deferral;
  *deferral = {};
  return 0;
}

// Adds what names a node in a request for data.
plugin_doc_ptr new_data_params(const char *path, ymgr_moment_t moment)
{
  plugin_doc_ptr params = plugin_new_params();
  xmlNode *root = plugin_root_of(params);
  if (root == nullptr || plugin_add_text(root, "path", path) == nullptr ||
      plugin_add_int(root, "old", moment == YMGR_OLD ? 1 : 0) == nullptr) {
    return nullptr;
  }
  return params;
}

int ask_for_data(ymgr_plugin_t *plugin, const char *method, const char *path, ymgr_moment_t moment,
                 plugin_doc_ptr *ret_reply, xmlNode **ret_result)
{
  plugin_doc_ptr params = new_data_params(path, moment);
  if (params == nullptr) {
    return sdk_fail(plugin, "The path can not be sent.");
  }
  return sdk_connection_ask(plugin, method, std::move(params), ret_reply, ret_result);
}

// Null when there is no such element.
int copy_child_text(ymgr_plugin_t *plugin, const xmlNode *parent, const char *name, sdk_text_ptr *ret_text)
{
  std::optional<std::string> text = plugin_child_text(parent, name);
  if (!text) {
    ret_text->reset();
    return 0;
  }
  ret_text->reset(sdk_copy_text(*text));
  return *ret_text == nullptr ? sdk_fail_memory(plugin) : 0;
}

} // namespace

int sdk_pull_tree(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, plugin_doc_ptr *ret_message,
                  xmlNode **ret_parent)
{
  return ask_for_data(plugin, "pull", path, moment, ret_message, ret_parent);
}

int sdk_pull_text(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_xml)
{
  plugin_doc_ptr reply;
  xmlNode *result = nullptr;
  if (ask_for_data(plugin, "pull", path, moment, &reply, &result) != 0) {
    return -1;
  }
  wiped_string text;
  char *copy = plugin_append_markup(result, &text) == 0 ? sdk_copy_text(text) : nullptr;
  if (copy == nullptr) {
    return sdk_fail_memory(plugin);
  }
  *ret_xml = copy;
  return 0;
}

int sdk_locate(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, sdk_text_ptr *ret_prev,
               sdk_text_ptr *ret_next)
{
  plugin_doc_ptr reply;
  xmlNode *result = nullptr;
  if (ask_for_data(plugin, "locate", path, moment, &reply, &result) != 0) {
    return -1;
  }
  return copy_child_text(plugin, result, "prev", ret_prev) == 0 ? copy_child_text(plugin, result, "next", ret_next)
                                                                : -1;
}

int sdk_push(ymgr_plugin_t *plugin, const char *path, const char *xml)
{
  plugin_doc_ptr params = plugin_new_params();
  xmlNode *root = plugin_root_of(params);
  xmlNode *data = nullptr;
  if (root == nullptr || plugin_add_text(root, "path", path) == nullptr ||
      (data = plugin_add_text(root, "data", "")) == nullptr) {
    return sdk_fail(plugin, "The path can not be sent.");
  }
  if (*xml != '\0' && plugin_add_markup(data, xml) != 0) {
    return sdk_fail(plugin, "The data is not well-formed.");
  }
  plugin_doc_ptr reply;
  xmlNode *result = nullptr;
  return sdk_connection_ask(plugin, "push", std::move(params), &reply, &result);
}

int ymgr_plugin_process(ymgr_plugin_t *plugin)
{
  return sdk_guard(plugin, [&] { return process(plugin); });
}

int ymgr_plugin_run(ymgr_plugin_t *plugin)
{
  return sdk_guard(plugin, [&] { return run(plugin); });
}

int ymgr_plugin_defer(ymgr_plugin_t *plugin)
{
  return sdk_guard(plugin, [&] {
    sdk_connection_t *connection = plugin->connection.get();
    if (!plugin->is_in_callback || connection->serving_id == 0) {
      return sdk_fail(plugin, "No request is waited for that could be put off.");
    }
    connection->last_deferral = connection->last_deferral == INT_MAX ? 1 : connection->last_deferral + 1;
    connection->deferral = {connection->last_deferral, connection->serving_id, connection->serving_kind};
    connection->serving_id = 0;
    return connection->last_deferral;
  });
}

int ymgr_plugin_answer(ymgr_plugin_t *plugin, int request, const char *data)
{
  return sdk_guard(plugin, [&] {
    sdk_deferral_t deferral;
    if (take_deferral(plugin, request, &deferral) != 0) {
      return -1;
    }
    // A change has no output.
    bool has_data = data != nullptr && deferral.kind != sdk_kind::config;
    return send_result(plugin, deferral.request_id, has_data ? data : "");
  });
}

int ymgr_plugin_answer_error(ymgr_plugin_t *plugin, int request, int code, const char *message)
{
  return sdk_guard(plugin, [&] {
    sdk_deferral_t deferral;
    if (take_deferral(plugin, request, &deferral) != 0) {
      return -1;
    }
    send_error(plugin, deferral.request_id, {code, message == nullptr ? "" : message});
    return 0;
  });
}
