#include "ymgrd/schema/schema.h"

#include <algorithm>
#include <new>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/schema/schema_sensitive.h"
#include "ymgrd/schema/schema_value.h"
#include "ymgrd/ymgrd.h"

namespace {

struct text_hash_t {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};
using module_map_t = std::unordered_map<std::string, const lys_module *, text_hash_t, std::equal_to<>>;
using text_set_t = std::unordered_set<std::string, text_hash_t, std::equal_to<>>;
using node_map_t = std::unordered_map<std::string, const lysc_node *, text_hash_t, std::equal_to<>>;

// Nodes of one kind. Their names tell cheaply that a node is none of them.
typedef struct _special_nodes {
  text_set_t names;
  node_map_t by_path;
} special_nodes_t;

// The maps point into the context: they are filled after loading and emptied before the context goes.
typedef struct _schema_state {
  ly_ctx_ptr ctx;
  module_map_t by_name;
  module_map_t by_ns;
  module_map_t by_prefix;    // implemented modules only
  special_nodes_t any;       // anyxml and anydata nodes
  special_nodes_t path_keys; // what entries are named by, where it may be an instance-identifier
  std::vector<void (*)()> exit_listeners;
} schema_state_t;

schema_state_t state;

// Namespaces that have their module's name whether or not it is loaded.
const std::pair<const char *, const char *> fixed_names[] = {
    {NETCONF_BASE_NS_1_0, "ietf-netconf"},
    {YMGRD_PRIVATE_NS, "zentra-ymgrd"},
    {"urn:ietf:params:xml:ns:yang:ietf-system", "ietf-system"},
};

// Modules whose elements are written with the namespace where others have their prefix.
const std::pair<const char *, const char *> fixed_prefixes[] = {
    {"ietf-netconf", NETCONF_BASE_NS_1_0},
    {"zentra-ymgrd", YMGRD_PRIVATE_NS},
};

const lys_module *find_in(const module_map_t &map, std::string_view key)
{
  auto found = map.find(key);
  return found == map.end() ? nullptr : found->second;
}

void add_to_lookups(const lys_module *module)
{
  // emplace keeps what is there: the first module of a name, namespace or prefix wins.
  state.by_name.emplace(module->name, module);
  state.by_ns.emplace(module->ns, module);
  if (module->implemented) {
    state.by_prefix.emplace(module->prefix, module);
  }
}

// Data paths name the module where it changes, and no choices and cases.
std::string data_path_of(const lysc_node *node)
{
  const lysc_node *parent = lysc_data_parent(node);
  std::string path = parent == nullptr ? std::string() : data_path_of(parent);
  path.append("/");
  if (parent == nullptr || parent->module != node->module) {
    path.append(node->module->name).append(":");
  }
  return path.append(node->name);
}

bool is_path_key(const lysc_node *node)
{
  bool is_key = lysc_is_key(node) || node->nodetype == LYS_LEAFLIST; // leaf and leaf-list have their type at one place
  return is_key && schema_may_be_path(reinterpret_cast<const lysc_node_leaf *>(node)->type);
}

void add_special_nodes(const lys_module *module)
{
  auto add = [](lysc_node *node, void *, ly_bool *) {
    special_nodes_t *nodes = node->nodetype & LYD_NODE_ANY ? &state.any
                             : is_path_key(node)           ? &state.path_keys
                                                           : nullptr;
    if (nodes != nullptr) {
      nodes->names.emplace(node->name);
      nodes->by_path.emplace(data_path_of(node), node);
    }
    return LY_SUCCESS;
  };
  const lysc_node *top = nullptr;
  LY_LIST_FOR(module->compiled->data, top)
  {
    (void)lysc_tree_dfs_full(top, add, nullptr); // fails only when the callback does
  }
}

std::vector<const lys_module *> all_modules(uint32_t first_index)
{
  std::vector<const lys_module *> modules;
  uint32_t index = first_index;
  while (const lys_module *module = ly_ctx_get_module_iter(state.ctx.get(), &index)) {
    modules.push_back(module);
  }
  std::stable_partition(modules.begin(), modules.end(),
                        [](const lys_module *module) { return module->implemented != 0; });
  return modules;
}

bool has_top_data_node(const lys_module *module, const std::string &name)
{
  const lysc_node *node = lys_find_child(nullptr, module, name.c_str(), name.size(), 0, 0);
  return node != nullptr && (node->nodetype & (LYS_RPC | LYS_NOTIF)) == 0;
}

void free_capability(void *capability)
{
  std::free(capability);
}
void free_modelcfg(void *mod_cfg)
{
  schema_free_modelcfg(static_cast<model_config_t *>(mod_cfg));
}
void free_sensitive(void *leaf)
{
  encrypt_free_sensitive(static_cast<sensitive_config_t *>(leaf));
}

} // namespace

