// How the check of an edit gets at the data: look-ups by schema node, and the evaluation of conditions.
#include "ymgrd/datastore/constraint_run.h"

namespace {

lyd_node *first_child(lyd_node *data, lyd_node *parent)
{
  return parent == nullptr ? data : lyd_child(parent);
}

bool visit_way(lyd_node *data, lyd_node *parent, const std::vector<const lysc_node *> &way, size_t depth,
               const std::function<bool(lyd_node *)> &visit)
{
  lyd_node *next = nullptr;
  for (lyd_node *node = constraint_find(data, parent, way[depth]); node != nullptr; node = next) {
    bool goes_on = node->next != nullptr && node->next->schema == way[depth]; // instances stand together
    next = goes_on ? node->next : nullptr;
    bool agreed = depth + 1 == way.size() ? visit(node) : visit_way(data, node, way, depth + 1, visit);
    if (!agreed) {
      return false;
    }
  }
  return true;
}

} // namespace

lyd_node *constraint_find(lyd_node *data, lyd_node *parent, const lysc_node *schema)
{
  lyd_node *first = first_child(data, parent);
  if (first == nullptr) {
    return nullptr;
  }
  if (schema->nodetype == LYS_LEAFLIST) { // libyang finds these by value only
    while (first != nullptr && first->schema != schema) {
      first = first->next;
    }
    return first;
  }
  lyd_node *match = nullptr;
  return lyd_find_sibling_val(first, schema, nullptr, 0, &match) == LY_SUCCESS ? match : nullptr;
}

bool constraint_is_there(lyd_node *data, lyd_node *parent, const lysc_node *schema)
{
  if (!(schema->nodetype & (LYS_CHOICE | LYS_CASE))) {
    return constraint_find(data, parent, schema) != nullptr;
  }
  for (const lysc_node *child = lysc_node_child(schema); child != nullptr; child = child->next) {
    if (constraint_is_there(data, parent, child)) {
      return true;
    }
  }
  return false;
}

bool constraint_is_hollow(const lyd_node *node)
{
  if (node->schema->nodetype != LYS_CONTAINER || (node->schema->flags & LYS_PRESENCE)) {
    return false;
  }
  for (const lyd_node *child = lyd_child(node); child != nullptr; child = child->next) {
    if (!constraint_is_hollow(child)) {
      return false;
    }
  }
  return true;
}

bool constraint_visit(lyd_node *data, lyd_node *region, const lysc_node *schema,
                      const std::function<bool(lyd_node *)> &visit)
{
  const lysc_node *top = region == nullptr ? nullptr : region->schema;
  if (top == schema) {
    return visit(region);
  }
  std::vector<const lysc_node *> way; // from below the region to the node
  for (const lysc_node *step = schema; step != top; step = lysc_data_parent(step)) {
    if (step == nullptr) {
      return false; // not below the region: a mistake of ours, which must not pass for "all visited"
    }
    way.insert(way.begin(), step);
  }
  return visit_way(data, region, way, 0, visit);
}

lyd_node *constraint_ancestor(lyd_node *node, const lysc_node *schema)
{
  while (node != nullptr && node->schema != schema) {
    node = lyd_parent(node);
  }
  return node;
}

std::optional<bool> constraint_evaluate(const constraint_t *constraint, const lyd_node *context)
{
  ly_bool result = 0;
  // The prefixes are only read.
  LY_ERR error =
      lyd_eval_xpath3(context, constraint->node->module, lyxp_get_expr(constraint->condition), LY_VALUE_SCHEMA_RESOLVED,
                      const_cast<lysc_prefix *>(constraint->prefixes), nullptr, &result);
  if (error != LY_SUCCESS) {
    return std::nullopt;
  }
  return result != 0;
}
