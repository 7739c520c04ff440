#include "ymgrd/datastore/edit_changes.h"

#include <utility>

#include "ymgrd/datastore/datastore_internal.h"

namespace {

uint64_t last_mark = 0;

void put_mark(lyd_node *node, uint64_t mark)
{
  node->priv = reinterpret_cast<void *>(static_cast<uintptr_t>(mark));
}

uint64_t mark_of(const lyd_node *node)
{
  return reinterpret_cast<uintptr_t>(node->priv);
}

lyd_node *sibling_before(const lyd_node *node)
{
  return node->prev->next == nullptr ? nullptr : node->prev; // the first one's prev is the last
}

// --- Undoing. `*first` is the first top node throughout.

void take_out(lyd_node **first, lyd_node *node)
{
  lyd_node *parent = lyd_parent(node);
  if (*first == node) {
    *first = node->next;
  }
  lyd_unlink_tree(node);
  ds_mark_way_explicit(parent); // libyang takes a container that became empty for one that nobody named
}

bool insert_last(lyd_node **first, lyd_node *parent, lyd_node *node)
{
  LY_ERR result = parent == nullptr ? lyd_insert_sibling(*first, node, first) : lyd_insert_child(parent, node);
  return result == LY_SUCCESS;
}

// Relinks a node among its siblings. libyang itself puts entries last, and those that nobody orders nowhere else. What
// it knows beside the links is which entry of a list is the first: that must stay the same one.
void stand_behind(lyd_node **first, lyd_node *node, lyd_node *previous)
{
  if (sibling_before(node) == previous) {
    return;
  }
  lyd_node **head = node->parent == nullptr ? first : &node->parent->child;
  lyd_node *follower = node->next == nullptr ? *head : node->next; // the first node's prev is the last
  if (*head == node) {
    *head = node->next;
  } else {
    node->prev->next = node->next;
  }
  follower->prev = node->prev;

  lyd_node **link = previous == nullptr ? head : &previous->next;
  follower = *link == nullptr ? *head : *link;
  node->next = *link;
  node->prev = follower->prev;
  *link = node;
  follower->prev = node;
}

// Takes the node over.
bool put_back(lyd_node **first, lyd_node *parent, lyd_node *previous, lyd_node *node)
{
  if (!insert_last(first, parent, node)) {
    lyd_free_tree(node);
    return false;
  }
  const lysc_node *schema = node->schema;
  bool has_others = node->prev->next != nullptr && node->prev->schema == schema;
  if (has_others && (previous == nullptr || previous->schema != schema)) {
    // It was the first entry of its list. libyang makes it that when the first one of now goes, and it is the second.
    lyd_node *second = previous != nullptr ? previous->next : parent != nullptr ? lyd_child(parent) : *first;
    if (second == nullptr || second->schema != schema) {
      return false;
    }
    stand_behind(first, node, second);
    take_out(first, second);
    if (!insert_last(first, parent, second)) {
      lyd_free_tree(second);
      return false;
    }
    stand_behind(first, second, node);
  }
  stand_behind(first, node, previous);
  ds_mark_way_explicit(parent);
  return true;
}

// Both are of one schema node, which is no key: no look-up by value knows them.
void swap_values(lyd_node *node, lyd_node *other)
{
  if (node->schema->nodetype & LYD_NODE_ANY) {
    std::swap(reinterpret_cast<lyd_node_any *>(node)->value, reinterpret_cast<lyd_node_any *>(other)->value);
    std::swap(reinterpret_cast<lyd_node_any *>(node)->value_type, reinterpret_cast<lyd_node_any *>(other)->value_type);
  } else {
    std::swap(reinterpret_cast<lyd_node_term *>(node)->value, reinterpret_cast<lyd_node_term *>(other)->value);
  }
  std::swap(node->flags, other->flags);
}

bool undo_step(lyd_node **first, edit_change_t *change)
{
  lyd_node *node = change->node;
  if (change->is_in_created) {
    return true;
  }
  switch (change->kind) {
  case EDIT_CREATED:
    take_out(first, node);
    lyd_free_tree(node);
    return true;
  case EDIT_VALUE:
    if (change->before == nullptr) {
      return false;
    }
    swap_values(node, change->before.get());
    return true;
  case EDIT_MOVED:
    take_out(first, node);
    return put_back(first, change->parent, change->previous, node);
  case EDIT_REMOVED:
    return put_back(first, change->parent, change->previous, change->before.release());
  }
  return false;
}

} // namespace

void edit_changes::begin(lyd_node *first)
{
  mark_ = ++last_mark;
  was_empty_ = first == nullptr;
  stamp_ = 0;
  first_ = first;
  if (first != nullptr) {
    stamp_ = mark_of(first);
    first->priv = nullptr;
  }
}

bool edit_changes::is_in_created(const lyd_node *node) const
{
  const lyd_node *parent = lyd_parent(node);
  return parent != nullptr && mark_of(parent) == mark_;
}

void edit_changes::created(lyd_node *node)
{
  put_mark(node, mark_);
  if (!is_in_created(node)) {
    all_.push_back({EDIT_CREATED, node, nullptr, nullptr, nullptr, false});
  }
}

void edit_changes::value_changes(lyd_node *node)
{
  if (mark_of(node) == mark_ || is_in_created(node)) {
    return; // it is looked at as a created one
  }
  lyd_node *before = nullptr;
  if (lyd_dup_single(node, nullptr, LYD_DUP_NO_META | LYD_DUP_WITH_FLAGS, &before) != LY_SUCCESS) {
    before = nullptr; // the check then does not know the old value, and leaves the decision to a full validation
  }
  all_.push_back({EDIT_VALUE, node, nullptr, nullptr, lyd_tree_ptr(before), false});
}

void edit_changes::moves(lyd_node *node)
{
  all_.push_back({EDIT_MOVED, node, lyd_parent(node), sibling_before(node), nullptr, is_in_created(node)});
}

void edit_changes::remove(lyd_node *subtree)
{
  lyd_node *parent = lyd_parent(subtree);
  lyd_node *previous = sibling_before(subtree);
  bool goes_anyway = is_in_created(subtree);
  lyd_unlink_tree(subtree);
  ds_mark_way_explicit(parent);
  removed_.insert(subtree);
  all_.push_back({EDIT_REMOVED, nullptr, parent, previous, lyd_tree_ptr(subtree), goes_anyway});
}

bool edit_changes::undo(lyd_tree_ptr *data)
{
  if (mark_ == 0) {
    return true; // nothing was begun
  }
  lyd_node *first = data->release();
  bool is_undone = true;
  for (auto change = all_.rbegin(); is_undone && change != all_.rend(); ++change) {
    is_undone = undo_step(&first, &*change);
  }
  data->reset(first);
  if (!is_undone || first != first_) {
    return false;
  }
  all_.clear();
  removed_.clear();
  if (first != nullptr) {
    put_mark(first, stamp_);
  }
  return true;
}

bool edit_changes::is_live(const lyd_node *node) const
{
  if (removed_.empty() || node == nullptr) {
    return true;
  }
  while (lyd_parent(node) != nullptr) {
    node = lyd_parent(node);
  }
  return !removed_.contains(node);
}

uint64_t edit_stamp_tree(lyd_node *first)
{
  if (first == nullptr) {
    return 0;
  }
  put_mark(first, ++last_mark);
  return last_mark;
}