int schema_create_lists()
{
  const std::pair<const char *, int> lists[] = {{"LIST-cpblt", 128}, {"LIST-model", 128}, {"LIST-sencitive", 16}};
  for (const auto &[name, init_size] : lists) {
    if (context_create_list(name, init_size) != 0) {
      return -1;
    }
  }
  return 0;
}

void schema_on_exit(void (*release)())
{
  state.exit_listeners.push_back(release);
}

void schema_exit()
{
  std::vector<void (*)()> listeners = std::move(state.exit_listeners);
  state.exit_listeners.clear();
  for (auto release = listeners.rbegin(); release != listeners.rend(); ++release) {
    (*release)();
  }
  delete context_get_record<schema_config>("OPT-schema");
  context_remove_option("OPT-schema");
  context_destroy_list("LIST-cpblt", free_capability);
  context_destroy_list("LIST-model", free_modelcfg);
  context_destroy_list("LIST-sencitive", free_sensitive);
  schema_unprotect_sensitive();
  schema_set_ctx(nullptr);
}

model_config_t *schema_create_modelcfg(const char *name, const char *revision)
{
  auto *mod_cfg = new (std::nothrow) model_config_t;
  if (mod_cfg == nullptr) {
    log_error("Alloc memory failed.");
    return nullptr;
  }
  mod_cfg->name = name == nullptr ? "" : name;
  mod_cfg->revision = revision == nullptr ? "" : revision;
  return mod_cfg;
}

int schema_enable_feature(model_config_t *mod_cfg, const char *feature)
{
  if (mod_cfg == nullptr || feature == nullptr || *feature == '\0') {
    log_error("Append feaure <%.512s> to module <%.512s> failed.", feature == nullptr ? "" : feature,
              mod_cfg == nullptr ? "" : mod_cfg->name.c_str());
    return -1;
  }
  mod_cfg->feature.emplace_back(feature);
  return 0;
}

int schema_attach_deviation(model_config_t *mod_cfg, const char *deviation)
{
  if (mod_cfg == nullptr || deviation == nullptr || *deviation == '\0') {
    log_error("Attach deviation <%.512s> to module <%.512s> failed.", deviation == nullptr ? "" : deviation,
              mod_cfg == nullptr ? "" : mod_cfg->name.c_str());
    return -1;
  }
  mod_cfg->deviation.emplace_back(deviation);
  return 0;
}

int schema_save_modelcfg(model_config_t *mod_cfg)
{
  if (context_save_list_entry("LIST-model", mod_cfg) < 0) {
    log_error("Save yang-module <%.512s> failed.", mod_cfg->name.c_str());
    return -1;
  }
  return 0;
}

void schema_free_modelcfg(model_config_t *mod_cfg)
{
  delete mod_cfg;
}

std::string_view schema_modelcfg_name(const model_config_t &mod_cfg)
{
  std::string_view name = mod_cfg.name;
  return name.substr(0, name.find('@'));
}

