#include "sdk/plugin_internal.h"

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <new>
#include <system_error>

#include "libconf/default_paths.h"
#include "libconf/plugin_path.h"

namespace {

constexpr size_t LONGEST_LOG_TEXT = 2048;

const char *default_run_dir()
{
  const char *run_dir = std::getenv("YMGR_RUN_DIR");
  return run_dir == nullptr || *run_dir == '\0' ? DEFAULT_RUN_DIR : run_dir;
}

void log_to_standard_error(const ymgr_plugin_t *plugin, int level, const char *text)
{
  if (level <= SDK_LOG_WARN) {
    (void)std::fprintf(stderr, "%s: %s\n", plugin->name.c_str(), text); // there is nowhere else to complain
  }
}

// The text of a format, cut where it does not end.
std::string formatted(const char *format, va_list arguments)
{
  char text[LONGEST_LOG_TEXT];
  return std::vsnprintf(text, sizeof(text), format, arguments) < 0 ? std::string(format) : std::string(text);
}

#ifdef YMGR_LOCAL_PLUGIN

// The last name of a std path without its module.
std::string_view last_name(std::string_view path)
{
  path = path.substr(path.rfind('/') + 1);
  size_t colon = path.find(':');
  return colon == std::string_view::npos ? path : path.substr(colon + 1);
}

bool is_at_or_below(std::string_view path, std::string_view above)
{
  return path.starts_with(above) && (path.size() == above.size() || above == "/" || path[above.size()] == '/');
}

// The daemon calls a local plugin with a path and a priority, or with an operation's element: no number tells which
// registration is meant.
int check_distinct(ymgr_plugin_t *plugin, const sdk_registration_t &added)
{
  for (const sdk_registration_t &known : plugin->registrations) {
    if (known.kind != added.kind) {
      continue;
    }
    if (added.kind == sdk_kind::config && known.priority == added.priority &&
        (is_at_or_below(known.path, added.path) || is_at_or_below(added.path, known.path))) {
      return sdk_fail(plugin,
                      "%s and %s have the same priority: a local plugin gives paths that lie in each other "
                      "different ones.",
                      known.path.c_str(), added.path.c_str());
    }
    if (added.kind == sdk_kind::rpc && last_name(known.path) == last_name(added.path)) {
      return sdk_fail(plugin, "%s and %s have the same name: a local plugin tells operations by their names.",
                      known.path.c_str(), added.path.c_str());
    }
  }
  return 0;
}

#else

int check_distinct(ymgr_plugin_t *, const sdk_registration_t &)
{
  return 0; // each registration has a number of its own, which comes back in each message
}

#endif

int add_registration(ymgr_plugin_t *plugin, const char *path, bool has_callback, sdk_registration_t registration)
{
  if (plugin->is_sealed) {
    return sdk_fail(plugin, "Callbacks are registered before the first connection.");
  }
  std::optional<std::string> std_path = path == nullptr ? std::nullopt : plugin_path_schema2std(path);
  if (!std_path) {
    return sdk_fail(plugin, "%.512s is no path.", path == nullptr ? "(null)" : path);
  }
  if (!has_callback) {
    return sdk_fail(plugin, "%.512s has no callback.", path);
  }
  registration.path = std::move(*std_path);
  if (check_distinct(plugin, registration) != 0) {
    return -1;
  }
  plugin->registrations.push_back(std::move(registration));
  return 0;
}

} // namespace

void sdk_log(ymgr_plugin_t *plugin, int level, const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  std::string text = formatted(format, arguments);
  va_end(arguments);
  if (plugin->log != nullptr) {
    plugin->log(level, text.c_str());
  } else {
    log_to_standard_error(plugin, level, text.c_str());
  }
}

int sdk_fail(ymgr_plugin_t *plugin, const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  plugin->error = formatted(format, arguments);
  va_end(arguments);
  return -1;
}

int sdk_fail_memory(ymgr_plugin_t *plugin) noexcept
{
  plugin->error = "Short of memory"; // takes no memory: short texts live in the string itself
  return -1;
}

char *sdk_copy_text(std::string_view text)
{
  char *copy = static_cast<char *>(std::malloc(text.size() + 1));
  if (copy != nullptr) {
    memcpy_s(copy, text.size(), text.data(), text.size());
    copy[text.size()] = '\0';
  }
  return copy;
}

ymgr_plugin_t *ymgr_plugin_new(const char *name)
{
  try {
    auto plugin = std::make_unique<ymgr_plugin>();
    plugin->name = name == nullptr ? "" : name;
    plugin->run_dir = default_run_dir();
    return sdk_open(plugin.get()) == 0 ? plugin.release() : nullptr;
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

void ymgr_plugin_free(ymgr_plugin_t *plugin)
{
  delete plugin;
}

int ymgr_plugin_set_run_dir(ymgr_plugin_t *plugin, const char *run_dir)
{
  return sdk_guard(plugin, [&] {
    if (plugin->is_sealed || run_dir == nullptr || *run_dir == '\0') {
      return sdk_fail(plugin, "The run directory is set before the first connection.");
    }
    // Made absolute now: the process may change its directory before it connects again.
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(run_dir, error);
    plugin->run_dir = error ? run_dir : absolute.string();
    return 0;
  });
}

void ymgr_plugin_set_log(ymgr_plugin_t *plugin, void (*log)(int level, const char *text))
{
  plugin->log = log;
}

const char *ymgr_plugin_error(const ymgr_plugin_t *plugin)
{
  return plugin->error.c_str();
}

int ymgr_plugin_on_config(ymgr_plugin_t *plugin, const char *path, int priority, ymgr_config_fn fn, void *user)
{
  return sdk_guard(plugin, [&] {
    sdk_registration_t registration = {sdk_kind::config, {}, priority, {}, user};
    registration.fn.config = fn;
    return add_registration(plugin, path, fn != nullptr, std::move(registration));
  });
}

int ymgr_plugin_on_status(ymgr_plugin_t *plugin, const char *path, ymgr_status_fn fn, void *user)
{
  return sdk_guard(plugin, [&] {
    sdk_registration_t registration = {sdk_kind::status, {}, 0, {}, user};
    registration.fn.status = fn;
    return add_registration(plugin, path, fn != nullptr, std::move(registration));
  });
}

int ymgr_plugin_on_rpc(ymgr_plugin_t *plugin, const char *path, ymgr_rpc_fn fn, void *user)
{
  return sdk_guard(plugin, [&] {
    sdk_registration_t registration = {sdk_kind::rpc, {}, 0, {}, user};
    registration.fn.rpc = fn;
    return add_registration(plugin, path, fn != nullptr, std::move(registration));
  });
}

int ymgr_plugin_reject(ymgr_plugin_t *plugin, int code, const char *message)
{
  return sdk_guard(plugin, [&] {
    plugin->refusal = sdk_refusal_t{code, message == nullptr ? "" : message};
    return -1;
  });
}

int ymgr_plugin_on_ready(ymgr_plugin_t *plugin, ymgr_ready_fn fn, void *user)
{
  if (plugin->is_sealed) {
    return sdk_fail(plugin, "Callbacks are registered before the first connection.");
  }
  plugin->on_ready = fn;
  plugin->on_ready_user = user;
  return 0;
}

int ymgr_plugin_is_ready(const ymgr_plugin_t *plugin)
{
  return plugin->is_ready ? 1 : 0;
}
