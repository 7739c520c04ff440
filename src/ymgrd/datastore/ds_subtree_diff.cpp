#include "ymgrd/datastore/datastore_internal.h"

differ_node_t *ds_subtree_diff(std::string *key, const lyd_node *node, ENUM_ACTION action)
{
  const char *schema_key = dbkey_schema_key(node->schema);
  differ_tree_ptr diff(schema_key == nullptr ? nullptr
                                             : new_differ_node(key->c_str(), schema_key, action, node, nullptr));
  if (diff == nullptr) {
    return nullptr;
  }
  size_t length = key->size();
  differ_node_t *last = nullptr;
  for (const lyd_node *child = lyd_child_no_keys(node); child != nullptr; child = child->next) {
    dbkey_append(key, child);
    differ_node_t *below = ds_subtree_diff(key, child, action);
    key->resize(length);
    if (below == nullptr) {
      return nullptr;
    }
    differ_node_add_child(diff.get(), last, below);
    last = below;
  }
  return diff.release();
}
