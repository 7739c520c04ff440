// What must, and what may not, be among the children of a node: mandatory nodes, numbers of entries, cases of a choice,
// and what the schema implies where nothing is stored.
#include "ymgrd/datastore/absent_node.h"
#include "ymgrd/datastore/constraint_run.h"

namespace {

bool is_mandatory(const lysc_node *schema)
{
  return (schema->nodetype & (LYS_LEAF | LYS_CHOICE | LYS_ANYDATA)) && (schema->flags & LYS_MAND_TRUE);
}

uint32_t minimum(const lysc_node *schema)
{
  if (schema->nodetype == LYS_LIST) {
    return reinterpret_cast<const lysc_node_list *>(schema)->min;
  }
  return schema->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(schema)->min : 0;
}

bool has_at_least(const lyd_node *first, uint32_t number)
{
  uint32_t count = 0;
  for (const lyd_node *node = first; node != nullptr && node->schema == first->schema && count < number;
       node = node->next) {
    count++;
  }
  return count >= number;
}

const lysc_node *default_case(const lysc_node *choice)
{
  return reinterpret_cast<const lysc_node *>(reinterpret_cast<const lysc_node_choice *>(choice)->dflt);
}

// Whether hollow containers stand in a case: whether they choose it depends on how they came there.
bool is_hollow_case(lyd_node *data, lyd_node *parent, const lysc_node *schema)
{
  if (schema->nodetype & (LYS_CHOICE | LYS_CASE)) {
    for (const lysc_node *child = lysc_node_child(schema); child != nullptr; child = child->next) {
      if (is_hollow_case(data, parent, child)) {
        return true;
      }
    }
    return false;
  }
  const lyd_node *node = schema->nodetype == LYS_CONTAINER ? constraint_find(data, parent, schema) : nullptr;
  return node != nullptr && constraint_is_hollow(node);
}

} // namespace

bool constraint_run::check_level(lyd_node *parent, const std::vector<const lysc_node *> &level)
{
  for (const lysc_node *schema : level) {
    if (!check_member(parent, schema)) {
      return false;
    }
  }
  return true;
}

bool constraint_run::check_member(lyd_node *parent, const lysc_node *schema)
{
  if (schema->nodetype == LYS_CHOICE) {
    return check_choice(parent, schema);
  }
  lyd_node *node = constraint_find(data_, parent, schema);
  if (node != nullptr) {
    return has_at_least(node, minimum(schema)) || is_ruled_out(parent, schema);
  }
  note_implied(schema, parent); // a when may just have begun or ceased to rule it out
  if (is_ruled_out(parent, schema)) {
    return true;
  }
  if (is_mandatory(schema) || minimum(schema) > 0) {
    return false;
  }
  if (schema->nodetype == LYS_CONTAINER) {
    return check_absent_container(parent, schema);
  }
  return imply(parent, schema);
}

bool constraint_run::check_choice(lyd_node *parent, const lysc_node *choice)
{
  const lysc_node *chosen = nullptr;
  for (const lysc_node *each = lysc_node_child(choice); each != nullptr; each = each->next) {
    if (!constraint_is_there(data_, parent, each)) {
      note_implied(each, parent);
    } else if (chosen != nullptr) {
      return false; // two cases
    } else if (is_hollow_case(data_, parent, each)) {
      return false;
    } else {
      chosen = each;
    }
  }
  if (chosen == nullptr) {
    if (is_mandatory(choice) && !is_ruled_out(parent, choice)) {
      return false;
    }
    chosen = default_case(choice);
  }
  return chosen == nullptr || check_level(parent, index_.rules(chosen).level);
}

bool constraint_run::check_absent_container(lyd_node *parent, const lysc_node *container)
{
  if (!imply(parent, container)) {
    return false;
  }
  for (const lysc_node *schema : index_.rules(container).level) {
    if (!check_absent_member(parent, schema)) {
      return false;
    }
  }
  return true;
}

// A node below an absent container, which `parent` would hold.
bool constraint_run::check_absent_member(lyd_node *parent, const lysc_node *schema)
{
  if (is_mandatory(schema) || minimum(schema) > 0) {
    return false;
  }
  if (schema->nodetype == LYS_CONTAINER) {
    return check_absent_container(parent, schema);
  }
  if (schema->nodetype != LYS_CHOICE) {
    return imply(parent, schema);
  }
  const lysc_node *preset = default_case(schema);
  if (preset == nullptr) {
    return true;
  }
  for (const lysc_node *each : index_.rules(preset).level) {
    if (!check_absent_member(parent, each)) {
      return false;
    }
  }
  return true;
}

bool constraint_run::imply(lyd_node *parent, const lysc_node *schema)
{
  if (!constraint_is_implied(schema)) {
    return true;
  }
  note_difference(schema, parent, nullptr);
  implied_->insert(schema);
  const node_rules_t &rules = index_.rules(schema);
  for (const constraint_t *constraint : rules.own) {
    if (constraint->kind == CONSTRAINT_MUST) {
      return false; // there is no node on which it could be evaluated
    }
  }
  return rules.value == nullptr && !rules.is_foreign;
}

bool constraint_run::is_ruled_out(lyd_node *parent, const lysc_node *schema)
{
  if (parent == nullptr) {
    return false;
  }
  for (const constraint_t *constraint : index_.rules(schema).own) {
    if (constraint->kind != CONSTRAINT_WHEN) {
      continue;
    }
    evaluated_.insert(constraint);
    std::optional<bool> result = absent_node_condition(parent, constraint->node, constraint->condition,
                                                       constraint->prefixes, constraint->on_parent);
    if (result == std::optional<bool>(false)) {
      return true;
    }
  }
  return false;
}
