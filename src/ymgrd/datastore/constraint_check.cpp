#include "ymgrd/datastore/constraint_check.h"

#include "ymgrd/datastore/constraint_run.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

uint32_t maximum(const lysc_node *schema)
{
  if (schema->nodetype == LYS_LIST) {
    return reinterpret_cast<const lysc_node_list *>(schema)->max;
  }
  return schema->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(schema)->max : UINT32_MAX;
}

bool is_term(const lysc_node *schema)
{
  return schema->nodetype & LYD_NODE_TERM;
}

// Whether `schema` is below `above` (null: the root), or is it.
bool is_below(const lysc_node *schema, const lysc_node *above)
{
  while (schema != nullptr && schema != above) {
    schema = lysc_data_parent(schema);
  }
  return schema == above;
}

// Entries of the list around `entry`, which stand together; counted up to `limit`.
uint32_t count_entries(const lyd_node *entry, uint32_t limit)
{
  uint32_t count = 1;
  for (const lyd_node *node = entry->next; node != nullptr && node->schema == entry->schema && count < limit;
       node = node->next) {
    count++;
  }
  // The first sibling's prev is the last one.
  for (const lyd_node *node = entry;
       node->prev->next != nullptr && node->prev->schema == entry->schema && count < limit; node = node->prev) {
    count++;
  }
  return count;
}

} // namespace

bool constraint_check(const constraint_index &index, lyd_node *data, const edit_changes &changes,
                      implied_nodes_t *implied)
{
  quiet_libyang quiet; // a condition that cannot be evaluated is reported by the full validation
  return constraint_run(index, data, changes, implied).run();
}

bool constraint_run::run()
{
  for (const edit_change_t &change : changes_.all()) {
    if (!note(change)) {
      return false;
    }
  }
  for (const constraint_t *constraint : index_.looking_anywhere()) {
    add_due(constraint, nullptr, nullptr);
  }
  if (removes_) {
    for (const constraint_t *constraint : index_.instance_identifiers()) {
      add_due(constraint, nullptr, nullptr);
    }
  }
  return check_whens_and_levels() && check_musts() && check_values() && check_uniques() && check_maximums() &&
         check_implied();
}

// --- What is to be checked.

bool constraint_run::note(const edit_change_t &change)
{
  // A node that the same edit made and removed, or changed and removed with what is around it: too rare to follow.
  if (!changes_.is_live(change.kind == EDIT_REMOVED ? change.parent : change.node)) {
    return false;
  }
  switch (change.kind) {
  case EDIT_CREATED:
    return note_created(change.node);
  case EDIT_VALUE:
    return note_value(change);
  case EDIT_MOVED:
    return note_moved(change.node);
  case EDIT_REMOVED:
    return note_removed(change);
  }
  return false;
}

bool constraint_run::note_created(lyd_node *top)
{
  add_levels_around(lyd_parent(top), lyd_owner_module(top));
  lyd_node *node = nullptr;
  LYD_TREE_DFS_BEGIN(top, node)
  {
    if (node->schema == nullptr) {
      return false;
    }
    const node_rules_t &rules = index_.rules(node->schema);
    if (rules.is_foreign) {
      return false;
    }
    note_difference(node->schema, node, nullptr);
    add_own(rules, node);
    note_uniques(rules, node);
    if (!rules.level.empty()) {
      add_level(node, nullptr);
    }
    if (maximum(node->schema) != UINT32_MAX) {
      due_maximums_.try_emplace({node->schema, lyd_parent(node)}, node);
    }
    LYD_TREE_DFS_END(top, node);
  }
  return true;
}

bool constraint_run::note_value(const edit_change_t &change)
{
  const lysc_node *schema = change.node->schema;
  const node_rules_t &rules = index_.rules(schema);
  if (change.before == nullptr || rules.is_foreign) {
    return false;
  }
  note_difference(schema, change.node, is_term(schema) ? lyd_get_value(change.before.get()) : nullptr);
  add_own(rules, change.node);
  note_uniques(rules, change.node);
  return true;
}

bool constraint_run::note_moved(lyd_node *entry)
{
  lyd_node *node = nullptr;
  LYD_TREE_DFS_BEGIN(entry, node)
  {
    note_difference(node->schema, node, nullptr);
    LYD_TREE_DFS_END(entry, node);
  }
  return true;
}

