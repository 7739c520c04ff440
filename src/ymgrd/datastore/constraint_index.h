// The constraints of the loaded schema, found from the nodes that they look at: whoever changes a node learns which
// conditions, references and counts may come out differently, and in which part of the data. Built once; read-only.
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include <libyang/libyang.h>

typedef enum _constraint_kind {
  CONSTRAINT_MUST = 0,
  CONSTRAINT_WHEN,
  CONSTRAINT_VALUE, // the value of a leaf or leaf-list entry must be found elsewhere: leafref, instance-identifier
} constraint_kind_t;

typedef struct _constraint {
  constraint_kind_t kind;
  const lysc_node *node; // carries it; for a when also a choice or case
  // MUST, WHEN
  const lyxp_expr *condition = nullptr;
  const lysc_prefix *prefixes = nullptr;
  bool on_parent = false; // WHEN: evaluated on the data parent, not on the node itself
  // Nodes that count for the result even where they are only implied by the schema (defaults, empty containers).
  std::vector<const lysc_node *> implied;
  // It looks at conditional nodes of a tree that another module owns. libyang validates module by module, and may not
  // know yet whether those nodes stand: what comes out depends on its order, so the decision is its own.
  bool needs_libyang = false;
  bool looks_anywhere = false; // what it looks at is not known: every change concerns it
  // VALUE: a plain reference to one leaf that is no key, without conditions: its targets can be looked up in a set.
  const lysc_node *target = nullptr;
  const lysc_node *target_region = nullptr; // the targets are below this ancestor of `node`; null: anywhere
} constraint_t;

// A constraint that looks at a node. Instances of the constraint's node that are affected have the nearest ancestor
// of `region` in common with the changed node; null: all are affected.
typedef struct _constraint_look {
  const constraint_t *constraint;
  const lysc_node *region;
  bool only_lost_values; // a reference: affected are those whose value went
} constraint_look_t;

// A sensitive leaf whose value a condition looks at: those instances that have the nearest ancestor of `region` in
// common with the node on which it is evaluated; null: all.
typedef struct _secret_look {
  const lysc_node *leaf;
  const lysc_node *region;
} secret_look_t;

typedef struct _unique_rule {
  const lysc_node_list *list;
  lysc_node_leaf **leafs; // sized array
} unique_rule_t;

// What holds for one schema node.
typedef struct _node_rules {
  std::vector<constraint_look_t> looks;
  std::vector<const constraint_t *> own; // its musts, and the whens of itself and of the choices and cases around it
  const constraint_t *value = nullptr;
  std::vector<unique_rule_t> uniques;   // of lists around it, which name it (or of itself: a new entry)
  bool is_foreign = false;              // extensions or types have a say that only libyang can evaluate
  std::vector<const lysc_node *> level; // children that count when absent: mandatory, default, min-elements, choices
} node_rules_t;

// Keeps libyang from logging while it lives.
class quiet_libyang {
public:
  quiet_libyang() : before_(ly_log_options(0)) {}
  quiet_libyang(const quiet_libyang &) = delete;
  quiet_libyang &operator=(const quiet_libyang &) = delete;
  ~quiet_libyang() { ly_log_options(before_); }

private:
  uint32_t before_;
};

class constraint_index {
public:
  explicit constraint_index(const ly_ctx *ctx);

  const node_rules_t &rules(const lysc_node *schema) const;
  // The top-level nodes of a module that count when absent.
  const std::vector<const lysc_node *> &top_level(const lys_module *module) const;
  const std::vector<const constraint_t *> &looking_anywhere() const { return anywhere_; }
  // Values that name an instance of any kind.
  const std::vector<const constraint_t *> &instance_identifiers() const { return instance_identifiers_; }
  // The sensitive leaves at which a must or when looks; those at which any condition or unique statement does.
  const std::vector<secret_look_t> &secrets(const lyxp_expr *condition) const;
  const std::vector<const lysc_node *> &secrets() const { return secrets_; }

private:
  friend class constraint_builder;

  std::unordered_map<const lysc_node *, node_rules_t> rules_;
  std::unordered_map<const lys_module *, std::vector<const lysc_node *>> top_levels_;
  std::vector<std::unique_ptr<constraint_t>> constraints_;
  std::vector<const constraint_t *> anywhere_;
  std::vector<const constraint_t *> instance_identifiers_;
  std::unordered_map<const lyxp_expr *, std::vector<secret_look_t>> secret_looks_;
  std::vector<const lysc_node *> secrets_;
};

// Whether an absent node may count: something below it is mandatory, has a default, or is an empty container.
bool constraint_counts_when_absent(const lysc_node *schema);
// Whether libyang implies the node, or nodes below it, where it is absent.
bool constraint_is_implied(const lysc_node *schema);
