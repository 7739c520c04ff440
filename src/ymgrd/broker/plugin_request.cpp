#include <climits>
#include <optional>

#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/datastore/ds_plugin_data.h"

namespace {

constexpr size_t MAX_NAME_LENGTH = 255;
constexpr size_t MOST_REGISTRATIONS = 10000;

// What a method came to: the markup of its result, or the text of its error.
typedef struct _plugin_answer {
  wiped_string result;
  std::string error;
  void (*afterwards)(plugin_inst_t *plugin) = nullptr; // once the answer is queued
} plugin_answer_t;

int fail(plugin_answer_t *answer, const std::string &error)
{
  answer->error = error;
  return -1;
}

// --- register

// A number or an address: whatever the plugin wants to see again.
std::optional<uint64_t> token_of(const xmlNode *entry)
{
  std::optional<std::string> text = plugin_child_text(entry, "callback");
  uint64_t token = 0;
  if (!text || text->empty()) {
    return std::nullopt;
  }
  for (char c : *text) {
    if (c < '0' || c > '9' || __builtin_mul_overflow(token, 10, &token) ||
        __builtin_add_overflow(token, static_cast<uint64_t>(c - '0'), &token)) {
      return std::nullopt;
    }
  }
  return token;
}

const struct {
  const char *element;
  plugin_registration_kind_t kind;
} entry_kinds[] = {
    {"config-subscribe", PLUGIN_REG_CONFIG},
    {"status-publish", PLUGIN_REG_STATUS},
    {"operate-subscribe", PLUGIN_REG_OPERATE},
};

// 0, or -1 when the entry lacks something.
int read_entry(const xmlNode *entry, plugin_registration_kind_t kind, plugin_registration_t *ret_registration)
{
  plugin_registration_t registration;
  registration.kind = kind;
  registration.path = plugin_child_text(entry, "path").value_or("");
  std::optional<uint64_t> token = token_of(entry);
  if (registration.path.empty() || !token) {
    return -1;
  }
  registration.callback.token = *token;
  if (kind == PLUGIN_REG_CONFIG) {
    std::optional<int64_t> priority = plugin_child_int(entry, "priority", INT_MIN, INT_MAX);
    if (!priority) {
      return -1;
    }
    registration.priority = static_cast<int>(*priority);
  }
  *ret_registration = std::move(registration);
  return 0;
}

int read_entries(const plugin_inst_t &plugin, const xmlNode *params,
                 std::vector<plugin_registration_t> *ret_registrations, std::string *ret_error)
{
  for (const xmlNode *entry = plugin_first_element(params); entry != nullptr; entry = plugin_next_element(entry)) {
    for (const auto &row : entry_kinds) {
      if (std::string_view(reinterpret_cast<const char *>(entry->name)) != row.element) {
        continue;
      }
      plugin_registration_t registration;
      if (read_entry(entry, row.kind, &registration) != 0) {
        log_error("Invalid %s entry.", row.element);
        log_error("Plugin %.512s sent it(path=%.512s).", plugin_label(plugin).c_str(),
                  plugin_child_text(entry, "path").value_or("").c_str());
        *ret_error = std::string("Invalid ") + row.element + " entry.";
        return -1;
      }
      ret_registrations->push_back(std::move(registration));
    }
  }
  if (ret_registrations->size() > MOST_REGISTRATIONS) { // all others wait while they are looked up
    *ret_error = "A plugin has at most " + std::to_string(MOST_REGISTRATIONS) + " subscriptions.";
    return -1;
  }
  return 0;
}

int plugin_register_proc(plugin_inst_t *plugin, const xmlNode *params, plugin_answer_t *answer)
{
  if (!plugin->name.empty()) {
    return fail(answer, "Plugin has been registered");
  }
  std::string name = plugin_child_text(params, "plugin-name").value_or("");
  if (name.empty() || name.size() > MAX_NAME_LENGTH) {
    return fail(answer, "The plugin-name is missing or too long.");
  }
  if (const plugin_inst_t *other = plugin_find_by_name(name)) {
    std::string owner =
        other->local_flag ? "as a local plugin" : "by process " + std::to_string(other->remote.peer_pid);
    log_warn("Plugin %.512s of process %ld is refused: it is already registered %s.", name.c_str(),
             plugin->remote.peer_pid, owner.c_str());
    return fail(answer, "Plugin " + name + " is already registered " + owner + ".");
  }
  std::vector<plugin_registration_t> registrations;
  if (read_entries(*plugin, params, &registrations, &answer->error) != 0) {
    return -1;
  }
  plugin->name = name;
  if (plugin_register(plugin, registrations, &answer->error) != 0) {
    plugin->name.clear(); // may be tried again
    return -1;
  }
  plugin_note_registered(plugin);
  log_info("Plugin register ok(name=%.512s, id=%d).", plugin->name.c_str(), plugin->plugin_id);
  return 0;
}

// --- activate, deactivate

int plugin_activate_proc(plugin_inst_t *plugin, const xmlNode *params, plugin_answer_t *answer)
{
  if (plugin->name.empty()) {
    return fail(answer, "Plugin has not been registered.");
  }
  bool with_cfgr = plugin_child_flag(params, "with-cfgr");
  bool with_smooth = plugin_child_flag(params, "with-smooth");
  plugin->bit_activate = true;
  plugin->bit_ready = false;
  plugin->wants_cfgr = with_cfgr || with_smooth;
  answer->afterwards = with_smooth ? [](plugin_inst_t *self) { plugin_bring_up(self, true, true); }
                                   : [](plugin_inst_t *self) { plugin_bring_up(self, self->wants_cfgr, false); };
  return 0;
}

int plugin_deactivate_proc(plugin_inst_t *plugin, const xmlNode *, plugin_answer_t *answer)
{
  if (!plugin->bit_activate) {
    return fail(answer, "Plugin has been deactivated.");
  }
  // What it was asked before is still waited for.
  plugin->bit_activate = false;
  plugin->bit_ready = false;
  return 0;
}

// --- pull, push, locate

int plugin_pull_proc(plugin_inst_t *plugin, const xmlNode *params, plugin_answer_t *answer)
{
  std::string path = plugin_child_text(params, "path").value_or("");
  ds_moment_t moment = plugin_child_flag(params, "old") ? DS_OLD : DS_NEW;
  if (ds_plugin_pull(path, moment, &answer->result, &answer->error) != 0) {
    log_info("Plugin %.512s pulls %.512s: %.512s", plugin->name.c_str(), path.c_str(), answer->error.c_str());
    return -1;
  }
  return 0;
}

int plugin_push_proc(plugin_inst_t *plugin, const xmlNode *params, plugin_answer_t *answer)
{
  if (context_get_int("OPT-smooth-start", 0) == 1) {
    return fail(answer, "Ymgrd is on SMOOTH_START,Plugin can't write data into redis.");
  }
  std::string path = plugin_child_text(params, "path").value_or("");
  const xmlNode *data = plugin_find_element(params, "data");
  if (data == nullptr) {
    return fail(answer, "There is no data element.");
  }
  if (ds_plugin_push(plugin->plugin_id, path, data, plugin->status_paths, &answer->error) != 0) {
    log_warn("Plugin %.512s pushes %.512s: %.512s", plugin->name.c_str(), path.c_str(), answer->error.c_str());
    return -1;
  }
  return 0;
}

int plugin_locate_proc(plugin_inst_t *plugin, const xmlNode *params, plugin_answer_t *answer)
{
  std::string path = plugin_child_text(params, "path").value_or("");
  std::string index = plugin_child_text(params, "index").value_or("");
  if (index.starts_with('[')) {
    path += index;
  }
  ds_moment_t moment = plugin_child_flag(params, "old") ? DS_OLD : DS_NEW;
  std::string prev;
  std::string next;
  if (ds_plugin_locate(path, moment, &prev, &next, &answer->error) != 0) {
    log_info("Plugin %.512s locates %.512s: %.512s", plugin->name.c_str(), path.c_str(), answer->error.c_str());
    return -1;
  }
  plugin_doc_ptr found = plugin_new_params();
  xmlNode *root = plugin_root_of(found);
  if (root == nullptr || (!prev.empty() && plugin_add_text(root, "prev", prev) == nullptr) ||
      (!next.empty() && plugin_add_text(root, "next", next) == nullptr) ||
      plugin_append_markup(root, &answer->result) != 0) {
    return fail(answer, "There is no memory.");
  }
  return 0;
}

const struct {
  const char *method;
  bool is_for_active;
  int (*proc)(plugin_inst_t *plugin, const xmlNode *params, plugin_answer_t *answer);
} plugin_methods[] = {
    {"register", false, plugin_register_proc},
    {"activate", false, plugin_activate_proc},
    {"deactivate", false, plugin_deactivate_proc},
    {"pull", true, plugin_pull_proc},
    {"push", true, plugin_push_proc},
    {"locate", true, plugin_locate_proc},
};

int process(plugin_inst_t *plugin, const std::string &method, const xmlNode *params, plugin_answer_t *answer)
{
  for (const auto &row : plugin_methods) {
    if (method != row.method) {
      continue;
    }
    if (row.is_for_active && !plugin->bit_activate) {
      return fail(answer, "Plugin has not been activated.");
    }
    return row.proc(plugin, params, answer);
  }
  log_warn("Plugin %.512s send rpc method %.512s is not support.", plugin_label(*plugin).c_str(), method.c_str());
  return fail(answer, "Unsupport method.");
}

// --- Answers. A plugin that can not be answered would wait for ever: it is cut off instead.

void plugin_reply_ok(plugin_inst_t *plugin, uint16_t msg_id, const wiped_string &result)
{
  std::string tail = "</result><id>" + std::to_string(msg_id) + "</id></reply>";
  if (plugin_cache_send(plugin, msg_id, {"<reply><result>", result, tail}) != 0) {
    // Most likely the result is too long for a message.
    plugin_reply_error(plugin, msg_id, -1, "The result is too long for a message.");
  }
}

} // namespace

