// Writes that have not reached Redis yet, by Redis key. Knows nothing of connections.
//
// Recorded in order, they come down to: whole datastore replaced or wiped, then the stored subtrees of deleted nodes
// removed, then fields set or removed and list operations. That holds because deleting a node drops what was recorded
// at and below it.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ymgrd/database/database_path.h"

struct db_key_hash_t {
  using is_transparent = void;
  size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
};
using db_key_set = std::unordered_set<std::string, db_key_hash_t, std::equal_to<>>;

// Whether the key or one above it is among `keys`.
bool db_stands_below(const db_key_set &keys, std::string_view key);

// The entries of one list, by position. Removing costs nothing until a position is asked for.
class list_order {
public:
  bool contains(std::string_view member) const { return ids_.contains(member); }
  void append(std::string_view member);
  void prepend(std::string_view member);
  bool remove(std::string_view member);                  // false when it was not there
  void insert(size_t position, std::string_view member); // position <= size()
  std::optional<size_t> position_of(std::string_view member);
  std::string_view at(size_t position);
  size_t size();
  std::vector<std::string_view> members();

private:
  uint32_t id_of_new(std::string_view member);
  void compact();

  std::vector<std::unique_ptr<std::string>> names_; // by id; their addresses are keys of ids_
  std::vector<bool> removed_;                       // by id
  std::unordered_map<std::string_view, uint32_t> ids_;
  std::vector<uint32_t> order_;
  bool has_removed_ = false; // order_ still names removed ids
};

// LIST_ADD: at the tail, unless it is there.
typedef enum _list_op { LIST_PUSH_HEAD, LIST_PUSH_TAIL, LIST_REMOVE, LIST_INSERT_BEFORE, LIST_ADD } list_op_t;

typedef struct _pending_op {
  list_op_t op;
  std::string member;
  std::string pivot; // LIST_INSERT_BEFORE only
} pending_op_t;

typedef struct _pending_list {
  std::vector<pending_op_t> ops;
  size_t searches = 0;               // operations that make the server search the list
  bool starts_empty = false;         // what Redis holds is deleted before
  std::unique_ptr<list_order> order; // when positions were needed: the entries after `ops`
  std::vector<std::string> missing;  // what `ops` removed from `order` in vain
} pending_list_t;

// Does to the list's order what the operation does in Redis; an addition becomes a push. False when it does nothing.
bool db_apply_list_op(pending_list_t *list, pending_op_t *op);

enum { FIELD_REMOVED = 0 }; // else DB_VALUE_NODE or DB_VALUE_LIST

typedef struct _pending_field {
  std::string name;
  std::string text;
  int type = FIELD_REMOVED;
} pending_field_t;

typedef struct _pending_key {
  std::vector<pending_field_t> fields; // few: a node's children
  std::unique_ptr<pending_list_t> list;
} pending_key_t;

typedef struct _deleted_node {
  db_address_t address;
  bool was_there = false; // known from what was recorded before
} deleted_node_t;

class db_overlay {
public:
  bool empty() const { return keys_.empty() && deleted_.empty() && !replaced_; }
  void clear();

  void set_field(std::string_view key, std::string_view field, int type, std::string_view text);
  void add_list_op(std::string_view list_key, pending_op_t op);
  pending_list_t *list_at(std::string_view list_key); // made when missing
  void remove_node(const db_address_t &address);
  // The whole datastore becomes the copy of another (a logical number), or empty (0).
  void replace_all(int source);

  bool replaces_all() const { return replaced_; }
  int replacement() const { return replacement_; }
  const std::vector<deleted_node_t> &deleted() const { return deleted_; }
  std::unordered_map<std::string, pending_key_t, db_key_hash_t, std::equal_to<>> &keys() { return keys_; }

  // Nodes that went away in this transaction, kept over flushes: deleting one again is no error.
  bool is_gone(std::string_view data_key) const;
  void note_gone(std::string_view data_key) { gone_.emplace(data_key); }
  void forget_gone() { gone_ = db_key_set(); }

private:
  pending_key_t *key_at(std::string_view key);
  void drop_from(std::string_view first, std::string_view prefix);
  void drop_subtree(std::string_view data_key);
  bool is_deleted(std::string_view key) const;

  std::unordered_map<std::string, pending_key_t, db_key_hash_t, std::equal_to<>> keys_;
  // The key that was asked for last: the fields of one node are mostly recorded in a row.
  std::string_view recent_key_;
  pending_key_t *recent_ = nullptr;   // null when it may have gone
  std::set<std::string_view> sorted_; // the same keys in order, once something was deleted
  bool is_sorted_ = false;
  std::vector<deleted_node_t> deleted_;
  db_key_set deleted_keys_;
  bool replaced_ = false;
  int replacement_ = 0;
  db_key_set gone_;
};
