// What the sources of the datastore component share.
#pragma once

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include <libyang/libyang.h>

#include "libconf/wiped_string.h"
#include "ymgrd/broker/differ_tree.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/datastore/constraint_index.h"
#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/datastore/ds_filter.h"
#include "ymgrd/datastore/ds_lock.h"
#include "ymgrd/datastore/edit_changes.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/rpc/rpc_error.h"
#include "ymgrd/ymgrd.h"

// The protocol operations, the index of the operations table.
typedef enum _NC_OP {
  NC_OP_UNKNOWN = 0,
  NC_OP_GETCONFIG = 1,
  NC_OP_GET = 2,
  NC_OP_EDITCONFIG = 3,
  NC_OP_CLOSESESSION = 4,
  NC_OP_KILLSESSION = 5,
  NC_OP_COPYCONFIG = 6,
  NC_OP_DELETECONFIG = 7,
  NC_OP_LOCK = 8,
  NC_OP_UNLOCK = 9,
  NC_OP_COMMIT = 10,
  NC_OP_DISCARDCHANGES = 11,
  NC_OP_CREATESUBSCRIPTION = 12,
  NC_OP_GETSCHEMA = 13,
  NC_OP_VALIDATE = 14,
  NC_OP_MAX = 15,
} NC_OP;

// --- Process-wide state.

// The pending diff tree of candidate against running; while a running edit is published, the tree under publication.
extern differ_node_t *differ_nodes;
// Frees the pending tree, empties it, and forgets what was noted of the changes in it.
void ds_drop_differ_nodes();
// Whether candidate was found valid as a whole since its last change. If not, it is checked before it is committed.
bool ds_candidate_is_valid();
void ds_note_candidate_valid();

// --- Databases.

// The logical database of a datastore; 0 (logged) when it has none.
int ds_to_db(int datastore);

// An open database with the locks and the transaction of one operation. What is not handed over ends with the object:
// the transaction is discarded, the locks are released, the database is closed.
class ds_session_db {
public:
  ds_session_db() = default;
  ds_session_db(ds_session_db &&other) noexcept;
  ds_session_db &operator=(ds_session_db &&other) noexcept;
  ds_session_db(const ds_session_db &) = delete;
  ds_session_db &operator=(const ds_session_db &) = delete;
  ~ds_session_db() { end(); }

  int open(int datastore); // 0 or -1
  int hdb() const { return hdb_; }
  ds_db_locks_t *locks() { return &locks_; }
  int start();    // the transaction; 0 or -1
  int commit();   // 0 or -1; the transaction is over in either case
  void discard(); // without effect when no transaction runs
  void end();

private:
  int hdb_ = 0;
  bool in_transaction_ = false;
  ds_db_locks_t locks_;
};

// All configuration data is read through here: the tree below `path` ("/": all) as stored, unvalidated, in `*ret_data`
// (null when there is nothing). 0 or -1.
int ds_db_get_data_from_top(int hdb, int tflag, const char *path, lyd_tree_ptr *ret_data);
// What an edit starts from: the kept tree when it is valid (it is taken out of store), else the same as above.
int ds_take_data(int hdb, int tflag, const char *path, lyd_tree_ptr *ret_data);
// The same as XML text; `*ret_text` is null when there is nothing.
int ds_get_xmltext(int hdb, int tflag, const char *path, c_string_ptr *ret_text);

// --- Requests.

// The datastore that the child element of <source> or <target> names; ENUM_DATASTORE_ERROR unless it is one and alone.
ENUM_DATASTORE nc_rpc_get_ds(const lyxml_elem *node, const char *ds_type);
// Source and target of the operation element; a null pointer is not looked for; an absent one leaves its value
// untouched.
int ds_get_src_and_dst(const lyxml_elem *node, int *src, int *target);
extern const char *const error_option[];      // of edit-config
extern const char *const error_option_copy[]; // of copy-config
// ERROR_OPTION_*, or -1 for an unknown text.
int datastore_get_erropt(lyxml_elem *rpc, const char *const *tree);
// The operation of nodes that have none by themselves (RFC 6241, section 7.2, default-operation): NC_EDIT_OP_MERGE,
// NC_EDIT_OP_REPLACE or NC_EDIT_OP_NONE; NC_EDIT_OP_ERROR for an unknown text.
NC_EDIT_OP_TYPE datastore_get_default_operation(lyxml_elem *rpc);
typedef enum _NC_TEST_OPTION {
  NC_TEST_OPTION_ERROR = -1,
  NC_TEST_THEN_SET = 0,
  NC_SET = 1,
  NC_TEST_ONLY = 2,
} NC_TEST_OPTION;
// The test-option of edit-config (RFC 6241, section 7.2); NC_TEST_OPTION_ERROR for an unknown text.
NC_TEST_OPTION datastore_get_test_option(lyxml_elem *rpc);

