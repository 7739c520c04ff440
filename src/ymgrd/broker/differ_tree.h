// Diff trees: what one configuration change did to a datastore. Built while an edit is applied, merged with later ones,
// published by the broker, freed by the datastore. Paths and values are interned in the libyang context's dictionary,
// so that equal paths are equal pointers.
#pragma once

#include <functional>

#include <libyang/libyang.h>

#include "ymgrd/ymgrd.h"

// The context whose dictionary holds the strings of all diff trees: to be set when the schema is loaded, before the
// first node is made, and never while nodes live.
void differ_tree_set_ctx(const ly_ctx *ctx);

struct _conf_differ_root;

// What of a tree somebody asks for.
typedef enum _differ_interest {
  DIFFER_APART, // neither the node nor what is below it
  DIFFER_NODE,  // the node as a whole: those below it need not be there
  DIFFER_BELOW, // nodes below it on their own
} differ_interest_t;
// The answer is the same for all nodes of one schema path.
using differ_interest_fn = std::function<differ_interest_t(const char *schema_path)>;

// A tree is handed around as its first top-level node. The siblings of a level are a doubly linked list; a node owns
// its children and its strings. `doc` is set on the first top-level node only, and only while the tree has a root
// record.
typedef struct _conf_differ_node {
  struct _conf_differ_node *parent;
  struct _conf_differ_node *child;
  struct _conf_differ_node *prev;
  struct _conf_differ_node *next;
  const char *schema_path; // ends in ']' for list and leaf-list entries
  const char *data_path;
  int oper_type;               // set of ENUM_ACTION
  conf_mnode_type_t node_type; // CONF_NODE_LEAF (also anyxml), CONF_NODE_LEAFLIST, or CONF_NODE_MODULE for all others
  struct _conf_differ_root *doc;
  int pub_flag;
  bool is_user_ordered; // an entry whose place among its siblings is data: taken out and put back it has moved
  bool is_sensitive;    // a sensitive leaf: its values are cipher text, or a schema default
  const char *leaf_value_old;
  const char *leaf_value_new;
} differ_node_t;

// `root->doc` points back here; when the first top-level node is unlinked, its successor becomes `root`.
typedef struct _conf_differ_root {
  differ_node_t *root;
} differ_root_t;

// `config` is the new data node, `db_node` the old one; either may be null. The value of a removed node is kept as its
// new value, where the merge looks for it: a removed node is handed in as `config`, or as `db_node` without `config`
// (null or an opaque node). Null on failure (logged).
differ_node_t *new_differ_node(const char *data_path, const char *schema_path, ENUM_ACTION action,
                               const lyd_node *config, const lyd_node *db_node);
// The caller owns the record and frees it with free_differ_root; the nodes are not freed with it.
differ_root_t *new_differ_root(differ_node_t *root);
// Frees the record only, and clears the `doc` of its node; the tree's first node is returned (null when it became
// empty).
differ_node_t *free_differ_root(differ_root_t *root);

// Puts the sibling list that starts at `child` under `parent`, behind the last node of the list that `prev` belongs to,
// or, without `prev`, behind the parent's last child. Whoever adds many children passes the one added last as `prev`:
// the end is then at hand. Returns `parent`, or `child` when `parent` is null.
differ_node_t *differ_node_add_child(differ_node_t *parent, differ_node_t *prev, differ_node_t *child);
// Links the single node `sibling` behind `prev`, or, without `prev`, behind the last sibling of `node`. Returns `node`,
// or `sibling`, which then starts a list, when `node` is null.
differ_node_t *differ_node_add_sibling(differ_node_t *node, differ_node_t *prev, differ_node_t *sibling);
// Last node of the list; it walks from `node` on.
differ_node_t *differ_node_last(differ_node_t *node);

void unlink_differ_node(differ_node_t *node); // with its subtree; the caller then owns it
void free_differ_node(differ_node_t *node);   // unlinks it and frees it with its subtree; null is fine
void free_differ_tree(differ_node_t *tree);   // `tree` and all siblings behind it; null is fine

// The node of the same data path in `tree`, its siblings and what is below them; null when there is none.
// `*node_sibling`, when it is null, becomes the first node met that belongs to the same list of the same parent.
differ_node_t *find_node_in_differ_tree(differ_node_t *tree, const differ_node_t *node, differ_node_t **node_sibling);
int change_oper_recursive(differ_node_t *node, ENUM_ACTION action);      // node and all below; -1 for null
int change_list_oper_recursive(differ_node_t *node, ENUM_ACTION action); // and its following siblings; -1 for null
// Like strcmp, but of the plain texts when a value is stored as cipher text; -1 when either is null.
int compare_encrypt(const char *str1, const char *str2);

// Merges the later diff `second` into the earlier `first`, so that it tells what both did to the data before. An entry
// that was moved by either keeps DBDIFF_MOVE beside what else became of it; alone when nothing else is left, and not
// when it is removed. Nothing is left in `second`, whose record stays the
// caller's, and `first` may be left empty. A changed node that ends up with nothing changed below it goes, unless
// `merge_one_add` is set. Always 0.
int merge_recursive(differ_root_t *first, differ_root_t *second, int merge_one_add);
// Merges the list of moved entries `move` into `ori`. What has no place in `ori` stays in `move`.
void merge_move_tree(differ_root_t *ori, differ_root_t *move);
void merge_move_differ_node(differ_node_t **ori, differ_node_t **move);

// Merges the tree `*later` into `*tree` (either may be null), wrapping both in root records. `*later` is null
// afterwards.
void differ_tree_merge(differ_node_t **tree, differ_node_t **later, int merge_one_add);
