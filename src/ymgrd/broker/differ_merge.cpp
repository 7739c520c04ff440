#include <cstddef>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "ymgrd/broker/differ_internal.h"
#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"

namespace {

constexpr int COMPARISONS_PER_KEEPALIVE = 200;

// What becomes of an earlier node A and a later node B of the same path, once their codes are combined.
typedef enum _merge_outcome {
  MERGE_CHILDREN,   // A takes over B's children; B goes
  MERGE_KEEP_FIRST, // B goes as it is
  MERGE_DROP_BOTH,  // the two changes cancel out
  MERGE_LEAVE,      // B stays in the later tree
  MERGE_MARK_NEXT,  // B goes, the node behind A is marked as moved
} merge_outcome_t;

const char *shown(const char *value)
{
  return value == nullptr ? "(null)" : value;
}

// Of the sensitive leaf `a` the clear values are compared. Any other one is not decrypted, whatever it looks like.
bool is_same_value(const differ_node_t *a, const char *value1, const char *value2)
{
  if (value1 == value2) { // interned: equal ones are one pointer
    return true;
  }
  return a->is_sensitive && value1 != nullptr && value2 != nullptr && compare_encrypt(value1, value2) == 0;
}

void take_new_value(differ_node_t *a, differ_node_t *b)
{
  std::swap(a->leaf_value_new, b->leaf_value_new);
}

bool can_be_modified(const differ_node_t *node)
{
  if (node->node_type != CONF_NODE_LEAF) {
    log_error("diff node(%.512s) oper_type error, only LEAF node can be MOD.", node->data_path);
    return false;
  }
  return true;
}

merge_outcome_t removed_after_added(differ_node_t *a, differ_node_t *)
{
  log_debug("node %.512s is removed after added.", a->data_path);
  return MERGE_DROP_BOTH;
}

merge_outcome_t added_twice(differ_node_t *a, differ_node_t *)
{
  log_error("node %.512s can not be add twice.", a->data_path);
  return MERGE_KEEP_FIRST;
}

merge_outcome_t modified_after_added(differ_node_t *a, differ_node_t *b)
{
  log_debug("node %.512s is modified after added.", a->data_path);
  if (!can_be_modified(a)) {
    return MERGE_CHILDREN;
  }
  if (is_same_value(a, a->leaf_value_new, b->leaf_value_new)) {
    log_debug("node %.512s value is %.512s, same as old db.", a->data_path, shown(a->leaf_value_new));
  } else {
    take_new_value(a, b);
  }
  return MERGE_CHILDREN;
}

merge_outcome_t chained_after_added(differ_node_t *a, differ_node_t *)
{
  log_debug("node %.512s's children is modified after node added.", a->data_path);
  return MERGE_CHILDREN;
}

merge_outcome_t removed_twice(differ_node_t *, differ_node_t *)
{
  return MERGE_CHILDREN;
}

merge_outcome_t added_after_removed(differ_node_t *a, differ_node_t *b)
{
  if (a->node_type == CONF_NODE_LEAFLIST) {
    log_debug("leaflist node %.512s value is same as old db.", a->data_path);
    if (!a->is_user_ordered) {
      return MERGE_DROP_BOTH;
    }
    a->oper_type = DBDIFF_MOVE;
    return MERGE_KEEP_FIRST;
  }
  if (a->node_type != CONF_NODE_LEAF) {
    log_debug("node %.512s,which isn't a leaf node, remove then add.", a->data_path);
    a->oper_type = a->is_user_ordered ? DBDIFF_CHAIN | DBDIFF_MOVE : DBDIFF_CHAIN;
    return MERGE_CHILDREN;
  }
  if (is_same_value(a, a->leaf_value_new, b->leaf_value_new)) {
    log_debug("node %.512s value is %.512s, same as old db.", a->data_path, shown(a->leaf_value_new));
    return MERGE_DROP_BOTH;
  }
  log_debug("node %.512s have different value in new(%.512s) and old db(%.512s).", a->data_path,
            shown(b->leaf_value_new), shown(a->leaf_value_new));
  std::swap(a->leaf_value_old, a->leaf_value_new);
  take_new_value(a, b);
  a->oper_type = DBDIFF_MOD;
  return MERGE_CHILDREN;
}

merge_outcome_t modified_after_removed(differ_node_t *a, differ_node_t *)
{
  log_error("node %.512s can not be modified after removed.", a->data_path);
  return MERGE_LEAVE;
}

merge_outcome_t chained_after_removed(differ_node_t *a, differ_node_t *)
{
  log_error("node %.512s's child can not be modified after node is removed.", a->data_path);
  return MERGE_LEAVE;
}

merge_outcome_t removed_after_modified(differ_node_t *a, differ_node_t *b)
{
  log_debug("node %.512s is removed after modified.", a->data_path);
  if (change_oper_recursive(a, DBDIFF_REM) != 0) {
    log_warn("failed to change operation on DBDIFF_REM");
  }
  // A removed node's new value is the one before all changes: adding the node again is compared with that. What it was
  // modified to goes with B.
  std::swap(a->leaf_value_old, a->leaf_value_new);
  std::swap(a->leaf_value_old, b->leaf_value_old);
  return MERGE_CHILDREN;
}

merge_outcome_t added_after_modified(differ_node_t *a, differ_node_t *)
{
  log_error("node %.512s can not be add after modified.", a->data_path);
  return MERGE_KEEP_FIRST;
}

merge_outcome_t modified_twice(differ_node_t *a, differ_node_t *b)
{
  if (!can_be_modified(a)) {
    return MERGE_CHILDREN;
  }
  if (!is_same_value(a, a->leaf_value_old, b->leaf_value_new)) {
    take_new_value(a, b);
    return MERGE_CHILDREN;
  }
  if (((a->oper_type | b->oper_type) & DBDIFF_MOVE) != 0) {
    log_debug("node %.512s value is %.512s, same as old db. but place changed.", a->data_path,
              shown(a->leaf_value_old));
    return MERGE_MARK_NEXT;
  }
  log_debug("node %.512s value is %.512s, same as old db.", a->data_path, shown(a->leaf_value_old));
  return MERGE_DROP_BOTH;
}

merge_outcome_t chained_after_modified(differ_node_t *a, differ_node_t *)
{
  log_debug("node %.512s's children is modified after node modified.", a->data_path);
  return MERGE_CHILDREN;
}

merge_outcome_t removed_after_chained(differ_node_t *a, differ_node_t *)
{
  log_debug("node %.512s is removed after chained.", a->data_path);
  a->oper_type = DBDIFF_REM;
  return MERGE_CHILDREN;
}

merge_outcome_t added_after_chained(differ_node_t *a, differ_node_t *)
{
  log_debug("node %.512s is added after node's child is modified.", a->data_path);
  a->oper_type = DBDIFF_ADD;
  return MERGE_CHILDREN;
}

merge_outcome_t modified_after_chained(differ_node_t *a, differ_node_t *)
{
  log_warn("the node %.512s can not be modified when chained.", a->data_path);
  return MERGE_CHILDREN;
}

merge_outcome_t chained_twice(differ_node_t *a, differ_node_t *)
{
  log_debug("node %.512s is chained twice.", a->data_path);
  return MERGE_CHILDREN;
}

merge_outcome_t moved_later(differ_node_t *, differ_node_t *)
{
  return MERGE_CHILDREN;
}

merge_outcome_t chained_after_moved(differ_node_t *a, differ_node_t *)
{
  a->oper_type = DBDIFF_CHAIN;
  return MERGE_CHILDREN;
}

merge_outcome_t removed_after_moved(differ_node_t *a, differ_node_t *)
{
  a->oper_type = DBDIFF_REM;
  return MERGE_CHILDREN;
}

// A code without its move bit, or DBDIFF_MOVE for an entry that was moved and nothing else.
const struct {
  int earlier;
  int later;
  merge_outcome_t (*combine)(differ_node_t *a, differ_node_t *b);
} merge_rules[] = {
    {DBDIFF_ADD, DBDIFF_REM, removed_after_added},
    {DBDIFF_ADD, DBDIFF_ADD, added_twice},
    {DBDIFF_ADD, DBDIFF_MOD, modified_after_added},
    {DBDIFF_ADD, DBDIFF_CHAIN, chained_after_added},
    {DBDIFF_REM, DBDIFF_REM, removed_twice},
    {DBDIFF_REM, DBDIFF_ADD, added_after_removed},
    {DBDIFF_REM, DBDIFF_MOD, modified_after_removed},
    {DBDIFF_REM, DBDIFF_CHAIN, chained_after_removed},
    {DBDIFF_MOD, DBDIFF_REM, removed_after_modified},
    {DBDIFF_MOD, DBDIFF_ADD, added_after_modified},
    {DBDIFF_MOD, DBDIFF_MOD, modified_twice},
    {DBDIFF_MOD, DBDIFF_CHAIN, chained_after_modified},
    {DBDIFF_CHAIN, DBDIFF_REM, removed_after_chained},
    {DBDIFF_CHAIN, DBDIFF_ADD, added_after_chained},
    {DBDIFF_CHAIN, DBDIFF_MOD, modified_after_chained},
    {DBDIFF_CHAIN, DBDIFF_CHAIN, chained_twice},
    {DBDIFF_ADD, DBDIFF_MOVE, moved_later},
    {DBDIFF_CHAIN, DBDIFF_MOVE, moved_later},
    {DBDIFF_MOVE, DBDIFF_MOVE, moved_later},
    {DBDIFF_MOVE, DBDIFF_CHAIN, chained_after_moved},
    {DBDIFF_MOVE, DBDIFF_REM, removed_after_moved},
};

int rule_code(const differ_node_t *node)
{
  return node->oper_type == DBDIFF_MOVE ? DBDIFF_MOVE : node->oper_type & ~DBDIFF_MOVE;
}

merge_outcome_t combine_codes(differ_node_t *a, differ_node_t *b)
{
  int earlier = rule_code(a);
  int later = rule_code(b);
  int move = (a->oper_type | b->oper_type) & DBDIFF_MOVE;
  for (const auto &rule : merge_rules) {
    if (rule.earlier != earlier || rule.later != later) {
      continue;
    }
    merge_outcome_t outcome = rule.combine(a, b);
    if (outcome == MERGE_CHILDREN && a->oper_type != DBDIFF_REM) {
      a->oper_type |= move;
    }
    return outcome;
  }
  log_error("differ node %.512s can not be merged by operation %d and %d.", a->data_path, earlier & ~DBDIFF_MOVE,
            later & ~DBDIFF_MOVE);
  return MERGE_LEAVE;
}

// A node below which nothing changed in the end. True when it names no change itself.
bool is_void_chain(differ_node_t *node, int merge_one_add)
{
  if (node->child != nullptr || (node->oper_type & ~DBDIFF_MOVE) != DBDIFF_CHAIN) {
    return false;
  }
  if ((node->oper_type & DBDIFF_MOVE) != 0) {
    node->oper_type = DBDIFF_MOVE;
    return false;
  }
  return merge_one_add == 0;
}

// Finds nodes of one sibling list by data path. Short lists are searched as they are; long ones (one edit can touch a
// hundred thousand entries of a list) get a table, so that merging stays linear.
class sibling_index {
public:
  explicit sibling_index(differ_node_t *first)
  {
    size_t length = 0;
    for (differ_node_t *node = first; node != nullptr && length <= SHORT_LIST; node = node->next) {
      length++;
    }
    is_long_ = length > SHORT_LIST;
    for (differ_node_t *node = first; is_long_ && node != nullptr; node = node->next) {
      table_.emplace(node->data_path, node);
    }
  }
  // `first` is the list's first node now.
  differ_node_t *find(differ_node_t *first, const char *data_path) const
  {
    if (is_long_) {
      auto found = table_.find(data_path);
      return found == table_.end() ? nullptr : found->second;
    }
    while (first != nullptr && first->data_path != data_path) {
      first = first->next;
    }
    return first;
  }
  void forget(const differ_node_t *node)
  {
    if (is_long_) {
      table_.erase(node->data_path);
    }
  }

private:
  static constexpr size_t SHORT_LIST = 16;
  bool is_long_ = false;
  std::unordered_map<const char *, differ_node_t *> table_;
};

void count_comparison()
{
  static int comparisons = 0;
  comparisons++;
  if (comparisons == COMPARISONS_PER_KEEPALIVE) {
    comparisons = 0;
    ymgrd_send_keepalive_msg(0, 0);
  }
}

void merge_children(differ_node_t *a, differ_node_t *b, int merge_one_add)
{
  if (a->child != nullptr && b->child != nullptr) {
    scoped_root first(a->child);
    scoped_root second(b->child);
    merge_recursive(first.get(), second.get(), merge_one_add);
    return;
  }
  if (b->child != nullptr) {
    differ_node_t *children = b->child;
    b->child = nullptr;
    differ_node_add_child(a, nullptr, children);
  }
}

// Moves what is left in `second` behind the nodes of `first`, except nodes of a path that `first` has.
void append_rest(differ_root_t *first, differ_root_t *second, differ_node_t *parent)
{
  std::unordered_set<const char *> missing;
  for (differ_node_t *node = second->root; node != nullptr; node = node->next) {
    missing.insert(node->data_path);
  }
  for (differ_node_t *node = first->root; node != nullptr && !missing.empty(); node = node->next) {
    missing.erase(node->data_path);
  }
  differ_node_t *last = differ_node_last(first->root);
  while (differ_node_t *node = second->root) {
    if (missing.erase(node->data_path) == 0) {
      free_differ_node(node);
      continue;
    }
    unlink_differ_node(node);
    if (last != nullptr) {
      differ_node_add_sibling(last, last, node);
    } else {
      differ_node_add_child(parent, nullptr, node);
      first->root = node;
      node->doc = first;
    }
    last = node;
  }
}

} // namespace

