#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "ymgrd/broker/differ_internal.h"
#include "ymgrd/core/keepalive.h"
#include "ymgrd/datastore/dbkey.h"

namespace {

// The data path without its last segment; empty for top-level nodes.
std::string_view parent_path_of(const char *data_path)
{
  const char *slash = datastore_find_last_key_char(data_path, data_path, '/');
  return slash == nullptr ? std::string_view() : std::string_view(data_path, static_cast<size_t>(slash - data_path));
}

// The nodes of a diff tree by path, and the entries of each list below each parent. One edit can move a hundred
// thousand entries: each is placed without a search through the tree.
class move_index {
public:
  explicit move_index(differ_node_t *first) { add_list(first); }

  differ_node_t *find(const differ_node_t *node) const
  {
    auto found = by_path_.find(node->data_path);
    return found == by_path_.end() ? nullptr : found->second;
  }

  // An entry of the same list of the same parent; null when the tree has none. An entry without parent stands for any
  // parent.
  differ_node_t *find_sibling(const differ_node_t *node) const
  {
    auto parent = by_path_.find(parent_path_of(node->data_path));
    auto list = parent == by_path_.end() ? lists_.end() : lists_.find({node->schema_path, parent->second});
    if (list == lists_.end()) {
      list = lists_.find({node->schema_path, nullptr});
    }
    return list == lists_.end() ? nullptr : list->second;
  }

  void add(differ_node_t *node)
  {
    by_path_.emplace(node->data_path, node);
    lists_[{node->schema_path, node->parent}] = node;
    add_list(node->child);
  }

  // To be called before the node is freed.
  void forget(differ_node_t *node)
  {
    for (differ_node_t *child = node->child; child != nullptr; child = child->next) {
      forget(child);
    }
    auto known = by_path_.find(node->data_path);
    if (known != by_path_.end() && known->second == node) {
      by_path_.erase(known);
    }
    auto list = lists_.find({node->schema_path, node->parent});
    if (list == lists_.end() || list->second != node) {
      return;
    }
    differ_node_t *entry = node->prev;
    while (entry != nullptr && entry->schema_path != node->schema_path) {
      entry = entry->prev;
    }
    if (entry != nullptr) {
      list->second = entry;
    } else {
      lists_.erase(list);
    }
  }

private:
  void add_list(differ_node_t *first)
  {
    for (differ_node_t *node = first; node != nullptr; node = node->next) {
      add(node);
    }
  }

  std::unordered_map<std::string_view, differ_node_t *> by_path_;
  // Schema path and parent -> the entry known last, from where the end of the siblings is near.
  std::map<std::pair<const char *, const differ_node_t *>, differ_node_t *> lists_;
};

typedef enum _move_outcome {
  MOVE_STAYS,     // the move has no place in the tree
  MOVE_COMBINED,  // its code went into the node found
  MOVE_SUPERSEDES // the node found goes, and the move is looked at again
} move_outcome_t;

move_outcome_t combine_move(differ_node_t *found, const differ_node_t *moved)
{
  bool is_move = (moved->oper_type & DBDIFF_MOVE) != 0;
  if ((found->oper_type & DBDIFF_MOVE) != 0) {
    if (is_move) {
      found->oper_type |= moved->oper_type;
      return MOVE_COMBINED;
    }
    return (moved->oper_type & (DBDIFF_ADD | DBDIFF_REM)) != 0 ? MOVE_SUPERSEDES : MOVE_STAYS;
  }
  if (!is_move) {
    return MOVE_STAYS;
  }
  found->oper_type |= moved->oper_type;
  if (found->child != nullptr) {
    found->child->oper_type |= moved->oper_type;
  }
  return MOVE_COMBINED;
}

// Afterwards the move is in its place, freed, or still where it was.
void place_move(move_index *index, differ_node_t *moved)
{
  while (differ_node_t *found = index->find(moved)) {
    switch (combine_move(found, moved)) {
    case MOVE_STAYS:
      return;
    case MOVE_COMBINED:
      free_differ_node(moved);
      return;
    case MOVE_SUPERSEDES:
      index->forget(found);
      free_differ_node(found);
      break;
    }
  }
  differ_node_t *sibling = index->find_sibling(moved);
  if (sibling == nullptr || (moved->oper_type & DBDIFF_MOVE) == 0) {
    return;
  }
  unlink_differ_node(moved);
  differ_node_add_sibling(sibling, differ_node_last(sibling), moved);
  index->add(moved);
}

} // namespace

void merge_move_tree(differ_root_t *ori, differ_root_t *move)
{
  if (ori == nullptr || move == nullptr) {
    return;
  }
  move_index index(ori->root);
  differ_node_t *next = nullptr;
  for (differ_node_t *moved = move->root; moved != nullptr; moved = next) {
    next = moved->next;
    ymgrd_send_keepalive_msg(0, 0);
    place_move(&index, moved);
  }
}

void merge_move_differ_node(differ_node_t **ori, differ_node_t **move)
{
  if (*ori == nullptr) {
    std::swap(*ori, *move);
    return;
  }
  if (*move == nullptr) {
    return;
  }
  scoped_root tree(*ori);
  scoped_root moves(*move);
  merge_move_tree(tree.get(), moves.get());
  *ori = tree.get()->root;
  *move = moves.get()->root;
}
