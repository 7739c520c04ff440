// Local plugins: loading of their shared objects and profiles, start and end.
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

#include <dlfcn.h>

#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/ymgrd.h"

namespace {

int invalid(const plugin_inst_t &plugin, const char *what)
{
  log_error("Profile of plugin <%.512s> is invalid(%s).", plugin.name.c_str(), what);
  return -1;
}

// The member's number; `fallback` when there is no such member. -1 when it is no integer of that range.
int read_int(const cJSON *object, const char *name, int fallback, int least, int *ret_number)
{
  const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
  if (item == nullptr) {
    *ret_number = fallback;
    return 0;
  }
  double value = cJSON_IsNumber(item) ? item->valuedouble : std::nan("");
  if (!(value >= least && value <= INT_MAX) || value != std::floor(value)) {
    return -1;
  }
  *ret_number = static_cast<int>(value);
  return 0;
}

// The function that the member names; null without that member. -1 (logged) when the object has no such function.
int read_function(const plugin_inst_t &plugin, const cJSON *object, const char *name, void **ret_function)
{
  const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
  if (item == nullptr) {
    *ret_function = nullptr;
    return 0;
  }
  if (!cJSON_IsString(item)) {
    return invalid(plugin, name);
  }
  void *function = dlsym(plugin.local.so_handle.get(), item->valuestring);
  if (function == nullptr) {
    log_warn("Function <%.512s> not found.", item->valuestring);
    return invalid(plugin, item->valuestring);
  }
  *ret_function = function;
  return 0;
}

int read_base(plugin_inst_t *plugin, const cJSON *profile)
{
  const cJSON *base = cJSON_GetObjectItemCaseSensitive(profile, "base");
  plugin_local_t &local = plugin->local;
  if (read_int(profile, "version", YMGR_PLUGIN_API_VERSION, 0, &local.version) != 0 ||
      local.version != YMGR_PLUGIN_API_VERSION) {
    return invalid(*plugin, "version");
  }
  if (read_int(base, "stage", STAGE_CONFIG, 0, &local.stage) != 0 || local.stage < STAGE_CONFIG ||
      local.stage > STAGE_KICKOFF) {
    return invalid(*plugin, "stage");
  }
  void *callback = nullptr;
  void *install = nullptr;
  void *uninstall = nullptr;
  if (read_function(*plugin, base, "callback", &callback) != 0 ||
      read_function(*plugin, base, "install", &install) != 0 ||
      read_function(*plugin, base, "uninstall", &uninstall) != 0) {
    return -1;
  }
  local.callback = reinterpret_cast<ymgr_local_callback_fn>(callback);
  local.install = reinterpret_cast<ymgr_local_install_fn>(install);
  local.uninstall = reinterpret_cast<ymgr_local_uninstall_fn>(uninstall);
  return 0;
}

int read_registration(plugin_inst_t *plugin, const cJSON *entry, plugin_registration_kind_t kind, const char *section)
{
  plugin_registration_t registration;
  registration.kind = kind;
  const cJSON *path = cJSON_GetObjectItemCaseSensitive(entry, "path");
  if (!cJSON_IsString(path) || read_int(entry, "priority", 0, INT_MIN, &registration.priority) != 0) {
    return invalid(*plugin, section);
  }
  void *callback = nullptr;
  if (read_function(*plugin, entry, "callback", &callback) != 0) {
    return -1;
  }
  if (callback == nullptr) {
    return invalid(*plugin, section);
  }
  registration.path = path->valuestring;
  registration.callback.token = reinterpret_cast<uintptr_t>(callback);
  plugin->local.registrations.push_back(std::move(registration));
  return 0;
}

const struct {
  const char *name;
  plugin_registration_kind_t kind;
} profile_sections[] = {
    {"config", PLUGIN_REG_CONFIG},
    {"status", PLUGIN_REG_STATUS},
    {"rpc", PLUGIN_REG_OPERATE},
};

int read_registrations(plugin_inst_t *plugin, const cJSON *profile)
{
  for (const auto &section : profile_sections) {
    const cJSON *entries = cJSON_GetObjectItemCaseSensitive(profile, section.name);
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, entries)
    {
      if (read_registration(plugin, entry, section.kind, section.name) != 0) {
        return -1;
      }
    }
  }
  return 0;
}