int merge_recursive(differ_root_t *first, differ_root_t *second, int merge_one_add)
{
  if (first == nullptr || second == nullptr) {
    free_differ_tree(second == nullptr ? nullptr : second->root);
    return 0;
  }
  differ_node_t *parent = first->root == nullptr ? nullptr : first->root->parent;
  sibling_index later(second->root);
  differ_node_t *next = nullptr;
  for (differ_node_t *a = first->root; a != nullptr; a = next) {
    next = a->next;
    count_comparison();
    differ_node_t *b = later.find(second->root, a->data_path);
    if (b == nullptr) {
      continue;
    }
    merge_outcome_t outcome = combine_codes(a, b);
    if (outcome == MERGE_LEAVE) {
      continue;
    }
    if (outcome == MERGE_CHILDREN) {
      merge_children(a, b, merge_one_add);
      if (is_void_chain(a, merge_one_add)) {
        outcome = MERGE_DROP_BOTH;
      }
    }
    later.forget(b);
    free_differ_node(b);
    if (outcome == MERGE_DROP_BOTH) {
      free_differ_node(a);
    } else if (outcome == MERGE_MARK_NEXT && next != nullptr) {
      next->oper_type = DBDIFF_MOVE;
      next = next->next;
    }
  }
  append_rest(first, second, parent);
  return 0;
}

void differ_tree_merge(differ_node_t **tree, differ_node_t **later, int merge_one_add)
{
  {
    scoped_root first(*tree);
    scoped_root second(*later);
    merge_recursive(first.get(), second.get(), merge_one_add);
    *tree = first.get()->root;
  }
  *later = nullptr;
}
