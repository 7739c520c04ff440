// One run of the check of an edit: what its sources share.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ymgrd/datastore/constraint_check.h"
#include "ymgrd/datastore/ds_clear_values.h"

// Pairs of pointers, as a key.
using pointer_pair_t = std::pair<const void *, const void *>;
struct pointer_pair_hash {
  size_t operator()(const pointer_pair_t &pair) const
  {
    return std::hash<const void *>()(pair.first) * 31 + std::hash<const void *>()(pair.second);
  }
};
using pointer_pair_set = std::unordered_set<pointer_pair_t, pointer_pair_hash>;
template <class T>
using pointer_pair_map = std::unordered_map<pointer_pair_t, T, pointer_pair_hash>;

// --- constraint_data.cpp: access to the data, whose first top node is `data`.

// First instance of `schema` among the children of `parent` (null: the top nodes); null when there is none.
lyd_node *constraint_find(lyd_node *data, lyd_node *parent, const lysc_node *schema);
// Whether there is an instance; of a choice or case: of any data node in it.
bool constraint_is_there(lyd_node *data, lyd_node *parent, const lysc_node *schema);
// Whether the node says no more than if it were absent: a plain container with nothing in it but its like.
bool constraint_is_hollow(const lyd_node *node);
// Calls `visit` with each instance of `schema` below `region` (null: the whole tree), or with `region` when it is one.
// False as soon as a call returns false.
bool constraint_visit(lyd_node *data, lyd_node *region, const lysc_node *schema,
                      const std::function<bool(lyd_node *)> &visit);
// The nearest of `node` and its ancestors that is an instance of `schema`; null when there is none.
lyd_node *constraint_ancestor(lyd_node *node, const lysc_node *schema);
// The result of a must or when evaluated on `context`; nothing when it cannot be evaluated.
std::optional<bool> constraint_evaluate(const constraint_t *constraint, const lyd_node *context);

// --- constraint_values.cpp: values that must be found elsewhere, or nowhere else.

class reference_lookup {
public:
  explicit reference_lookup(lyd_node *data) : data_(data) {}
  // Whether what the value of `node` names is there.
  bool finds(const constraint_t *constraint, lyd_node *node);

private:
  lyd_node *data_;
  // By target and region: the values that are there, read once for all references of a run. Canonical values are
  // interned: equal ones are one pointer.
  pointer_pair_map<std::unordered_set<const char *>> values_;
};

// Whether none of the `changed` entries of a list agrees with another entry below `parent` in all leafs of the rule.
bool constraint_is_unique(const unique_rule_t &rule, lyd_node *data, lyd_node *parent,
                          const std::unordered_set<lyd_node *> &changed);

// --- constraint_check.cpp, constraint_level.cpp

class constraint_run {
public:
  constraint_run(const constraint_index &index, lyd_node *data, const edit_changes &changes, implied_nodes_t *implied)
      : index_(index), data_(data), changes_(changes), implied_(implied), references_(data)
  {
  }

  bool run();

private:
  // A constraint and where it must hold: for all its instances below the region, or for the region if it is one.
  typedef struct _due {
    const constraint_t *constraint;
    lyd_node *region; // null: the whole tree
  } due_t;
  // Children of a node, or top nodes of a module, that have to be there or not.
  typedef struct _due_level {
    lyd_node *parent; // null: the module's top nodes
    const lys_module *module;
  } due_level_t;
  typedef struct _due_unique {
    unique_rule_t rule;
    lyd_node *parent;
    std::unordered_set<lyd_node *> changed;
  } due_unique_t;

  // --- What an edit did becomes what is to be checked. False when that cannot be told.
  bool note(const edit_change_t &change);
  bool note_created(lyd_node *top);
  bool note_value(const edit_change_t &change);
  bool note_moved(lyd_node *entry);
  bool note_removed(const edit_change_t &change);
  // Something about `schema` is different at `place`: an instance of it, or the node below which it is, was, or is
  // implied. `lost` is a value that is gone; null when there is none.
  void note_difference(const lysc_node *schema, lyd_node *place, const char *lost);
  // Implied nodes may come and go with `schema`, which is absent below `place`.
  void note_implied(const lysc_node *schema, lyd_node *place);
  void note_uniques(const node_rules_t &rules, lyd_node *place);
  void add_due(const constraint_t *constraint, lyd_node *region, const char *lost);
  void add_own(const node_rules_t &rules, lyd_node *node);
  void add_level(lyd_node *parent, const lys_module *module);
  // The level where a node came or went, and those above it for which that may decide about a case.
  void add_levels_around(lyd_node *parent, const lys_module *module);

  // --- The checks. False when one fails or cannot be made.
  bool check_whens_and_levels();
  bool check_when(const due_t &due);
  bool check_when_below(const constraint_t *when, lyd_node *parent);
  bool check_musts();
  bool check_values();
  bool check_uniques();
  void open_unique(const due_unique_t &due);
  bool check_maximums();
  // Nothing that was evaluated depends on nodes that are implied, not stored.
  bool check_implied();
  bool holds(const constraint_t *constraint, const lyd_node *context);

  bool check_level(lyd_node *parent, const std::vector<const lysc_node *> &level);
  bool check_member(lyd_node *parent, const lysc_node *schema);
  bool check_choice(lyd_node *parent, const lysc_node *choice);
  bool check_absent_container(lyd_node *parent, const lysc_node *container);
  bool check_absent_member(lyd_node *parent, const lysc_node *schema);
  bool imply(lyd_node *parent, const lysc_node *schema);
  // Whether a when keeps an absent node out; false when that cannot be told.
  bool is_ruled_out(lyd_node *parent, const lysc_node *schema);

  const constraint_index &index_;
  lyd_node *data_;
  const edit_changes &changes_;
  implied_nodes_t *implied_;
  reference_lookup references_;
  ds_clear_values clear_; // what was evaluated so far looks at; nothing as a rule

  pointer_pair_set known_due_; // constraint and region
  std::vector<due_t> due_whens_;
  std::vector<due_t> due_musts_;
  std::vector<due_t> due_values_;
  pointer_pair_map<std::unordered_set<const char *>> lost_values_; // of due values; null among them: any may be lost
  std::vector<std::pair<const constraint_t *, lyd_node *>> own_values_;
  pointer_pair_set known_levels_; // parent and module
  std::vector<due_level_t> due_levels_;
  pointer_pair_map<due_unique_t> due_uniques_; // by leafs and parent
  pointer_pair_map<lyd_node *> due_maximums_;  // by list and parent: one of the entries
  std::unordered_set<const constraint_t *> evaluated_;
  std::unordered_set<const lysc_node *> all_instances_; // nodes all of whose instances count, the implied ones too
  bool removes_ = false;
};