std::vector<const model_config_t *> schema_all_modelcfgs()
{
  std::vector<const model_config_t *> mod_cfgs;
  int size = context_list_size("LIST-model");
  for (int i = 0; i < size; i++) {
    if (void *entry = context_get_list_entry("LIST-model", i)) {
      mod_cfgs.push_back(static_cast<model_config_t *>(entry));
    }
  }
  return mod_cfgs;
}

const model_config_t *schema_find_modelcfg(std::string_view module_name)
{
  for (const model_config_t *mod_cfg : schema_all_modelcfgs()) {
    if (schema_modelcfg_name(*mod_cfg) == module_name) {
      return mod_cfg;
    }
  }
  return nullptr;
}

void schema_set_ctx(ly_ctx_ptr ctx)
{
  state.by_name.clear();
  state.by_ns.clear();
  state.by_prefix.clear();
  state.any = special_nodes_t();
  state.path_keys = special_nodes_t();
  state.ctx = std::move(ctx);
}

ly_ctx *schema_ctx()
{
  return state.ctx.get();
}

void schema_build_lookups()
{
  for (const lys_module *module : schema_loaded_modules()) {
    add_to_lookups(module);
    if (module->implemented) {
      add_special_nodes(module);
    }
  }
  for (const lys_module *module : all_modules(0)) {
    add_to_lookups(module);
  }
}

bool schema_has_any(std::string_view name)
{
  return state.any.names.contains(name);
}

bool schema_is_any(std::string_view data_path)
{
  return state.any.by_path.contains(data_path);
}

const lysc_node *schema_find_path_key(std::string_view data_path)
{
  auto found = state.path_keys.by_path.find(data_path);
  return found == state.path_keys.by_path.end() ? nullptr : found->second;
}

bool schema_has_path_key(std::string_view name)
{
  return state.path_keys.names.contains(name);
}

std::vector<const lys_module *> schema_loaded_modules()
{
  std::vector<const lys_module *> loaded;
  module_map_t seen;
  for (const lys_module *module : all_modules(ly_ctx_internal_modules_count(state.ctx.get()))) {
    if (seen.emplace(module->name, module).second) {
      loaded.push_back(module);
    }
  }
  for (const lys_module *module : all_modules(0)) {
    if (schema_find_modelcfg(module->name) != nullptr && seen.emplace(module->name, module).second) {
      loaded.push_back(module);
    }
  }
  return loaded;
}

std::string schema_get_module_ns(const std::string &module_name)
{
  const lys_module *module = find_in(state.by_name, module_name);
  return module == nullptr ? std::string() : module->ns;
}

std::string schema_get_module_prefix(const std::string &module_name)
{
  for (const auto &[name, ns] : fixed_prefixes) {
    if (module_name == name) {
      return ns;
    }
  }
  const lys_module *module = find_in(state.by_name, module_name);
  return module == nullptr ? std::string() : module->prefix;
}

std::string schema_get_module_name(const std::string &ns)
{
  for (const auto &[fixed_ns, name] : fixed_names) {
    if (ns == fixed_ns) {
      return name;
    }
  }
  const lys_module *module = find_in(state.by_ns, ns);
  return module == nullptr ? std::string() : module->name;
}

const lys_module *schema_find_module(const char *token, size_t token_len)
{
  std::string_view text(token, token_len);
  const lys_module *module = find_in(state.by_name, text);
  return module != nullptr ? module : find_in(state.by_prefix, text);
}

std::string schema_make_toppath(const std::string &ns, const std::string &name)
{
  if (!ns.empty()) {
    std::string module_name = schema_get_module_name(ns);
    return module_name.empty() ? std::string() : "/" + module_name + ":" + name;
  }
  uint32_t index = 0;
  while (const lys_module *module = state.ctx == nullptr ? nullptr : ly_ctx_get_module_iter(state.ctx.get(), &index)) {
    if (module->implemented && has_top_data_node(module, name)) {
      return "/" + std::string(module->name) + ":" + name;
    }
  }
  return {};
}
