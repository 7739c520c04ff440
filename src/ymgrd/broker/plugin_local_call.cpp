// The calls between the daemon and its local plugins, in both directions. No exception reaches a plugin.
#include <cstdlib>
#include <cstring>
#include <exception>

#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/datastore/ds_plugin_data.h"

namespace {

// What the running call of a plugin has said so far.
typedef struct _local_call {
  plugin_inst_t *plugin = nullptr;
  int session_id = 0;    // of a running rpc callback, else 0
  const char *path = ""; // what it was called for
  int code = -1;
  std::string message = {}; // why it will refuse
  wiped_string output = {}; // of a running rpc callback
} local_call_t;

local_call_t *running_call = nullptr;

// While it lives, what the daemon's functions are told is the plugin's.
class call_scope {
public:
  explicit call_scope(local_call_t *call) : outer_(running_call) { running_call = call; }
  call_scope(const call_scope &) = delete;
  call_scope &operator=(const call_scope &) = delete;
  ~call_scope() { running_call = outer_; }

private:
  local_call_t *outer_;
};

// Plugins free it with free(). Null when memory is short.
char *c_copy(std::string_view text)
{
  char *copy = static_cast<char *>(std::malloc(text.size() + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
  }
  return copy;
}

int refuse(const char *what, const char *path, const std::string &reason)
{
  log_warn("Plugin %.512s %s %.512s: %.512s", running_call == nullptr ? "?" : running_call->plugin->name.c_str(), what,
           path, reason.c_str());
  return -1;
}

// Runs what a plugin asked for. Its result, or -1.
template <class WORK>
int guarded(const char *what, const char *path, WORK work)
{
  if (path == nullptr) {
    return refuse(what, "(null)", "there is no path");
  }
  if (running_call == nullptr) {
    return refuse(what, path, "it is not being called");
  }
  try {
    return work();
  } catch (const std::exception &error) {
    return refuse(what, path, error.what());
  }
}

ds_moment_t moment_of(int old)
{
  return old == 0 ? DS_NEW : DS_OLD;
}

int local_locate(const char *path, int old, char **ret_prev, char **ret_next)
{
  return guarded("locates", path, [&] {
    std::string prev;
    std::string next;
    std::string reason;
    if (ds_plugin_locate(path, moment_of(old), &prev, &next, &reason) != 0) {
      return refuse("locates", path, reason);
    }
    c_string_ptr prev_text(prev.empty() ? nullptr : c_copy(prev));
    c_string_ptr next_text(next.empty() ? nullptr : c_copy(next));
    if ((prev_text == nullptr) != prev.empty() || (next_text == nullptr) != next.empty()) {
      return -1;
    }
    *ret_prev = prev_text.release(); // the plugin's
    *ret_next = next_text.release();
    return 0;
  });
}

int local_pull(const char *path, int old, char **ret_xml)
{
  return guarded("pulls", path, [&] {
    wiped_string text;
    std::string reason;
    if (ds_plugin_pull(path, moment_of(old), &text, &reason) != 0) {
      return refuse("pulls", path, reason);
    }
    char *copy = c_copy(text);
    if (copy == nullptr) {
      return -1;
    }
    *ret_xml = copy;
    return 0;
  });
}

int local_push(const char *path, const char *xml)
{
  return guarded("pushes", path, [&] {
    if (context_get_int("OPT-smooth-start", 0) == 1) {
      return refuse("pushes", path, "Ymgrd is on SMOOTH_START,Plugin can't write data into redis");
    }
    const plugin_inst_t &plugin = *running_call->plugin;
    plugin_doc_ptr data = plugin_new_params();
    std::string reason;
    if (data == nullptr || plugin_add_markup(plugin_root_of(data), xml == nullptr ? "" : xml) != 0) {
      return refuse("pushes", path, "the data is no XML");
    }
    if (ds_plugin_push(plugin.plugin_id, path, plugin_root_of(data), plugin.status_paths, &reason) != 0) {
      return refuse("pushes", path, reason);
    }
    return 0;
  });
}

int local_error(int code, const char *message)
{
  return guarded("refuses", running_call == nullptr ? "" : running_call->path, [&] {
    running_call->code = code;
    running_call->message = message == nullptr ? "" : message;
    return 0;
  });
}

int local_reply(int session_id, const char *output)
{
  return guarded("replies to", running_call == nullptr ? "" : running_call->path, [&] {
    if (running_call->session_id == 0 || running_call->session_id != session_id) {
      return refuse("replies to", running_call->path, "this session has asked for nothing");
    }
    running_call->output = output == nullptr ? "" : output;
    return 0;
  });
}

const ymgrd_plugin_callback_t daemon_functions = {
    local_locate, local_pull, local_push, local_error, local_reply,
};

std::string error_text(const local_call_t &call)
{
  return call.message.empty() ? "No error information" : call.message;
}

// The elements that a plugin gave, below a root. Null when they are no XML.
plugin_doc_ptr parse_elements(std::string_view markup)
{
  plugin_doc_ptr doc = plugin_new_params();
  return doc == nullptr || plugin_add_markup(plugin_root_of(doc), markup) != 0 ? nullptr : std::move(doc);
}

} // namespace

int plugin_local_install(plugin_inst_t *plugin)
{
  local_call_t call = {.plugin = plugin};
  call_scope scope(&call);
  const plugin_local_t &local = plugin->local;
  if ((local.callback != nullptr && local.callback(&daemon_functions) != 0) ||
      (local.install != nullptr && local.install() != 0)) {
    log_error("Plugin <%.512s> initialize failed.", plugin->name.c_str());
    return -1;
  }
  plugin->local.is_installed = true;
  return 0;
}

void plugin_local_uninstall(plugin_inst_t *plugin)
{
  if (!plugin->local.is_installed) {
    return;
  }
  local_call_t call = {.plugin = plugin};
  call_scope scope(&call);
  plugin->local.is_installed = false;
  if (plugin->local.uninstall != nullptr) {
    plugin->local.uninstall();
  }
}

void plugin_local_config(plugin_inst_t *plugin, const plugin_publish_info_t &info, int *status)
{
  const auto &item = info.config;
  local_call_t call = {.plugin = plugin, .path = item.path};
  int result = 0;
  {
    call_scope scope(&call);
    // The flag stands before the priority here, unlike in the record.
    result = info.cb_func.config(info.session_id, item.oper_type, item.more_flag, item.priority, item.path);
  }
  plugin->history.offered++;
  if (result == 0) {
    *status = SUBPUB_CONTINUE;
    return;
  }
  plugin->history.refused++;
  plugin_note_error(plugin, error_text(call));
  (void)broker_save_error(call.code, error_text(call).c_str()); // logged there
}

void plugin_local_operate(plugin_inst_t *plugin, const plugin_publish_info_t &info, const std::string &oper)
{
  plugin_operation_t operation = {info.session_id, oper, plugin->name};
  if (!plugin->bit_ready) {
    log_info("Plugin %.512s is busy or not ready so ignore operate-publish.", plugin->name.c_str());
    plugin_nbi_error(operation, -1, "Plugin is busy or not ready so ignore operate-publish.");
    return;
  }
  wiped_string input;
  if (plugin_append_markup(info.operate.input->parent, &input) != 0) {
    plugin_nbi_error(operation, -1, "The operation can not be handed to plugin " + plugin->name);
    return;
  }
  local_call_t call = {.plugin = plugin, .session_id = info.session_id, .path = oper.c_str()};
  int result = 0;
  {
    call_scope scope(&call);
    result = reinterpret_cast<ymgr_local_rpc_fn>(info.cb_func.token)(info.session_id, input.c_str());
  }
  if (result != 0) {
    plugin_nbi_error(operation, call.code, error_text(call));
    return;
  }
  plugin_doc_ptr output = parse_elements(call.output);
  if (output == nullptr) {
    plugin_nbi_error(operation, -1, "Plugin " + plugin->name + " gave a wrong output: it is no XML");
    return;
  }
  plugin_nbi_reply(operation, plugin_root_of(output));
}

void plugin_local_status(plugin_inst_t *plugin, const plugin_subscibe_info_t &info)
{
  local_call_t call = {.plugin = plugin, .path = info.path};
  char *text = nullptr;
  int result = 0;
  {
    call_scope scope(&call);
    result = reinterpret_cast<ymgr_local_status_fn>(info.cb_func.token)(info.session_id, info.path, &text);
  }
  c_string_ptr owned(text);
  if (result != 0) {
    log_warn("Plugin %.512s gives no state data of %.512s(%d: %.512s).", plugin->name.c_str(), info.path, call.code,
             error_text(call).c_str());
    plugin_note_error(plugin, error_text(call));
    return;
  }
  plugin_doc_ptr data = parse_elements(text == nullptr ? "" : text);
  if (data == nullptr) {
    log_warn("State data of %.512s from plugin %.512s is left out: it is no XML.", info.path, plugin->name.c_str());
    return;
  }
  plugin_status_reply(plugin->name, info.path, plugin_root_of(data));
}
