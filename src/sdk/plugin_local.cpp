// A plugin inside the daemon's process: the daemon's functions in place of the socket, and the entry points that the
// plugin's profile names.
#include <algorithm>
#include <climits>

#include "libconf/plugin_path.h"
#include "sdk/plugin_internal.h"

#define YMGR_ENTRY_POINT extern "C" __attribute__((visibility("default")))

namespace {

struct plugin_delete_t {
  void operator()(ymgr_plugin_t *plugin) const { ymgr_plugin_free(plugin); }
};

// One plugin for each shared object, from its initialisation until it is uninstalled.
std::unique_ptr<ymgr_plugin_t, plugin_delete_t> local_plugin;
ymgrd_plugin_callback_t daemon_functions = {};

int check_loaded(ymgr_plugin_t *plugin)
{
  return daemon_functions.conf_plugin_pull == nullptr ? sdk_fail(plugin, "The daemon has not loaded this plugin.") : 0;
}

// --- Which registration is meant.

enum class cover { at_or_below, exactly };

// How well `fuller` covers `data`: how many of its steps have to be left out, its last one excepted, until it is the
// beginning of `data` (all of it). Names of choices and cases stand in one of two paths of a node and not in the other.
// Nothing when it does not cover.
typedef struct _fit {
  int left_out = INT_MAX;
  size_t length = 0; // of the beginning
} fit_t;

bool is_better(const fit_t &one, const fit_t &other)
{
  return one.left_out != other.left_out ? one.left_out < other.left_out : one.length > other.length;
}

fit_t fit_of(const std::vector<sdk_path_step_t> &fuller, const std::vector<sdk_path_step_t> &data, cover mode)
{
  // least[n]: steps left out so far when the first n of `data` are found. A greedy search would not do: a choice may
  // have the name of a node in it.
  std::vector<int> least(data.size() + 1, INT_MAX);
  least[0] = 0;
  fit_t best;
  for (size_t at = 0; at < fuller.size(); at++) {
    bool is_last = at + 1 == fuller.size();
    for (size_t found = data.size() + 1; found-- > 0;) {
      bool is_found = found > 0 && least[found - 1] != INT_MAX && fuller[at] == data[found - 1];
      int when_found = is_found ? least[found - 1] : INT_MAX;
      int when_left_out = is_last || least[found] == INT_MAX ? INT_MAX : least[found] + 1;
      least[found] = std::min(when_found, when_left_out);
    }
  }
  for (size_t found = mode == cover::exactly ? data.size() : 0; found <= data.size(); found++) {
    fit_t fit = {least[found], found};
    if (fit.left_out != INT_MAX && is_better(fit, best)) {
      best = fit;
    }
  }
  return best;
}

// Fewest steps left out first: where nothing has to be, the path covers the node for sure. Then the longest path.
const sdk_registration_t *find_config(const ymgr_plugin_t *plugin, const char *path, int priority)
{
  std::string std_path = plugin_path_schema2std(path).value_or("");
  std::vector<sdk_path_step_t> node = sdk_path_steps(std_path);
  const sdk_registration_t *found = nullptr;
  fit_t best;
  for (const sdk_registration_t &registration : plugin->registrations) {
    if (registration.kind != sdk_kind::config || registration.priority != priority) {
      continue;
    }
    fit_t fit = fit_of(sdk_path_steps(registration.path), node, cover::at_or_below);
    if (is_better(fit, best)) {
      best = fit;
      found = &registration;
    }
  }
  return found;
}

// The daemon asks by the path of a registration, which it may have completed.
const sdk_registration_t *find_status(const ymgr_plugin_t *plugin, const char *path)
{
  std::string std_path = plugin_path_schema2std(path).value_or("");
  std::vector<sdk_path_step_t> asked = sdk_path_steps(std_path);
  const sdk_registration_t *found = nullptr;
  int least = INT_MAX;
  for (const sdk_registration_t &registration : plugin->registrations) {
    if (registration.kind != sdk_kind::status) {
      continue;
    }
    std::vector<sdk_path_step_t> known = sdk_path_steps(registration.path);
    int left_out = known == asked ? 0
                                  : std::min(fit_of(asked, known, cover::exactly).left_out,
                                             fit_of(known, asked, cover::exactly).left_out);
    if (left_out < least) {
      least = left_out;
      found = &registration;
    }
  }
  return found;
}

// By the element's name: no two operations of a local plugin have the same.
const sdk_registration_t *find_rpc(const ymgr_plugin_t *plugin, const char *input)
{
  plugin_doc_ptr message = plugin_parse_message(input);
  if (message == nullptr) {
    return nullptr;
  }
  std::string_view name = reinterpret_cast<const char *>(plugin_root_of(message)->name);
  for (const sdk_registration_t &registration : plugin->registrations) {
    std::vector<sdk_path_step_t> steps = sdk_path_steps(registration.path);
    if (registration.kind == sdk_kind::rpc && !steps.empty() && steps.back().name == name) {
      return &registration;
    }
  }
  return nullptr;
}

// --- Calls of the daemon.

int refuse(int code, const char *message)
{
  if (daemon_functions.conf_plugin_error(code, message) != 0) {
    sdk_log(local_plugin.get(), SDK_LOG_ERROR, "The daemon did not take the error: %s", message);
  }
  return -1;
}

int refuse_unknown(const char *what)
{
  sdk_log(local_plugin.get(), SDK_LOG_ERROR, "No callback is registered for %.512s.", what);
  return refuse(SDK_GENERAL_ERROR, "The plugin has no callback for this.");
}

int refuse_as_told()
{
  return refuse(local_plugin->refusal->code, local_plugin->refusal->message.c_str());
}

// Calls `fn` unless the plugin is not loaded, or works on something: a callback that makes the daemon call again would
// mix up two answers.
template <class F>
int enter(F &&fn)
{
  if (local_plugin == nullptr) {
    return -1;
  }
  if (local_plugin->is_in_callback) {
    sdk_log(local_plugin.get(), SDK_LOG_ERROR, "A callback was called inside a callback.");
    return -1;
  }
  return sdk_guard(local_plugin.get(), fn);
}

int initialise(const ymgrd_plugin_callback_t *functions)
{
  daemon_functions = *functions;
  local_plugin.reset(ymgr_plugin_new(ymgr_local_plugin_name));
  if (local_plugin == nullptr) {
    return -1;
  }
  return sdk_guard(local_plugin.get(), [] {
    ymgr_plugin_t *plugin = local_plugin.get();
    if (ymgr_local_plugin_setup(plugin) != 0) {
      sdk_log(plugin, SDK_LOG_ERROR, "The setup failed: %s", ymgr_plugin_error(plugin));
      return -1;
    }
    plugin->is_sealed = true;
    return 0;
  });
}

} // namespace

