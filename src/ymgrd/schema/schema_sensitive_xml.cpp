#include "ymgrd/schema/schema_sensitive_xml.h"

#include <vector>

#include <libyang/libyang.h>

#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

const lysc_node *find_child(const lysc_node *parent, const sensitive_step_t &step)
{
  const lys_module *module = ly_ctx_get_module_implemented(schema_ctx(), step.module.c_str());
  if (module == nullptr) {
    return nullptr;
  }
  const lysc_node *child = lys_find_child(parent, module, step.name.c_str(), 0, 0, 0);
  // Of an operation that finds its input.
  return child != nullptr || parent == nullptr
             ? child
             : lys_find_child(parent, module, step.name.c_str(), 0, 0, LYS_GETNEXT_OUTPUT);
}

// The nodes of the leaf's steps, as far as the schema has them.
std::vector<const lysc_node *> find_nodes(const sensitive_config_t &leaf)
{
  std::vector<const lysc_node *> nodes;
  for (const sensitive_step_t &step : leaf.steps) {
    const lysc_node *node = find_child(nodes.empty() ? nullptr : nodes.back(), step);
    if (node == nullptr) {
      break;
    }
    nodes.push_back(node);
  }
  return nodes;
}

std::string quoted(const std::string &value)
{
  const char *quote = value.find('\'') == std::string::npos ? "'" : "\"";
  return quote + value + quote;
}

std::string predicates_of(const lysc_node *node, const lyxml_elem *elem)
{
  std::string predicates;
  for (const lysc_node *child = lysc_node_child(node); child != nullptr && lysc_is_key(child); child = child->next) {
    const lyxml_elem *key = lyxml_find_child(elem, child->name);
    if (key != nullptr) {
      predicates += std::string("[") + child->name + "=" + quoted(lyxml_text(key)) + "]";
    }
  }
  return predicates;
}

} // namespace

bool schema_check_sensitive_value(const sensitive_config_t &leaf, std::string_view value, wiped_string *ret_canonical)
{
  std::vector<const lysc_node *> nodes = find_nodes(leaf);
  if (nodes.size() == leaf.steps.size()) {
    return schema_check_sensitive(nodes.back(), value, ret_canonical);
  }
  ret_canonical->assign(value);
  return true;
}

std::string schema_sensitive_instance(const sensitive_config_t &leaf, const lyxml_elem *elem)
{
  std::vector<const lyxml_elem *> elems(leaf.steps.size());
  for (auto slot = elems.rbegin(); slot != elems.rend() && elem != nullptr; ++slot, elem = elem->parent) {
    *slot = elem;
  }
  std::vector<const lysc_node *> nodes = find_nodes(leaf);
  std::string path;
  std::string_view module;
  for (size_t i = 0; i < leaf.steps.size(); i++) {
    const sensitive_step_t &step = leaf.steps[i];
    path += step.module == module ? "/" + step.name : "/" + step.module + ":" + step.name;
    path += i < nodes.size() && elems[i] != nullptr ? predicates_of(nodes[i], elems[i]) : "";
    module = step.module;
  }
  return path;
}
