#include "ymgrd/crypto/encrypt_registry.h"

#include <algorithm>
#include <cctype>
#include <new>
#include <set>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"

namespace {

constexpr const char LIST_NAME[] = "LIST-sencitive";

// What is found by path, by step and by module. The records are those of the list.
struct registry_t {
  std::map<std::string, sensitive_config_t *, std::less<>> records; // by path
  sensitive_node_t root;
  std::set<std::string, std::less<>> names; // of the leaves themselves
  bool is_stale = false;                    // a record has gone: the tree and the names are to be made anew
  std::map<std::string, std::string, std::less<>> namespaces; // by module
};

registry_t &registry()
{
  static registry_t instance;
  return instance;
}

// RFC 7950, section 6.2
bool is_identifier(std::string_view name)
{
  auto is_letter = [](unsigned char c) { return std::isalpha(c) != 0 || c == '_'; };
  auto is_inner = [&](unsigned char c) { return is_letter(c) || std::isdigit(c) != 0 || c == '-' || c == '.'; };
  return !name.empty() && is_letter(static_cast<unsigned char>(name.front())) &&
         std::all_of(name.begin(), name.end(), is_inner);
}

// 0 with the step that `text` names, which stands in `module` unless it says otherwise; or -1.
int read_step(std::string_view text, const std::string &module, sensitive_step_t *ret_step)
{
  size_t colon = text.find(':');
  sensitive_step_t step;
  step.module = colon == std::string_view::npos ? module : std::string(text.substr(0, colon));
  step.name = colon == std::string_view::npos ? text : text.substr(colon + 1);
  if (!is_identifier(step.module) || !is_identifier(step.name)) {
    return -1;
  }
  *ret_step = std::move(step);
  return 0;
}

int read_steps(std::string_view path, std::vector<sensitive_step_t> *ret_steps)
{
  std::vector<sensitive_step_t> steps;
  while (!path.empty()) {
    if (path.front() != '/') {
      return -1;
    }
    path.remove_prefix(1);
    std::string_view text = path.substr(0, path.find('/'));
    path.remove_prefix(text.size());
    sensitive_step_t step;
    if (read_step(text, steps.empty() ? std::string() : steps.back().module, &step) != 0) {
      return -1;
    }
    steps.push_back(std::move(step));
  }
  if (steps.empty()) {
    return -1;
  }
  *ret_steps = std::move(steps);
  return 0;
}

// Module names only where they change, whatever the profile wrote.
std::string path_of(const std::vector<sensitive_step_t> &steps)
{
  std::string path;
  std::string_view module;
  for (const sensitive_step_t &step : steps) {
    path += step.module == module ? "/" + step.name : "/" + step.module + ":" + step.name;
    module = step.module;
  }
  return path;
}

void index_leaf(const sensitive_config_t &cfg, registry_t *known)
{
  sensitive_node_t *node = &known->root;
  for (const sensitive_step_t &step : cfg.steps) {
    auto [first, end] = node->children.equal_range(step.name);
    auto child = std::find_if(first, end, [&](const auto &entry) { return entry.second.module == step.module; });
    if (child == end) {
      child = node->children.emplace(step.name, sensitive_node_t());
      child->second.module = step.module;
    }
    node = &child->second;
  }
  node->leaf = &cfg;
  known->names.insert(cfg.steps.back().name);
}

void forget(const sensitive_config_t *cfg)
{
  registry_t &known = registry();
  auto record = known.records.find(cfg->path);
  if (record != known.records.end() && record->second == cfg) {
    known.records.erase(record);
    known.is_stale = true;
  }
}

const registry_t &up_to_date()
{
  registry_t &known = registry();
  if (known.is_stale) {
    known.root.children.clear();
    known.names.clear();
    for (const auto &[path, cfg] : known.records) {
      index_leaf(*cfg, &known);
    }
    known.is_stale = false;
  }
  return known;
}

void remove_from_list(const sensitive_config_t *cfg)
{
  for (int i = 0; i < context_list_size(LIST_NAME); i++) {
    if (context_get_list_entry(LIST_NAME, i) == cfg) {
      context_del_list_entry(LIST_NAME, i);
      return;
    }
  }
}

} // namespace

sensitive_config_t *encrypt_create_sensitives(const char *path)
{
  std::vector<sensitive_step_t> steps;
  if (path == nullptr || read_steps(path, &steps) != 0) {
    log_error("sensitive path format error.");
    return nullptr;
  }
  auto *cfg = new (std::nothrow) sensitive_config_t;
  if (cfg == nullptr) {
    log_error("Alloc memory failed.");
    return nullptr;
  }
  cfg->module = steps.front().module;
  cfg->path = path_of(steps);
  cfg->steps = std::move(steps);
  return cfg;
}

void encrypt_free_sensitive(sensitive_config_t *cfg)
{
  if (cfg != nullptr) {
    forget(cfg);
    delete cfg;
  }
}

int encrypt_save_sensitive(sensitive_config_t *cfg)
{
  registry_t &known = registry();
  if (known.records.count(cfg->path) != 0 || context_save_list_entry(LIST_NAME, cfg) < 0) {
    log_error("Save sensitive yang-module <%.512s> path <%.512s> failed.", cfg->module.c_str(), cfg->path.c_str());
    return -1;
  }
  known.records.emplace(cfg->path, cfg);
  index_leaf(*cfg, &known);
  return 0;
}

bool encrypt_has_sensitive()
{
  return !registry().records.empty();
}

std::vector<const sensitive_config_t *> encrypt_sensitives()
{
  std::vector<const sensitive_config_t *> leaves;
  for (const auto &[path, cfg] : registry().records) {
    leaves.push_back(cfg);
  }
  return leaves;
}

int encrypt_add_ns_prefix(const char *module, const char *ns, const char *prefix)
{
  if (module == nullptr || ns == nullptr || prefix == nullptr) {
    return -1;
  }
  registry_t &known = registry();
  known.namespaces[module] = ns;
  for (const auto &[path, cfg] : known.records) {
    if (cfg->module == module) {
      cfg->ns = ns;
      cfg->prefix = prefix;
    }
  }
  return 0;
}

std::string_view encrypt_module_ns(std::string_view module)
{
  auto found = registry().namespaces.find(module);
  return found == registry().namespaces.end() ? std::string_view() : std::string_view(found->second);
}

size_t encrypt_delete_sensitive(const char *module)
{
  size_t deleted = 0;
  for (const sensitive_config_t *leaf : encrypt_sensitives()) {
    if (leaf->module == module) {
      log_warn("Leaf <%.512s> is not protected any more: its module can not be used.", leaf->path.c_str());
      remove_from_list(leaf);
      encrypt_free_sensitive(registry().records.at(leaf->path));
      deleted++;
    }
  }
  return deleted;
}

const sensitive_config_t *encrypt_find_sensitive(std::string_view path)
{
  auto found = registry().records.find(path);
  return found == registry().records.end() ? nullptr : found->second;
}

bool encrypt_is_sensitive_name(std::string_view name)
{
  return up_to_date().names.count(name) != 0;
}

const sensitive_node_t &encrypt_sensitive_tree()
{
  return up_to_date().root;
}
