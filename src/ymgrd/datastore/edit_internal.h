// What the sources of the edit engine share: one edit in progress, and the steps that its nodes go through.
#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/datastore/edit_config.h"

// The diff nodes of one level, in the order of their making, each data path once: a later change of the same node is
// merged into the earlier one. Owns the nodes until they are released.
class differ_list {
public:
  differ_list() = default;
  differ_list(const differ_list &) = delete;
  differ_list &operator=(const differ_list &) = delete;
  ~differ_list() { free_differ_tree(first_); }

  void append(differ_node_t *node); // takes the node over; null is passed over
  differ_node_t *first() const { return first_; }
  differ_node_t *release();
  // Makes the nodes children of `parent`, which has none yet.
  void attach_to(differ_node_t *parent);

private:
  differ_node_t *find(const char *data_path);
  void link(differ_node_t *node, differ_node_t *before); // null: as the first
  void unlink(differ_node_t *node);

  differ_node_t *first_ = nullptr;
  differ_node_t *last_ = nullptr;
  size_t count_ = 0;
  std::unordered_map<const char *, differ_node_t *> by_path_; // interned paths; filled once the list is long
};

struct differ_delete_t {
  void operator()(differ_node_t *node) const { free_differ_node(node); }
};
using differ_ptr = std::unique_ptr<differ_node_t, differ_delete_t>;

typedef struct _edit_job {
  const edit_request_t *request = nullptr;
  lyd_tree_ptr data;    // what the database holds once the edit is done
  edit_changes changes; // declared after the data: what it removed from there goes first
  reply_error_ptr error;
  // The case that this edit chose below a data parent, so that the other cases are cleared once, not for each node.
  std::unordered_map<const lysc_node *, std::unordered_map<const lyd_node *, const lysc_node *>> chosen_cases;
  // Parents and children whose defaults are guarded by a when: decided about at the end, on the finished data.
  std::vector<std::pair<lyd_node *, const lysc_node *>> conditional_defaults;
} edit_job_t;

// The place where a node is edited: its parent in the data (null at top level) and its data key.
typedef struct _edit_place {
  lyd_node *parent = nullptr;
  std::string *key = nullptr; // the parent's key before a child's step, the child's during it
} edit_place_t;

// --- edit_config.cpp
lyd_node *edit_siblings(const edit_job_t *job, const lyd_node *parent); // first child of `parent`, or first top node
// First instance of a schema node among the children of `parent`; null when there is none.
lyd_node *edit_find_schema(const edit_job_t *job, const lyd_node *parent, const lysc_node *schema);
// Records a NETCONF error with the path of `config`. Always -1.
int edit_fail(edit_job_t *job, int kind, const lyd_node *config);
// Children of a config node in the order of the document.
std::vector<const lyd_node *> edit_document_order(const lyd_node *first);

// --- edit_data.cpp: one node in the data tree, in the database and in the diff.
// Puts a copy of `config` (a list entry with its keys) below the place's parent and writes it. A new entry stands last;
// `*ret_moved` becomes true when an insert attribute put it elsewhere. Null on failure.
lyd_node *edit_insert(edit_job_t *job, const edit_place_t &place, const lyd_node *config, bool *ret_moved);
// A leaf made from its schema default. Null on failure.
lyd_node *edit_insert_default(edit_job_t *job, const edit_place_t &place, const lysc_node *schema);
int edit_change_value(edit_job_t *job, const edit_place_t &place, lyd_node *db_node, const lyd_node *config);
// Removes the node with all below from the data and the database; appends what was removed to `diff`. 0 or -1.
int edit_erase(edit_job_t *job, const edit_place_t &place, lyd_node *db_node, differ_list *diff);
// Writes a node that is in the data tree already, and recorded as changed.
int edit_write(edit_job_t *job, const edit_place_t &place, const lyd_node *node, const char *coords, int offset);
differ_ptr edit_diff(const edit_place_t &place, ENUM_ACTION action, const lysc_node *schema, const lyd_node *config,
                     const lyd_node *db_node);
bool edit_same_value(const lyd_node *db_node, const lyd_node *config);

// --- edit_choice.cpp
// Before a node of a case is created or merged: erases what stands in the other cases of its choices.
int edit_clear_choice_case(edit_job_t *job, lyd_node *parent, std::string *parent_key, const lysc_node *schema,
                           differ_list *diff);

// --- edit_defaults.cpp
// Creates the schema defaults that are missing below `place.parent`, whose key is in the place.
int edit_fill_default(edit_job_t *job, const edit_place_t &place, differ_list *diff);
// The defaults that depend on a when; what was created is merged into `*tree`.
int edit_fill_conditional_defaults(edit_job_t *job, differ_node_t **tree);

// --- edit_order.cpp: user-ordered lists and leaf-lists (RFC 7950, section 7.8.6).
typedef enum _edit_where { EDIT_KEEP = 0, EDIT_FIRST, EDIT_LAST, EDIT_BEFORE, EDIT_AFTER } edit_where_t;
typedef struct _edit_position {
  edit_where_t where = EDIT_KEEP;
  lyd_node *reference = nullptr; // of before and after
} edit_position_t;
// What the insert attributes of `config` ask for. 0, or -1 with the error.
int edit_read_position(edit_job_t *job, const edit_place_t &place, const lyd_node *config,
                       edit_position_t *ret_position);
bool ds_has_attr_insert(const lyd_node *config);
// Puts the entry there in the data tree and in the database; `*ret_moved` tells whether it had to move.
int edit_move(edit_job_t *job, const edit_place_t &place, lyd_node *entry, const edit_position_t &position,
              bool *ret_moved);
// Moves as few of the entries `wanted` as it takes for them to stand in that order (of one named twice, the last time
// counts). All are of one list below the place's parent, whose key is in the place.
int edit_arrange(edit_job_t *job, const edit_place_t &place, const std::vector<lyd_node *> &wanted, differ_list *diff);
