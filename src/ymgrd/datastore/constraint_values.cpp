// Values that must be found elsewhere (leafref, instance-identifier) or nowhere else (unique).
#include <cstring>

#include "ymgrd/datastore/constraint_run.h"

namespace {

// An instance-identifier that is no member of a union names its target by itself.
const ly_path *named_target(const lyd_node *node)
{
  const lyd_value &value = reinterpret_cast<const lyd_node_term *>(node)->value;
  return value.realtype->basetype == LY_TYPE_INST ? value.target : nullptr;
}

// The leaf of a unique rule in an entry; null when it is not there.
const lyd_node *find_leaf(lyd_node *entry, const lysc_node *leaf)
{
  const lysc_node *container = lysc_data_parent(leaf);
  lyd_node *parent = entry;
  if (container != entry->schema) {
    parent = const_cast<lyd_node *>(find_leaf(entry, container));
  }
  return parent == nullptr ? nullptr : constraint_find(nullptr, parent, leaf);
}

// The values that take part in the comparison, as a key; empty when one is missing.
std::string unique_key(const unique_rule_t &rule, lyd_node *entry)
{
  std::string key;
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(rule.leafs, i)
  {
    const lysc_node_leaf *leaf = rule.leafs[i];
    const lyd_node *node = find_leaf(entry, &leaf->node);
    const char *value = nullptr;
    if (node != nullptr) {
      value = lyd_get_value(node);
    } else if (leaf->dflt != nullptr) {
      value = lyd_value_get_canonical(leaf->module->ctx, leaf->dflt);
    }
    if (value == nullptr) {
      return {};
    }
    key.append(reinterpret_cast<const char *>(&value), sizeof value); // interned: the pointer stands for the text
  }
  return key;
}

} // namespace

bool reference_lookup::finds(const constraint_t *constraint, lyd_node *node)
{
  if (constraint->target == nullptr) {
    if (const ly_path *target = named_target(node)) {
      return lyd_find_target(target, data_, nullptr) == LY_SUCCESS;
    }
    const char *value = lyd_get_value(node);
    return lyd_value_validate(nullptr, node->schema, value, std::strlen(value), node, nullptr, nullptr) == LY_SUCCESS;
  }
  lyd_node *region = nullptr;
  if (constraint->target_region != nullptr) {
    region = constraint_ancestor(node, constraint->target_region);
  }
  auto [found, is_new] = values_.try_emplace({constraint->target, region});
  std::unordered_set<const char *> &values = found->second;
  if (is_new) {
    (void)constraint_visit(data_, region, constraint->target, [&values](lyd_node *target) {
      values.insert(lyd_get_value(target));
      return true;
    });
  }
  return values.contains(lyd_get_value(node));
}

bool constraint_is_unique(const unique_rule_t &rule, lyd_node *data, lyd_node *parent,
                          const std::unordered_set<lyd_node *> &changed)
{
  std::unordered_set<std::string> keys;
  for (lyd_node *entry : changed) {
    std::string key = unique_key(rule, entry);
    if (!key.empty() && !keys.insert(std::move(key)).second) {
      return false;
    }
  }
  if (keys.empty()) {
    return true;
  }
  return constraint_visit(data, parent, &rule.list->node, [&](lyd_node *entry) {
    return changed.contains(entry) || !keys.contains(unique_key(rule, entry));
  });
}