// The content of <config> as a data tree. Every node has a record (dbkey.h) with its own operation and its position in
// the document. An element without value whose operation is delete or remove is an opaque node (dbkey_schema_of).
typedef struct _ds_config {
  ds_node_arena arena; // declared before the tree: outlives it
  lyd_tree_ptr tree;   // null for an empty <config>
} ds_config_t;
// 0, or -1 with `*ret_error` set.
int ds_parse_rpc_config(lyxml_elem *rpc, NC_OP nc_op, ds_config_t *config, reply_error_ptr *ret_error);

// Gives every node from `first` on, and all below, the operation `op`.
void ds_set_nodelist_op(lyd_node *first, NC_EDIT_OP_TYPE op, ds_node_arena *arena);

// Whether all elements of <config> are known, in their places, with attributes that belong there; also takes the
// leading zeros of integers away, at which libyang stumbles. 0, or -1 with the error.
int ds_check_config(lyxml_elem *config, reply_error_ptr *ret_error);
// The value of an operation attribute; NC_EDIT_OP_ERROR when it is none of RFC 6241's.
NC_EDIT_OP_TYPE ds_operation_of(const xmlAttr *attr);

// --- NETCONF locks. The error may be null: no record is wanted. 0, or -1 (logged).

int lock_operation(int sid, int target, reply_error_ptr *ret_error);
int unlock_operation(int sid, int target, reply_error_ptr *ret_error);

// --- Steps of the operations.

// How long a validation may take before the watchdog warns and kills.
constexpr int VALIDATION_WARN_SECONDS = 90;
constexpr int VALIDATION_KILL_SECONDS = 180;

// Checks the whole data tree against the schema (nothing is added to it). 0, also for an empty tree; -1 with the error,
// whose kind is `invalid_kind` unless the violation has a kind of its own. On 0 `ret_implied` (null: not asked for) has
// gained the schema nodes of which libyang implied instances. On -1 `*data` is as it was, or null when libyang changed
// what cannot be put back.
int datastore_validate(lyd_tree_ptr *data, int invalid_kind, reply_error_ptr *ret_error,
                       std::unordered_set<const lysc_node *> *ret_implied = nullptr);
// The same for the result of an edit: when the tree was valid before it, only what the changes concern is checked. On
// -1 the edit was undone.
int ds_validate_edit(lyd_tree_ptr *data, edit_changes *changes, int invalid_kind, reply_error_ptr *ret_error);
// Undoes an edit that is not to stand, and keeps the tree for the next request; drops it when that is not surely what
// it was. `*data` is null afterwards.
void ds_undo_edit(lyd_tree_ptr *data, edit_changes *changes);
// The constraints of the schema, looked up once.
const constraint_index &ds_constraints();
// Drops what is known of the tree that was validated last, and of the schema.
void ds_forget_validated();
// Adds the implicit nodes below a stored top node, marked as default; the stored ones stay unmarked. `*ret_created`
// names the new ones, as a diff of libyang does. 0, or -1 (logged; some may have been added).
int ds_add_implicit(lyd_node *top, lyd_tree_ptr *ret_created);
// Takes implicit nodes out again: those that the diff `created` of a libyang call names and that are still marked as
// default.
void ds_drop_implicit(lyd_tree_ptr *data, const lyd_node *created);

// Stored nodes are data, also a container that holds nothing. libyang marks such a one as implicit, and its validation
// may remove it, so the mark goes before.
inline void ds_mark_explicit(lyd_node *node)
{
  node->flags &= ~static_cast<uint32_t>(LYD_DEFAULT);
}
// The node (null: none) and all above it.
void ds_mark_way_explicit(lyd_node *node);

struct differ_tree_delete_t {
  void operator()(differ_node_t *tree) const { free_differ_tree(tree); }
};
using differ_tree_ptr = std::unique_ptr<differ_node_t, differ_tree_delete_t>;

