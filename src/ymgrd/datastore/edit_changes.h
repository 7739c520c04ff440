// What one edit did to a data tree, node by node: what the check of its consequences starts from, and what it takes to
// undo the edit. Nodes that the edit took out live on here, so no pointer of the record dangles while the record lives.
//
// The `priv` of the nodes of a datastore's tree belongs to this class: it marks the nodes that an edit made, and the
// first node of a tree that passed validation.
#pragma once

#include <cstdint>
#include <unordered_set>
#include <vector>

#include <libyang/libyang.h>

#include "ymgrd/core/handles.h"

typedef enum _edit_change_kind { EDIT_CREATED = 0, EDIT_VALUE, EDIT_MOVED, EDIT_REMOVED } edit_change_kind_t;

typedef struct _edit_change {
  edit_change_kind_t kind;
  lyd_node *node;      // in the tree: the top of what was created, the leaf with its new value, the moved entry
  lyd_node *parent;    // of a removed or moved node, at that time; null at top level
  lyd_node *previous;  // the sibling behind which a removed or moved node stood; null: it was the first
  lyd_tree_ptr before; // the leaf with its old value (without siblings), the removed subtree
  // A move or removal in something that the edit made: it goes with that, and not every step in there is recorded.
  bool is_in_created = false;
} edit_change_t;

class edit_changes {
public:
  // Begins with a tree (null: an empty one), whose stamp it takes off: whoever changes it must validate it again.
  void begin(lyd_node *first);
  // The stamp that the tree had; 0 when it had none. An empty tree needs none.
  uint64_t stamp() const { return stamp_; }
  bool was_empty() const { return was_empty_; }

  void created(lyd_node *node);       // linked already; below a created node nothing more is recorded
  void value_changes(lyd_node *node); // still with its old value
  void moves(lyd_node *node);         // still in its old place
  void remove(lyd_node *subtree);     // takes it out of the tree, and over

  // Takes everything back, last step first: `*data`, the tree as the steps left it, is again what it was at begin(),
  // with its order and its stamp, as far as it held no implicit nodes. The record is empty then. False when that cannot
  // be told for sure; then the tree is of no use.
  bool undo(lyd_tree_ptr *data);

  const std::vector<edit_change_t> &all() const { return all_; }
  // Whether the node is still in the tree, not in something that was removed.
  bool is_live(const lyd_node *node) const;

private:
  bool is_in_created(const lyd_node *node) const;

  std::vector<edit_change_t> all_;
  std::unordered_set<const lyd_node *> removed_; // the tops of what was removed
  uint64_t mark_ = 0;                            // in the `priv` of created nodes
  uint64_t stamp_ = 0;
  lyd_node *first_ = nullptr; // the first top node at begin()
  bool was_empty_ = false;
};

// Stamps a tree that passed validation; the stamp is unique. 0 for an empty tree.
uint64_t edit_stamp_tree(lyd_node *first);