YMGR_ENTRY_POINT int ymgr_local_callback(const ymgrd_plugin_callback_t *functions)
{
  int result = initialise(functions);
  if (result != 0) {
    local_plugin.reset();
  }
  return result;
}

YMGR_ENTRY_POINT int ymgr_local_install()
{
  return enter([] {
    local_plugin->is_ready = true;
    sdk_call_ready(local_plugin.get());
    return 0;
  });
}

YMGR_ENTRY_POINT void ymgr_local_uninstall()
{
  local_plugin.reset();
}

YMGR_ENTRY_POINT int ymgr_local_config(int session_id, int oper_type, int more_flag, int priority, const char *path)
{
  return enter([&] {
    const sdk_registration_t *registration = find_config(local_plugin.get(), path, priority);
    if (registration == nullptr) {
      return refuse_unknown(path);
    }
    ymgr_change_t change = {session_id, oper_type, priority, more_flag, path};
    return sdk_call_config(local_plugin.get(), *registration, change) == 0 ? 0 : refuse_as_told();
  });
}

YMGR_ENTRY_POINT int ymgr_local_status(int, const char *path, char **ret_xml)
{
  return enter([&] {
    const sdk_registration_t *registration = find_status(local_plugin.get(), path);
    if (registration == nullptr) {
      return refuse_unknown(path);
    }
    sdk_text_ptr data;
    if (sdk_call_status(local_plugin.get(), *registration, path, &data) != 0) {
      return refuse_as_told();
    }
    *ret_xml = data.release(); // the daemon's; null: nothing to tell
    return 0;
  });
}

