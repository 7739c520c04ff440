// Diff trees as tests write them: node("/m:c", DBDIFF_CHAIN, {node("/m:c/v", DBDIFF_MOD)}).
#pragma once

#include <string>
#include <vector>

#include "ymgrd/broker/differ_tree.h"

// The schema path is the path with its predicates emptied.
inline differ_node_t *node(const std::string &path, int code, const std::vector<differ_node_t *> &children = {})
{
  std::string schema_path = path;
  for (size_t open = schema_path.find('['); open != std::string::npos; open = schema_path.find('[', open + 2)) {
    schema_path.erase(open + 1, schema_path.find(']', open) - open - 1);
  }
  auto action = static_cast<ENUM_ACTION>(code);
  differ_node_t *made = new_differ_node(path.c_str(), schema_path.c_str(), action, nullptr, nullptr);
  differ_node_t *last = nullptr;
  for (differ_node_t *child : children) {
    differ_node_add_child(made, last, child);
    last = child;
  }
  return made;
}

inline differ_node_t *list(const std::vector<differ_node_t *> &nodes)
{
  differ_node_t *last = nullptr;
  for (differ_node_t *one : nodes) {
    differ_node_add_sibling(last, last, one);
    last = one;
  }
  return nodes.front();
}
