#include <algorithm>
#include <filesystem>
#include <set>

#include "ymgrd/core/context.h"
#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/crypto/encrypt_key.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/schema/schema_sensitive.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr std::string_view UNIX_SCHEME = "unix:";

// Without ietf-netconf in the context libyang drops nc:operation attributes without a word, and a delete becomes a
// merge; without zentra-ymgrd no session can be created, without notifications no request to subscribe has a name.
typedef struct _required_module {
  const char *name;
  const char *revision;
  std::vector<const char *> features;
} required_module_t;
const required_module_t required_modules[] = {
    {"ietf-netconf", "2011-06-01", {"writable-running", "candidate", "rollback-on-error", "startup"}},
    {"zentra-ymgrd", "2026-11-23", {}},
    {"notifications", "2008-07-14", {}},
    {"nc-notifications", "2008-07-14", {}},
    {"ietf-netconf-notifications", "2012-02-06", {}},
};

int read_database_path(const schema_config &config, std::string *ret_path)
{
  if (config.path.empty()) {
    log_debug("Schema db use default redis path.");
    *ret_path = DEFAULT_REDIS_SOCKET;
    return 0;
  }
  if (!config.path.starts_with(UNIX_SCHEME)) {
    log_error("%.512s for schema.path is NOT supported now.", config.path.c_str());
    return -1;
  }
  if (config.path.find('/') == std::string::npos) {
    log_error("Unix path(%.512s) for schema db is invalid.", config.path.c_str());
    return -1;
  }
  log_debug("Schema db use unix redis path.");
  *ret_path = ymgrd_socket_path(config.path);
  return 0;
}

int create_context()
{
  ly_ctx *ctx = nullptr;
  // Compiled nodes point to their statements, for the records of the schema database and for whoever must tell
  // shorthand cases. To ask for that later would compile everything once more.
  const uint16_t options = LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD | LY_CTX_SET_PRIV_PARSED;
  if (ly_ctx_new(nullptr, options, &ctx) != LY_SUCCESS) {
    log_error("Create the YANG context failed.");
    return -1;
  }
  ly_ctx_ptr owner(ctx);
  if (ly_ctx_set_searchdir(ctx, ymgrd_modules_dir()) != LY_SUCCESS) {
    log_error("Modules directory %.512s cannot be used.", ymgrd_modules_dir());
    return -1;
  }
  schema_set_ctx(std::move(owner));
  return 0;
}

redis_connection_ptr connect_database(const std::string &path)
{
  redis_connection_ptr srdc(redis_connect(path.c_str()));
  if (srdc == nullptr) {
    log_error("Connect schema db error on initialization.");
    return nullptr;
  }
  if (redis_select(srdc.get(), REDIS_RESERVED) != 0) {
    log_error("Database %d not exist in redis server", REDIS_RESERVED);
    return nullptr;
  }
  // A server that is still reading its files lets itself be selected, but answers nothing.
  if (redis_ping(srdc.get()) != 0) {
    log_error("Schema db at %.512s is not ready.", path.c_str());
    return nullptr;
  }
  return srdc;
}

redis_connection_ptr schema_read_conf()
{
  const auto *config = context_get_record<schema_config>("OPT-schema");
  if (config == nullptr) {
    log_error("Invalid config for schema.path in config file.");
    return nullptr;
  }
  std::string path;
  if (read_database_path(*config, &path) != 0 || create_context() != 0) {
    return nullptr;
  }
  return connect_database(path);
}

void log_yang_reason()
{
  for (const ly_err_item *item = ly_err_first(schema_ctx()); item != nullptr; item = item->next) {
    if (item->level == LY_LLERR) {
      log_warn("libyang: %.512s (%.512s)", item->msg, item->path == nullptr ? "" : item->path);
      break;
    }
  }
  ly_err_clean(schema_ctx(), nullptr);
}

int schema_read_yin(const schema_source_t &source)
{
  std::filesystem::path path(source.path);
  if (schema_read_revision_state(source) == SCHEMA_REVISION_MISSING) {
    log_error("model %.512s have no revision.\n", path.stem().c_str());
    return -1;
  }
  ly_err_clean(schema_ctx(), nullptr);
  if (lys_parse_path(schema_ctx(), source.path.c_str(), source.format, nullptr) == LY_SUCCESS) {
    return 0;
  }
  if (path.has_parent_path()) {
    log_error("model %.512s parse faild.", path.filename().c_str());
  } else {
    log_error("model %.512s file parse faild.", source.path.c_str());
  }
  log_yang_reason();
  return -1;
}

lys_module *find_newest(const std::string &name)
{
  lys_module *module = ly_ctx_get_module_implemented(schema_ctx(), name.c_str());
  return module != nullptr ? module : ly_ctx_get_module_latest(schema_ctx(), name.c_str());
}

std::vector<std::string> enabled_features(const lys_module *module)
{
  std::vector<std::string> names;
  uint32_t index = 0;
  const lysp_feature *feature = nullptr;
  while ((feature = lysp_feature_next(feature, module->parsed, &index)) != nullptr) {
    if (lys_feature_value(module, feature->name) == LY_SUCCESS) {
      names.emplace_back(feature->name);
    }
  }
  return names;
}

