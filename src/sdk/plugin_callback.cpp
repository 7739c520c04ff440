#include "sdk/plugin_internal.h"

namespace {

constexpr char NO_REASON[] = "The plugin gave no reason.";

// Runs one callback of the plugin.
template <class F>
int call(ymgr_plugin_t *plugin, F &&callback)
{
  plugin->refusal.reset();
  plugin->is_in_callback = true;
  int result = -1;
  bool has_thrown = false;
  try {
    result = callback();
  } catch (...) { // a plugin in C++ that let one pass: the daemon still gets its answer
    has_thrown = true;
  }
  plugin->is_in_callback = false;
  if (has_thrown) {
    sdk_log(plugin, SDK_LOG_ERROR, "A callback ended with an exception.");
  }
  if (result == 0) {
    return 0;
  }
  if (!plugin->refusal) {
    plugin->refusal.emplace();
  }
  if (plugin->refusal->message.empty()) {
    plugin->refusal->message = NO_REASON;
  }
  return -1;
}

} // namespace

int sdk_call_config(ymgr_plugin_t *plugin, const sdk_registration_t &registration, const ymgr_change_t &change)
{
  return call(plugin, [&] { return registration.fn.config(plugin, &change, registration.user); });
}

int sdk_call_status(ymgr_plugin_t *plugin, const sdk_registration_t &registration, const char *path,
                    sdk_text_ptr *ret_data)
{
  char *data = nullptr;
  int result = call(plugin, [&] { return registration.fn.status(plugin, path, &data, registration.user); });
  ret_data->reset(data);
  return result;
}

int sdk_call_rpc(ymgr_plugin_t *plugin, const sdk_registration_t &registration, int session_id, const char *input,
                 sdk_text_ptr *ret_output)
{
  char *output = nullptr;
  int result = call(plugin, [&] { return registration.fn.rpc(plugin, session_id, input, &output, registration.user); });
  ret_output->reset(output);
  return result;
}

void sdk_call_ready(ymgr_plugin_t *plugin)
{
  if (plugin->on_ready != nullptr &&
      call(plugin, [plugin] { return plugin->on_ready(plugin, plugin->on_ready_user); }) != 0) {
    sdk_log(plugin, SDK_LOG_ERROR, "What is done when the plugin is ready has failed: %s",
            plugin->refusal->message.c_str());
  }
}
