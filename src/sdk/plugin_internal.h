// What the sources of the plugin library share. The library is built twice: over the plugin socket (plugin_connection,
// plugin_serve, plugin_main) and inside the daemon's process (plugin_local); everything else is the same code.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libconf/plugin_message.h"
#include "libconf/safe_string.h"
#include "libconf/wiped_string.h"

// The library's symbols are hidden but for its interface. In a local plugin that is hidden too: the daemon may hold
// several plugins, and each calls its own copy.
#ifdef YMGR_LOCAL_PLUGIN
#include "ymgr/plugin.h"
#else
#pragma GCC visibility push(default)
#include "ymgr/plugin.h"
#pragma GCC visibility pop
#endif

enum { SDK_LOG_ERROR = 3, SDK_LOG_WARN = 4, SDK_LOG_INFO = 6, SDK_LOG_DEBUG = 7 };

// Of every error that has no code of its own.
constexpr int SDK_GENERAL_ERROR = -1;

struct sdk_text_delete_t {
  void operator()(char *text) const
  {
    size_t length = std::strlen(text);
    memset_s(text, length, 0, length);
    std::free(text);
  }
};
using sdk_text_ptr = std::unique_ptr<char, sdk_text_delete_t>; // made by malloc; may hold secrets

enum class sdk_kind { config, status, rpc };

typedef struct _sdk_registration {
  sdk_kind kind;
  std::string path; // a schema path in std form
  int priority = 0; // of configuration
  union {
    ymgr_config_fn config;
    ymgr_status_fn status;
    ymgr_rpc_fn rpc;
  } fn;
  void *user = nullptr;
} sdk_registration_t;

typedef struct _sdk_refusal {
  int code = SDK_GENERAL_ERROR;
  std::string message;
} sdk_refusal_t;

typedef struct _sdk_connection sdk_connection_t;
struct sdk_connection_delete_t {
  void operator()(sdk_connection_t *connection) const;
};

struct ymgr_plugin {
  std::string name;
  std::string run_dir;
  void (*log)(int level, const char *text) = nullptr; // null: to standard error
  std::string error;
  std::vector<sdk_registration_t> registrations;
  ymgr_ready_fn on_ready = nullptr;
  void *on_ready_user = nullptr;
  bool is_sealed = false; // the daemon is being told the registrations, or was
  bool is_in_callback = false;
  bool is_ready = false;
  std::optional<sdk_refusal_t> refusal;                                  // of the running callback
  std::unique_ptr<sdk_connection_t, sdk_connection_delete_t> connection; // null in a local plugin
};

// --- Errors and log (plugin_api.cpp).

void sdk_log(ymgr_plugin_t *plugin, int level, const char *format, ...) __attribute__((format(printf, 3, 4)));
// Sets what ymgr_plugin_error() tells. Always -1.
int sdk_fail(ymgr_plugin_t *plugin, const char *format, ...) __attribute__((format(printf, 2, 3)));
int sdk_fail_memory(ymgr_plugin_t *plugin) noexcept;

// Calls `fn`, which gives 0 or -1, for a function of the interface: no exception passes.
template <class F>
int sdk_guard(ymgr_plugin_t *plugin, F &&fn) noexcept
{
  try {
    return fn();
  } catch (const std::bad_alloc &) {
    return sdk_fail_memory(plugin);
  } catch (...) {                   // our own code throws nothing else, but it calls functions of the plugin
    plugin->error = "An exception"; // short: takes no memory
    return -1;
  }
}

// A copy made by malloc; null when memory is short.
char *sdk_copy_text(std::string_view text);

// --- Paths (plugin_data.cpp). One name of a schema path in std form; "/" has none.

typedef struct _sdk_path_step {
  std::string_view text; // as in the path: with the module where it changes
  std::string_view module;
  std::string_view name;
  bool operator==(const _sdk_path_step &other) const { return module == other.module && name == other.name; }
} sdk_path_step_t;
std::vector<sdk_path_step_t> sdk_path_steps(std::string_view path);

// --- Callbacks (plugin_callback.cpp). 0 when the plugin accepted; else -1, and `plugin->refusal` says why.

void sdk_call_ready(ymgr_plugin_t *plugin); // a failure is logged: there is nobody to refuse to
int sdk_call_config(ymgr_plugin_t *plugin, const sdk_registration_t &registration, const ymgr_change_t &change);
int sdk_call_status(ymgr_plugin_t *plugin, const sdk_registration_t &registration, const char *path,
                    sdk_text_ptr *ret_data);
int sdk_call_rpc(ymgr_plugin_t *plugin, const sdk_registration_t &registration, int session_id, const char *input,
                 sdk_text_ptr *ret_output);

// --- What both builds do in their own way.

int sdk_open(ymgr_plugin_t *plugin); // of a new plugin
// The data at `path`: the child elements of `*ret_parent`, which lives in `*ret_message`.
int sdk_pull_tree(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, plugin_doc_ptr *ret_message,
                  xmlNode **ret_parent);
int sdk_pull_text(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_xml);
int sdk_push(ymgr_plugin_t *plugin, const char *path, const char *xml);
int sdk_locate(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, sdk_text_ptr *ret_prev,
               sdk_text_ptr *ret_next);