// A diff that says of the node, whose data key is `*key`, and of everything below: `action`. Null on failure (logged).
differ_node_t *ds_subtree_diff(std::string *key, const lyd_node *node, ENUM_ACTION action);

// What an edit or a copy came to, in the open transaction of its target.
typedef struct _ds_change {
  lyd_tree_ptr data;    // what the target holds once the change stands
  differ_tree_ptr tree; // null when nothing differs
  bool written = false; // data and transaction were touched, whether or not a difference is left
  bool is_valid = true; // the data was found valid as a whole, or is what it was before
} ds_change_t;

typedef enum _ds_accepted {
  DS_ACCEPTED,       // the change stands
  DS_DEFERRED,       // the reply comes from the publication, which may be over already
  DS_COMMIT_FAILED,  // nothing changed; not logged
  DS_PUBLISH_FAILED, // nothing changed; not logged
} ds_accepted_t;
// Ends a change of candidate: commits the transaction and adds the change to what is pending.
ds_accepted_t ds_accept_candidate(int sid, ds_session_db *db, ds_change_t *change);
// Ends a change of running: publishes it, or commits the transaction when nothing differs.
ds_accepted_t ds_accept_running(int sid, ds_session_db *db, ds_change_t *change, int erropt);

// Hands the change to the broker. On 0 the reply is sent by datastore_publish_callback (which may have run already) and
// `db` was taken over; on -1 nothing was sent and the caller keeps `db`. `data` is what running holds once the change
// stands, and is taken over; null for a commit, where it is what candidate holds.
int datastore_publish(int sid, ds_session_db *db, lyd_tree_ptr *data, differ_node_t *dtree, int target_ds, int erropt);

// The publication in flight, for those who read during it.
typedef struct _ds_publication {
  int target_ds;        // running: of an edit; candidate: of a commit
  int running_hdb;      // sees running without the change
  const lyd_node *data; // of an edit: what running holds once the change stands
} ds_publication_t;
// False when there is none.
bool ds_get_publication(ds_publication_t *ret_publication);

// Announces a long parse to the watchdog for the life of the object, sized by the request's text.
class ds_long_parse {
public:
  explicit ds_long_parse(size_t request_bytes);
  ~ds_long_parse();
};

// Gives the caller an error with a message, if it wants one (`ret_error` may be null). Always -1.
int ds_fail(reply_error_ptr *ret_error, int kind, const std::string &message);
// An error reply with a message; logs the failure of building or sending. Always -1.
int ds_refuse(int sid, const lyxml_elem *rpc, int kind, const std::string &message);

// --- get and get-config.

// The request's filter, through ds_filter_spec; null when it has none. `oper` is the operation's name. 0, or -1 when an
// error was sent.
int ds_take_filter(int sid, const lyxml_elem *rpc, const char *oper, std::unique_ptr<nc_filter_t> *ret_filter);
// Opens the datastore in `*ret_db` and locks for reading what the filter names (null: everything). 0 or -1 (logged).
int ds_glock_transact_start(int ds, const nc_filter_t *filter, ds_session_db *ret_db);
// What the filter (null: none) selects of the datastore, open as `hdb`. 0 or -1.
int ds_get_query_result(int hdb, int ds, const nc_filter_t *filter, wiped_string *ret_text);
// The <data> reply. 0 or -1.
int ds_get_send_reply(int sid, const lyxml_elem *rpc, std::string_view text);
// Writes what plugins have pushed into the status datastore, as far as it lies below one of the top paths. 0 or -1.
int ds_write_pushed(const std::vector<std::string> &paths);
void ds_forget_pushed(); // of all plugins
// At the end of the process: frees the get in progress.
void ds_get_forget();

// --- Operation handlers.
int ds_edit_config(int sid, const char *data, lyxml_elem *rpc);
int ds_get(int sid, const char *data, lyxml_elem *rpc);
int ds_get_config(int sid, const char *data, lyxml_elem *rpc);
int ds_delete_config(int sid, const char *data, lyxml_elem *rpc);
int ds_copy_config(int sid, const char *data, lyxml_elem *rpc);
int ds_commit(int sid, const char *data, lyxml_elem *rpc);
int ds_discarde_changes(int sid, const char *data, lyxml_elem *rpc);
int ds_lock(int sid, const char *data, lyxml_elem *rpc);
int ds_unlock(int sid, const char *data, lyxml_elem *rpc);