// Makes `names` the features of the module, and the module implemented. On -1 libyang may have kept the refused set,
// and then parses nothing more until it is given another one.
int set_features(lys_module *module, const std::vector<std::string> &names)
{
  std::vector<const char *> array;
  array.reserve(names.size() + 1);
  for (const std::string &name : names) {
    array.push_back(name.c_str());
  }
  array.push_back(nullptr);
  ly_err_clean(schema_ctx(), nullptr);
  return lys_set_implemented(module, array.data()) == LY_SUCCESS ? 0 : -1;
}

// After a set was refused: adds the features one by one, so that a bad one does not cost the others. In rounds, because
// a feature may need one that stands behind it.
int enable_one_by_one(lys_module *module, std::vector<std::string> enabled, std::vector<std::string> wanted)
{
  if (set_features(module, enabled) != 0) {
    log_yang_reason();
    return -1;
  }
  size_t left_before = wanted.size() + 1;
  while (wanted.size() < left_before) {
    left_before = wanted.size();
    std::erase_if(wanted, [&](const std::string &name) {
      enabled.push_back(name);
      if (set_features(module, enabled) == 0) {
        return true;
      }
      enabled.pop_back();
      (void)set_features(module, enabled); // was accepted before
      return false;
    });
  }
  for (const std::string &name : wanted) {
    log_warn("Enable feature %.512s of module %s failed.", name.c_str(), module->name);
  }
  return 0;
}

int enable_features(lys_module *module, const std::vector<std::string> &configured)
{
  std::vector<std::string> enabled = enabled_features(module);
  std::vector<std::string> added = schema_expand_features(module, configured);
  std::erase_if(
      added, [&](const std::string &name) { return std::find(enabled.begin(), enabled.end(), name) != enabled.end(); });
  if (added.empty() && module->implemented) {
    return 0;
  }
  // All in one call: features that need each other are refused when given singly.
  std::vector<std::string> all = enabled;
  all.insert(all.end(), added.begin(), added.end());
  if (set_features(module, all) == 0) {
    return 0;
  }
  return enable_one_by_one(module, std::move(enabled), std::move(added));
}

// Parses the module's file, or that of the deviation when one is given (which makes libyang load the module and deviate
// it), and enables the module's features.
int schema_add_module(const model_config_t &mod_cfg, const std::string *deviation_name)
{
  std::string name(schema_modelcfg_name(mod_cfg));
  const std::string &file_name = deviation_name != nullptr ? *deviation_name : mod_cfg.name;
  schema_source_t source = schema_get_file_path(file_name);
  // A few modules are part of libyang and need no file.
  std::error_code ignored;
  bool is_built_in = !std::filesystem::exists(source.path, ignored) && find_newest(file_name) != nullptr;
  if (!is_built_in && schema_read_yin(source) != 0) {
    return -1;
  }
  lys_module *module = find_newest(name);
  return module == nullptr ? -1 : enable_features(module, mod_cfg.feature);
}

int schema_add_entry(const model_config_t &mod_cfg, std::set<std::string, std::less<>> *deviations)
{
  if (mod_cfg.deviation.empty()) {
    return schema_add_module(mod_cfg, nullptr);
  }
  int result = 0;
  for (const std::string &deviation : mod_cfg.deviation) {
    deviations->insert(deviation);
    result += schema_add_module(mod_cfg, &deviation);
  }
  return result;
}

void add_required_modules()
{
  for (const required_module_t &required : required_modules) {
    if (schema_find_modelcfg(required.name) != nullptr) {
      continue;
    }
    log_warn("Module %s is not in the profile; it is loaded because requests are checked against it.", required.name);
    model_config_t *mod_cfg = schema_create_modelcfg(required.name, required.revision);
    if (mod_cfg == nullptr) {
      continue;
    }
    mod_cfg->feature.assign(required.features.begin(), required.features.end());
    if (schema_save_modelcfg(mod_cfg) != 0) {
      schema_free_modelcfg(mod_cfg);
    }
  }
}

} // namespace

int schema_load_yang()
{
  redis_connection_ptr srdc = schema_read_conf();
  if (srdc == nullptr) {
    return -1;
  }
  if (schema_all_modelcfgs().empty()) {
    return 0;
  }
  add_required_modules();

  // A module that an earlier entry names as its deviation is loaded only as that deviation.
  std::set<std::string, std::less<>> deviations;
  for (const model_config_t *mod_cfg : schema_all_modelcfgs()) {
    if (mod_cfg->name.empty() || deviations.contains(schema_modelcfg_name(*mod_cfg))) {
      continue;
    }
    if (schema_add_entry(*mod_cfg, &deviations) != 0) {
      log_warn("Schema add module %.512s failed.", mod_cfg->name.c_str());
    }
    ymgrd_send_keepalive_msg(0, 0);
  }
  schema_build_lookups();
  if (schema_save_modules(srdc.get()) != 0) {
    log_error("Schema save modules failed.");
    return -1;
  }
  if (ymgrd_encrypt_key() != 0) {
    log_error("have sen-k only.");
    return -1;
  }
  return schema_protect_sensitive(); // not before: the records tell the leaves' own types
}
