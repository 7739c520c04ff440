#include "ymgrd/datastore/ds_plugin_path.h"

#include <algorithm>

#include "libconf/plugin_path.h"
#include "ymgrd/database/database_path.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_value.h"

namespace {

constexpr uint16_t DATA_NODES = LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST | LYD_NODE_ANY;
constexpr uint16_t CHOICE_NODES = LYS_CHOICE | LYS_CASE;

int fail(std::string *ret_error, std::string message)
{
  *ret_error = std::move(message);
  return -1;
}

// A choice or case is not seen in data, but a path may name it.
const lysc_node *find_choice(const lysc_node *first, const lys_module *module, std::string_view name)
{
  for (const lysc_node *node = first; node != nullptr; node = node->next) {
    if (node->nodetype & CHOICE_NODES && node->module == module && name == node->name) {
      return node;
    }
  }
  return nullptr;
}

// `parent` is null at the top.
const lysc_node *find_child(const lysc_node *parent, const lys_module *module, std::string_view name)
{
  const lysc_node *node = nullptr;
  while ((node = lys_getnext(node, parent, parent == nullptr ? module->compiled : nullptr,
                             parent != nullptr && parent->nodetype == LYS_CHOICE ? LYS_GETNEXT_WITHCASE : 0))) {
    if (node->module == module && name == node->name && node->nodetype & (DATA_NODES | LYS_CASE)) {
      return node;
    }
  }
  return find_choice(parent == nullptr ? module->compiled->data : lysc_node_child(parent), module, name);
}

// One "[name=value,...]" after the other.
bool read_pairs(std::string_view predicates, std::vector<std::pair<std::string, std::string>> *ret_pairs)
{
  size_t open = 0;
  size_t close = 0;
  for (size_t from = 0; from < predicates.size(); from = close + 1) {
    if (!db_find_predicate(predicates, from, &open, &close) || open != from) {
      return false;
    }
    std::string_view inside = predicates.substr(open + 1, close - open - 1);
    std::string_view name;
    std::string value;
    while (!inside.empty()) {
      if (!db_next_predicate_pair(&inside, &name, &value)) {
        return false;
      }
      size_t colon = name.find(':');
      ret_pairs->emplace_back(name.substr(colon == std::string_view::npos ? 0 : colon + 1), std::move(value));
    }
  }
  return true;
}

std::string canonical_key(const lysc_node *key, const std::string &value)
{
  wiped_string canonical;
  LY_DATA_TYPE type = LY_TYPE_UNKNOWN;
  return schema_to_canonical_form(key, value, &canonical, &type) ? std::string(canonical) : value; // is no entry's key
}

int read_keys(std::string_view predicates, ds_step_t *step, std::string *ret_error)
{
  const lysc_node *schema = step->schema;
  std::vector<std::pair<std::string, std::string>> pairs;
  std::string name = schema->name;
  if (!read_pairs(predicates, &pairs)) {
    return fail(ret_error, "Keys of \"" + name + "\" are not understood.");
  }
  if (schema->nodetype == LYS_LEAFLIST) {
    if (pairs.size() != 1 || pairs[0].first != ".") {
      return fail(ret_error, "An entry of \"" + name + "\" is named by its value.");
    }
    step->keys.push_back(canonical_key(schema, pairs[0].second));
    return 0;
  }
  for (const lysc_node *key = lysc_node_child(schema); key != nullptr && lysc_is_key(key); key = key->next) {
    auto pair = std::find_if(pairs.begin(), pairs.end(), [key](const auto &each) { return each.first == key->name; });
    if (pair == pairs.end()) {
      return fail(ret_error, "An entry of \"" + name + "\" is named without its key \"" + key->name + "\".");
    }
    step->keys.push_back(canonical_key(key, pair->second));
    pairs.erase(pair);
  }
  return pairs.empty() && !step->keys.empty() ? 0 : fail(ret_error, "\"" + name + "\" has no such key.");
}

// Takes the first node off the front of a std path: its name and its predicates.
void next_segment(std::string_view *path, std::string_view *ret_name, std::string_view *ret_predicates)
{
  path->remove_prefix(1); // the slash
  size_t end = std::min(path->find_first_of("/["), path->size());
  *ret_name = path->substr(0, end);
  size_t open = 0;
  size_t close = 0;
  while (end < path->size() && (*path)[end] == '[' && db_find_predicate(*path, end, &open, &close)) {
    end = close + 1;
  }
  *ret_predicates = path->substr(ret_name->size(), end - ret_name->size());
  path->remove_prefix(end);
}

// Adds the node's step, but for a choice or case.
int add_step(const lysc_node *node, std::string_view predicates, ds_steps_t *steps, std::string *ret_error)
{
  if (node->nodetype & CHOICE_NODES && predicates.empty()) {
    return 0;
  }
  steps->push_back({node, {}});
  if (predicates.empty()) {
    return 0;
  }
  return node->nodetype & (LYS_LIST | LYS_LEAFLIST)
             ? read_keys(predicates, &steps->back(), ret_error)
             : fail(ret_error, "\"" + std::string(node->name) + "\" has no entries.");
}

} // namespace

int ds_parse_plugin_path(std::string_view path, ds_steps_t *ret_steps, std::string *ret_error)
{
  std::optional<std::string> std_path = plugin_path_data2std(path);
  if (!std_path) {
    return fail(ret_error, "Path \"" + std::string(path) + "\" is not understood.");
  }
  ds_steps_t steps;
  const lysc_node *parent = nullptr;
  const lys_module *module = nullptr;
  std::string_view rest = *std_path == "/" ? std::string_view() : *std_path;
  while (!rest.empty()) {
    std::string_view name;
    std::string_view predicates;
    next_segment(&rest, &name, &predicates);
    size_t colon = name.find(':');
    if (colon != std::string_view::npos) {
      module = ly_ctx_get_module_implemented(schema_ctx(), std::string(name.substr(0, colon)).c_str());
    }
    std::string_view local = name.substr(colon == std::string_view::npos ? 0 : colon + 1);
    parent = module == nullptr ? nullptr : find_child(parent, module, local);
    if (parent == nullptr) {
      return fail(ret_error, "Path \"" + *std_path + "\": there is no \"" + std::string(name) + "\".");
    }
    if (add_step(parent, predicates, &steps, ret_error) != 0) {
      return -1;
    }
  }
  *ret_steps = std::move(steps);
  return 0;
}

ds_path_t ds_path_of(const ds_steps_t &steps)
{
  ds_path_t path;
  for (const ds_step_t &step : steps) {
    path.push_back(&step);
  }
  return path;
}

bool ds_is_below_any(const ds_steps_t &steps, const std::vector<std::string> &schema_paths)
{
  for (const std::string &schema_path : schema_paths) {
    ds_steps_t above;
    std::string error;
    if (ds_parse_plugin_path(schema_path, &above, &error) != 0 || above.size() > steps.size()) {
      continue;
    }
    auto is_same = [](const ds_step_t &a, const ds_step_t &b) { return a.schema == b.schema; };
    if (std::equal(above.begin(), above.end(), steps.begin(), is_same)) {
      return true;
    }
  }
  return false;
}