cjson_ptr load_profile(const std::string &name)
{
  std::string path = std::string(ymgrd_plugins_dir()) + "/" + name + ".conf";
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    log_error("Open profile %.512s of plugin <%.512s> failed(%s).", path.c_str(), name.c_str(), std::strerror(errno));
    return nullptr;
  }
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  cjson_ptr profile(cJSON_ParseWithLength(text.data(), text.size()));
  if (profile == nullptr) {
    const char *place = cJSON_GetErrorPtr();
    log_error("Json parse error(%.64s).", place == nullptr ? "" : place);
    log_error("It is in profile %.512s of plugin <%.512s>.", path.c_str(), name.c_str());
  }
  return profile;
}

int start_local(plugin_inst_t *plugin)
{
  std::string reason = "It could not be installed."; // logged, with its path
  if (plugin_local_install(plugin) != 0 || plugin_register(plugin, plugin->local.registrations, &reason) != 0) {
    plugin_note_error(plugin, reason);
    return -1;
  }
  plugin_note_registered(plugin);
  log_info("Plugin register ok(name=%.512s, id=%d).", plugin->name.c_str(), plugin->plugin_id);
  plugin->bit_activate = true;
  plugin->wants_cfgr = true;
  return 0;
}

// At stage 1 the broker may not begin yet: it does at the next one.
void bring_up_local(plugin_inst_t *plugin, int stage)
{
  if (stage > STAGE_CONFIG) {
    plugin_bring_up(plugin, true, true);
    return;
  }
  bool is_smooth = context_get_int("OPT-smooth-start", 0) == 1;
  (is_smooth ? plugin->bit_smooth : plugin->bit_cfgr) = true;
  (void)(is_smooth ? broker_plugin_smooth_start(plugin) : broker_plugin_cfgr(plugin)); // logged there
}

// Its shared object and its profile. 0 or -1 (logged).
int load_local(plugin_inst_t *plugin, const char *so_path)
{
  plugin->local.so_handle.reset(dlopen(so_path, RTLD_NOW | RTLD_LOCAL));
  if (plugin->local.so_handle == nullptr) {
    log_error("Open plugin <%.512s>'s so failed(%.512s).", plugin->name.c_str(), dlerror());
    return -1;
  }
  cjson_ptr profile = load_profile(plugin->name);
  return profile == nullptr || read_base(plugin, profile.get()) != 0 || read_registrations(plugin, profile.get()) != 0
             ? -1
             : 0;
}

} // namespace

int plugin_create_local_inst(const char *name, const char *so_path)
{
  if (plugin_find_by_name(name) != nullptr) {
    log_error("There are two local plugins <%.512s>.", name);
    return -1;
  }
  auto plugin = std::make_unique<plugin_inst_t>();
  plugin->name = name;
  plugin->local_flag = true;
  if (load_local(plugin.get(), so_path) != 0) {
    plugin_note_error(plugin.get(), "It could not be loaded.");
    plugin_note_gone(*plugin);
    return -1;
  }
  return plugin_add_inst(std::move(plugin));
}

void plugin_start_local(int stage)
{
  for (int plugin_id : plugin_ids()) {
    plugin_inst_t *plugin = plugin_find(plugin_id);
    if (!plugin->local_flag || plugin->local.stage != stage) {
      continue;
    }
    if (start_local(plugin) == 0) {
      bring_up_local(plugin, stage);
    } else {
      log_warn("Enable local plugin %.512s failed.", plugin->name.c_str());
      plugin_destroy_inst(plugin);
    }
  }
}