bool constraint_run::note_removed(const edit_change_t &change)
{
  removes_ = true;
  lyd_node *top = change.before.get();
  add_levels_around(change.parent, top->schema->module);
  lyd_node *node = nullptr;
  LYD_TREE_DFS_BEGIN(top, node)
  {
    const node_rules_t &rules = index_.rules(node->schema);
    if (rules.is_foreign) {
      return false;
    }
    note_difference(node->schema, change.parent, is_term(node->schema) ? lyd_get_value(node) : nullptr);
    note_uniques(rules, change.parent);
    for (const lysc_node *child : rules.level) {
      note_implied(child, change.parent);
    }
    LYD_TREE_DFS_END(top, node);
  }
  return true;
}

void constraint_run::note_difference(const lysc_node *schema, lyd_node *place, const char *lost)
{
  for (const constraint_look_t &look : index_.rules(schema).looks) {
    if (look.only_lost_values && lost == nullptr && !constraint_is_implied(schema)) {
      continue; // an implied value may go without a node
    }
    lyd_node *region = look.region == nullptr ? nullptr : constraint_ancestor(place, look.region);
    if (look.region != nullptr && region == nullptr &&
        is_below(look.region, place == nullptr ? nullptr : place->schema)) {
      continue; // the instances around it came or went with it
    }
    add_due(look.constraint, region, look.only_lost_values ? lost : nullptr);
  }
}

void constraint_run::note_implied(const lysc_node *schema, lyd_node *place)
{
  if (!constraint_is_implied(schema)) {
    return;
  }
  if (schema->nodetype & (LYS_CHOICE | LYS_CASE)) {
    for (const lysc_node *child = lysc_node_child(schema); child != nullptr; child = child->next) {
      note_implied(child, place);
    }
    return;
  }
  note_difference(schema, place, nullptr);
  for (const lysc_node *child : index_.rules(schema).level) {
    note_implied(child, place);
  }
}

void constraint_run::note_uniques(const node_rules_t &rules, lyd_node *place)
{
  for (const unique_rule_t &rule : rules.uniques) {
    lyd_node *entry = constraint_ancestor(place, &rule.list->node);
    if (entry != nullptr) {
      lyd_node *parent = lyd_parent(entry);
      auto [found, is_new] = due_uniques_.try_emplace({rule.leafs, parent}, due_unique_t{rule, parent, {}});
      found->second.changed.insert(entry);
    }
  }
}

// `lost` concerns references only: the value that they may have had; null for any.
void constraint_run::add_due(const constraint_t *constraint, lyd_node *region, const char *lost)
{
  // Where the node of a when is implied its level is looked at, unless the parent is implied too.
  bool is_when = constraint->kind == CONSTRAINT_WHEN;
  all_instances_.insert(is_when ? lysc_data_parent(constraint->node) : constraint->node);
  if (constraint->kind == CONSTRAINT_VALUE) {
    lost_values_[{constraint, region}].insert(lost);
  }
  if (!known_due_.insert({constraint, region}).second) {
    return;
  }
  if (constraint->kind == CONSTRAINT_WHEN) {
    due_whens_.push_back({constraint, region});
  } else if (constraint->kind == CONSTRAINT_MUST) {
    due_musts_.push_back({constraint, region});
  } else {
    due_values_.push_back({constraint, region});
  }
}

void constraint_run::add_own(const node_rules_t &rules, lyd_node *node)
{
  for (const constraint_t *constraint : rules.own) {
    lyd_node *region = constraint->on_parent ? lyd_parent(node) : node;
    if (!known_due_.insert({constraint, region}).second) {
      continue;
    }
    (constraint->kind == CONSTRAINT_WHEN ? due_whens_ : due_musts_).push_back({constraint, region});
  }
  if (rules.value != nullptr) {
    own_values_.emplace_back(rules.value, node);
  }
}

void constraint_run::add_level(lyd_node *parent, const lys_module *module)
{
  if (parent != nullptr) {
    module = nullptr;
  }
  if (known_levels_.insert({parent, module}).second) {
    due_levels_.push_back({parent, module});
  }
}

void constraint_run::add_levels_around(lyd_node *parent, const lys_module *module)
{
  add_level(parent, module);
  while (parent != nullptr && parent->schema->nodetype == LYS_CONTAINER && !(parent->schema->flags & LYS_PRESENCE)) {
    const lysc_node *schema = parent->schema;
    parent = lyd_parent(parent);
    if (schema->parent != nullptr && schema->parent->nodetype == LYS_CASE) {
      add_level(parent, schema->module);
    }
  }
}