YMGR_ENTRY_POINT int ymgr_local_rpc(int session_id, const char *input)
{
  return enter([&] {
    const sdk_registration_t *registration = find_rpc(local_plugin.get(), input);
    if (registration == nullptr) {
      return refuse_unknown("an operation");
    }
    sdk_text_ptr output;
    if (sdk_call_rpc(local_plugin.get(), *registration, session_id, input, &output) != 0) {
      return refuse_as_told();
    }
    if (output != nullptr && daemon_functions.conf_plugin_reply(session_id, output.get()) != 0) {
      return refuse(SDK_GENERAL_ERROR, "The plugin's output is not what its module says.");
    }
    return 0;
  });
}

void sdk_connection_delete_t::operator()(sdk_connection_t *) const
{
  // A local plugin has no connection.
}

int sdk_open(ymgr_plugin_t *)
{
  return 0;
}

int sdk_pull_text(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_xml)
{
  if (check_loaded(plugin) != 0) {
    return -1;
  }
  char *xml = nullptr;
  if (daemon_functions.conf_plugin_pull(path, moment, &xml) != 0) {
    return sdk_fail(plugin, "The daemon gives nothing for %.512s: its log says why.", path);
  }
  if (xml == nullptr) {
    xml = sdk_copy_text("");
  }
  if (xml == nullptr) {
    return sdk_fail_memory(plugin);
  }
  *ret_xml = xml;
  return 0;
}

int sdk_pull_tree(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, plugin_doc_ptr *ret_message,
                  xmlNode **ret_parent)
{
  char *xml = nullptr;
  if (sdk_pull_text(plugin, path, moment, &xml) != 0) {
    return -1;
  }
  sdk_text_ptr text(xml);
  plugin_doc_ptr message = plugin_new_params();
  if (message == nullptr || plugin_add_markup(plugin_root_of(message), text.get()) != 0) {
    return sdk_fail(plugin, "The daemon's data below %.512s is not well-formed.", path);
  }
  *ret_parent = plugin_root_of(message);
  *ret_message = std::move(message);
  return 0;
}

int sdk_push(ymgr_plugin_t *plugin, const char *path, const char *xml)
{
  if (check_loaded(plugin) != 0) {
    return -1;
  }
  return daemon_functions.conf_plugin_push(path, xml) == 0
             ? 0
             : sdk_fail(plugin, "The daemon does not take the data below %.512s: its log says why.", path);
}

int sdk_locate(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, sdk_text_ptr *ret_prev,
               sdk_text_ptr *ret_next)
{
  if (check_loaded(plugin) != 0) {
    return -1;
  }
  char *prev = nullptr;
  char *next = nullptr;
  if (daemon_functions.conf_plugin_locate(path, moment, &prev, &next) != 0) {
    return sdk_fail(plugin, "The daemon does not find %.512s: its log says why.", path);
  }
  ret_prev->reset(prev);
  ret_next->reset(next);
  return 0;
}

// --- What a plugin inside the daemon has no use for: it runs when the daemon calls it.

int ymgr_plugin_defer(ymgr_plugin_t *plugin)
{
  return sdk_guard(plugin, [&] { return sdk_fail(plugin, "A local plugin answers at once."); });
}

int ymgr_plugin_answer(ymgr_plugin_t *plugin, int, const char *)
{
  return ymgr_plugin_defer(plugin);
}

int ymgr_plugin_answer_error(ymgr_plugin_t *plugin, int, int, const char *)
{
  return ymgr_plugin_defer(plugin);
}

int ymgr_plugin_run(ymgr_plugin_t *)
{
  return 0;
}

void ymgr_plugin_stop(ymgr_plugin_t *) {}

int ymgr_plugin_fd(const ymgr_plugin_t *)
{
  return 0;
}

int ymgr_plugin_process(ymgr_plugin_t *)
{
  return 0;
}

int ymgr_plugin_main(int, char **, const char *, int (*)(ymgr_plugin_t *plugin))
{
  return 0;
}
