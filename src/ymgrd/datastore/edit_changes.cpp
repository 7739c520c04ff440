#include "ymgrd/datastore/edit_changes.h"

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

} // namespace

void edit_changes::begin(lyd_node *first)
{
  mark_ = ++last_mark;
  was_empty_ = first == nullptr;
  stamp_ = 0;
  if (first != nullptr) {
    stamp_ = mark_of(first);
    first->priv = nullptr;
  }
}

void edit_changes::created(lyd_node *node)
{
  put_mark(node, mark_);
  const lyd_node *parent = lyd_parent(node);
  if (parent == nullptr || mark_of(parent) != mark_) {
    all_.push_back({EDIT_CREATED, node, nullptr, nullptr});
  }
}

void edit_changes::value_changes(lyd_node *node)
{
  const lyd_node *parent = lyd_parent(node);
  if (mark_of(node) == mark_ || (parent != nullptr && mark_of(parent) == mark_)) {
    return; // it is looked at as a created one
  }
  lyd_node *before = nullptr;
  if (lyd_dup_single(node, nullptr, LYD_DUP_NO_META, &before) != LY_SUCCESS) {
    before = nullptr; // the check then does not know the old value, and leaves the decision to a full validation
  }
  all_.push_back({EDIT_VALUE, node, nullptr, lyd_tree_ptr(before)});
}

void edit_changes::moved(lyd_node *node)
{
  all_.push_back({EDIT_MOVED, node, nullptr, nullptr});
}

void edit_changes::removed(lyd_node *parent, lyd_node *subtree)
{
  removed_.insert(subtree);
  all_.push_back({EDIT_REMOVED, nullptr, parent, lyd_tree_ptr(subtree)});
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