// --- The checks.

bool constraint_run::check_whens_and_levels()
{
  size_t whens = 0;
  size_t levels = 0;
  while (whens < due_whens_.size() || levels < due_levels_.size()) { // each may make work for the other
    if (whens < due_whens_.size()) {
      due_t due = due_whens_[whens++];
      if (!check_when(due)) {
        return false;
      }
      continue;
    }
    due_level_t due = due_levels_[levels++];
    const std::vector<const lysc_node *> &level =
        due.parent == nullptr ? index_.top_level(due.module) : index_.rules(due.parent->schema).level;
    if (!check_level(due.parent, level)) {
      return false;
    }
  }
  return true;
}

bool constraint_run::check_when(const due_t &due)
{
  const constraint_t *when = due.constraint;
  if (due.region != nullptr && due.region->schema == when->node) {
    return holds(when, due.region); // a new node that carries it
  }
  const lysc_node *parent = lysc_data_parent(when->node);
  if (parent == nullptr) {
    return check_when_below(when, nullptr);
  }
  return constraint_visit(data_, due.region, parent,
                          [this, when](lyd_node *node) { return check_when_below(when, node); });
}

bool constraint_run::check_when_below(const constraint_t *when, lyd_node *parent)
{
  if (!constraint_is_there(data_, parent, when->node)) {
    if (constraint_counts_when_absent(when->node)) {
      add_level(parent, when->node->module);
    }
    return true;
  }
  if (when->on_parent) {
    return parent != nullptr && holds(when, parent);
  }
  lyd_node *region = parent;
  return constraint_visit(data_, region, when->node, [this, when](lyd_node *node) { return holds(when, node); });
}

bool constraint_run::check_musts()
{
  for (const due_t &due : due_musts_) {
    const constraint_t *must = due.constraint;
    if (!constraint_visit(data_, due.region, must->node, [this, must](lyd_node *node) { return holds(must, node); })) {
      return false;
    }
  }
  return true;
}

bool constraint_run::check_values()
{
  for (const auto &[constraint, node] : own_values_) {
    if (!references_.finds(constraint, node)) {
      return false;
    }
  }
  for (const due_t &due : due_values_) {
    const constraint_t *constraint = due.constraint;
    const std::unordered_set<const char *> &lost = lost_values_[{constraint, due.region}];
    bool any = lost.contains(nullptr);
    bool found = constraint_visit(data_, due.region, constraint->node, [&](lyd_node *node) {
      return (!any && !lost.contains(lyd_get_value(node))) || references_.finds(constraint, node);
    });
    if (!found) {
      return false;
    }
  }
  return true;
}

void constraint_run::open_unique(const due_unique_t &due)
{
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(due.rule.leafs, i)
  {
    if (schema_is_sensitive(&due.rule.leafs[i]->node)) {
      clear_.open(data_, due.parent, &due.rule.leafs[i]->node);
    }
  }
}

bool constraint_run::check_uniques()
{
  for (const auto &[key, due] : due_uniques_) {
    open_unique(due);
    if (!constraint_is_unique(due.rule, data_, due.parent, due.changed)) {
      return false;
    }
  }
  return true;
}

bool constraint_run::check_maximums()
{
  for (const auto &[key, entry] : due_maximums_) {
    uint32_t most = maximum(entry->schema);
    if (count_entries(entry, most + 1) > most) {
      return false;
    }
  }
  return true;
}

bool constraint_run::check_implied()
{
  for (const constraint_t *constraint : evaluated_) {
    if (constraint->looks_anywhere && !implied_->empty()) {
      return false;
    }
    for (const lysc_node *node : constraint->implied) {
      if (implied_->contains(node)) {
        return false;
      }
    }
  }
  for (const lysc_node *node : all_instances_) {
    if (implied_->contains(node)) {
      return false;
    }
  }
  return true;
}

bool constraint_run::holds(const constraint_t *constraint, const lyd_node *context)
{
  if (constraint->needs_libyang) {
    return false;
  }
  evaluated_.insert(constraint);
  clear_.open_for(index_, constraint->condition, data_, const_cast<lyd_node *>(context));
  return constraint_evaluate(constraint, context) == std::optional<bool>(true);
}