void plugin_reply_error(plugin_inst_t *plugin, uint16_t msg_id, int code, const std::string &message)
{
  plugin_doc_ptr reply = plugin_build_reply_error(code, message.c_str(), msg_id);
  if (reply == nullptr) { // the text can not be carried
    reply = plugin_build_reply_error(code, "Request failed.", msg_id);
  }
  if (plugin_cache_send(plugin, msg_id, reply) != 0) {
    plugin_cut_off(plugin);
  }
}

void plugin_rpc_dispatch(plugin_inst_t *plugin, const xmlNode *rpc, uint16_t msg_id)
{
  std::string method;
  xmlNode *params = nullptr;
  if (rpc != nullptr && plugin_get_msgid(rpc) != 0) {
    msg_id = static_cast<uint16_t>(plugin_get_msgid(rpc));
  }
  if (plugin_parse_rpc(rpc, &method, &params) != 0 || msg_id == 0) {
    log_error("Parse plugin %.512s's rpc failed.", plugin_label(*plugin).c_str());
    if (msg_id != 0) {
      plugin_reply_error(plugin, msg_id, -1, "Invalid rpc message");
    }
    return;
  }
  plugin_answer_t answer;
  if (process(plugin, method, params, &answer) != 0) {
    plugin_reply_error(plugin, msg_id, -1, answer.error);
    return;
  }
  plugin_reply_ok(plugin, msg_id, answer.result);
  if (answer.afterwards != nullptr) {
    answer.afterwards(plugin);
  }
}
