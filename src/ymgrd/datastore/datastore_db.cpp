// Access of the datastore operations to their databases: opening, locking, transactions, and the one way to read.
#include <utility>
#include <vector>

#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_clear_values.h"
#include "ymgrd/datastore/ds_error.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

struct datastore_database_t {
  int datastore;
  int database;
};

const datastore_database_t datastore_databases[] = {
    {ENUM_DATASTORE_RUNNING, YMGRM_RUNNING_DB},
    {ENUM_DATASTORE_STARTUP, YMGRM_STARTUP_DB},
    {ENUM_DATASTORE_CANDIDATE, YMGRM_CANDIDATE_DB},
    {ENUM_DATASTORE_STATUS, YMGRM_STATUS_DB},
};

// --- Diffs that libyang makes of what it changed by itself.

std::string_view operation_of(const lyd_node *change)
{
  for (const lyd_node *node = change; node != nullptr; node = lyd_parent(node)) { // inherited from above
    const lyd_meta *meta = lyd_find_meta(node->meta, nullptr, "yang:operation");
    if (meta != nullptr) {
      return lyd_get_meta_value(meta);
    }
  }
  return {};
}

lyd_node *find_implicit(const lyd_node *data, const lyd_node *change)
{
  if (data == nullptr || operation_of(change) != "create") {
    return nullptr;
  }
  c_string_ptr path(lyd_path(change, LYD_PATH_STD, nullptr, 0));
  lyd_node *node = nullptr;
  if (path == nullptr || lyd_find_path(data, path.get(), 0, &node) != LY_SUCCESS) {
    return nullptr;
  }
  return node->flags & LYD_DEFAULT ? node : nullptr;
}

const lyd_node *find_deleted(const lyd_node *changes)
{
  for (const lyd_node *root = changes; root != nullptr; root = root->next) {
    const lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      if (operation_of(node) == "delete") {
        return node;
      }
      LYD_TREE_DFS_END(root, node);
    }
  }
  return nullptr;
}

void add_created_schemas(const lyd_node *changes, std::unordered_set<const lysc_node *> *nodes)
{
  for (const lyd_node *root = changes; root != nullptr; root = root->next) {
    const lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      if (operation_of(node) == "create") {
        nodes->insert(node->schema);
      }
      LYD_TREE_DFS_END(root, node);
    }
  }
}

// A node whose condition held before and no longer does: libyang deletes it from a tree that it validated before, where
// it refuses it in one that was just read. Both are refused here.
reply_error_ptr when_error(const lyd_node *lost)
{
  reply_error_ptr error = rpc_make_error(REPLY_ERR_UNKNOWN_ELEM, "When condition of the node is not satisfied.");
  c_string_ptr path(lyd_path(lost, LYD_PATH_STD, nullptr, 0));
  if (error != nullptr && path != nullptr) {
    rpc_set_error_field(error.get(), REPLY_ERR_FIELD_PATH, path.get());
  }
  return error;
}

void mark_all_explicit(lyd_node *first)
{
  for (lyd_node *root = first; root != nullptr; root = root->next) {
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      ds_mark_explicit(node);
      LYD_TREE_DFS_END(root, node);
    }
  }
}

// The containers below and with `top` that hold nothing. libyang takes those for implicit ones once it has tried a
// default in them whose condition is false.
std::vector<lyd_node *> empty_containers(lyd_node *top)
{
  std::vector<lyd_node *> empty;
  lyd_node *node = nullptr;
  LYD_TREE_DFS_BEGIN(top, node)
  {
    if (node->schema->nodetype == LYS_CONTAINER && lyd_child(node) == nullptr) {
      empty.push_back(node);
    }
    LYD_TREE_DFS_END(top, node);
  }
  return empty;
}

// In the `priv` of the nodes that stood in a tree before its validation; what libyang adds has none.
char stood_before;

// How many nodes there are.
size_t mark_nodes(lyd_node *first)
{
  size_t count = 0;
  for (lyd_node *root = first; root != nullptr; root = root->next) {
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      node->priv = node->priv == nullptr ? &stood_before : node->priv;
      count++;
      LYD_TREE_DFS_END(root, node);
    }
  }
  return count;
}

void unmark_nodes(lyd_node *first)
{
  for (lyd_node *root = first; root != nullptr; root = root->next) {
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      node->priv = node->priv == &stood_before ? nullptr : node->priv;
      LYD_TREE_DFS_END(root, node);
    }
  }
}

// The nodes without mark, not those below them; counts the marked ones.
std::vector<lyd_node *> find_added(lyd_node *first, size_t *ret_marked)
{
  std::vector<lyd_node *> added;
  size_t marked = 0;
  for (lyd_node *root = first; root != nullptr; root = root->next) {
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      if (node->priv == nullptr) {
        added.push_back(node);
        LYD_TREE_DFS_continue = 1;
      } else {
        marked++;
      }
      LYD_TREE_DFS_END(root, node);
    }
  }
  *ret_marked = marked;
  return added;
}

void free_in_tree(lyd_tree_ptr *data, lyd_node *node)
{
  if (node == data->get()) {
    (void)data->release(); // freed below; its successor becomes the first node
    data->reset(node->next);
  }
  lyd_free_tree(node);
}

// After a validation that failed: what it added goes. Null when it also took something away, which it need not report.
void restore_validated(lyd_tree_ptr *data, size_t count_before)
{
  size_t count = 0;
  for (lyd_node *node : find_added(data->get(), &count)) {
    free_in_tree(data, node);
  }
  if (count != count_before) {
    log_debug("Validation changed the configuration, it is read anew.");
    data->reset();
    return;
  }
  unmark_nodes(data->get());
  mark_all_explicit(data->get()); // validation looks for empty containers too
}

// Costs nothing where no condition looks at a sensitive leaf.
void open_for_validation(lyd_node *first, ds_clear_values *values)
{
  if (!schema_sensitive_leaves().empty()) {
    values->open_all(ds_constraints(), first);
  }
}

} // namespace

int ds_to_db(int datastore)
{
  for (const datastore_database_t &row : datastore_databases) {
    if (row.datastore == datastore) {
      return row.database;
    }
  }
  log_error("datastore %d can not be accessed.", datastore);
  return 0;
}

ds_session_db::ds_session_db(ds_session_db &&other) noexcept
    : hdb_(std::exchange(other.hdb_, 0)), in_transaction_(std::exchange(other.in_transaction_, false)),
      locks_(std::move(other.locks_))
{
  other.locks_.clear();
}

ds_session_db &ds_session_db::operator=(ds_session_db &&other) noexcept
{
  if (this != &other) {
    end();
    hdb_ = std::exchange(other.hdb_, 0);
    in_transaction_ = std::exchange(other.in_transaction_, false);
    locks_ = std::move(other.locks_);
    other.locks_.clear();
  }
  return *this;
}

int ds_session_db::open(int datastore)
{
  end();
  int database = ds_to_db(datastore);
  int hdb = database == 0 ? -1 : database_open(database);
  if (hdb <= 0) {
    return -1;
  }
  hdb_ = hdb;
  return 0;
}

int ds_session_db::start()
{
  if (database_trans_start(hdb_) != 0) {
    return -1;
  }
  in_transaction_ = true;
  return 0;
}

int ds_session_db::commit()
{
  if (database_trans_commit(hdb_) != 0) {
    // What did not reach the database must not: the transaction is still open.
    discard();
    return -1;
  }
  in_transaction_ = false;
  return 0;
}

void ds_session_db::discard()
{
  if (in_transaction_) {
    (void)database_trans_discard(hdb_); // logged there; nothing more can be undone here
    in_transaction_ = false;
  }
}

void ds_session_db::end()
{
  if (hdb_ <= 0) {
    return;
  }
  discard();
  ds_unlock_data(&locks_);
  database_close(hdb_);
  hdb_ = 0;
}

int ds_get_xmltext(int hdb, int tflag, const char *path, c_string_ptr *ret_text)
{
  char *text = nullptr;
  if (database_get(hdb, tflag, path, DB_DEPTH_ALL, &text) != 0) {
    return -1;
  }
  ret_text->reset(text);
  return 0;
}

int ds_db_get_data_from_top(int hdb, int tflag, const char *path, lyd_tree_ptr *ret_data)
{
  c_string_ptr text;
  if (ds_get_xmltext(hdb, tflag, path, &text) != 0) {
    return -1;
  }
  if (text == nullptr || *text == '\0') {
    ret_data->reset();
    return 0;
  }
  ds_clear_yang_errors();
  lyd_node *tree = nullptr;
  LY_ERR result = lyd_parse_data_mem(schema_ctx(), text.get(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree);
  if (result != LY_SUCCESS) {
    const ly_err_item *cause = ly_err_first(schema_ctx());
    log_error("Stored data of database handle %d does not fit the schema(%.512s).", hdb,
              cause == nullptr || cause->msg == nullptr ? "" : cause->msg);
    lyd_free_all(tree);
    return -1;
  }
  mark_all_explicit(tree);
  ret_data->reset(tree);
  return 0;
}

int ds_take_data(int hdb, int tflag, const char *path, lyd_tree_ptr *ret_data)
{
  if (std::string_view(path) == "/" && ds_kept_take(ret_data)) {
    return 0;
  }
  return ds_db_get_data_from_top(hdb, tflag, path, ret_data);
}

void ds_mark_way_explicit(lyd_node *node)
{
  for (; node != nullptr; node = lyd_parent(node)) {
    ds_mark_explicit(node);
  }
}

int ds_add_implicit(lyd_node *top, lyd_tree_ptr *ret_created)
{
  std::vector<lyd_node *> stored = empty_containers(top);
  ds_clear_values clear; // conditions of defaults may look at them
  open_for_validation(lyd_first_sibling(top), &clear);
  lyd_node *created = nullptr;
  LY_ERR result = lyd_new_implicit_tree(top, LYD_IMPLICIT_NO_STATE, &created);
  lyd_tree_ptr owner(created);
  for (lyd_node *container : stored) {
    ds_mark_way_explicit(container);
  }
  if (result != LY_SUCCESS) {
    log_error("create default node %.512s lyd fail.", top->schema->name);
    return -1;
  }
  *ret_created = std::move(owner);
  return 0;
}

void ds_drop_implicit(lyd_tree_ptr *data, const lyd_node *created)
{
  for (const lyd_node *root = created; root != nullptr; root = root->next) {
    const lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      lyd_node *implicit = find_implicit(data->get(), node);
      if (implicit != nullptr) {
        LYD_TREE_DFS_continue = 1; // all below goes with it
        lyd_node *parent = lyd_parent(implicit);
        free_in_tree(data, implicit);
        ds_mark_way_explicit(parent); // it was stored, or it would have gone before
      }
      LYD_TREE_DFS_END(root, node);
    }
  }
}

int datastore_validate(lyd_tree_ptr *data, int invalid_kind, reply_error_ptr *ret_error,
                       std::unordered_set<const lysc_node *> *ret_implied)
{
  if (*data == nullptr) {
    log_debug("no need to check mandatory for NULL config");
    return 0;
  }
  ymgrd_send_keepalive_msg(0, 0);
  ymgrd_send_keepalive_msg(VALIDATION_WARN_SECONDS, VALIDATION_KILL_SECONDS);
  ds_clear_yang_errors();
  size_t count = mark_nodes(data->get());
  ds_clear_values clear;
  open_for_validation(data->get(), &clear);
  lyd_node *tree = data->release(); // validation may replace the first node
  lyd_node *changes = nullptr;
  LY_ERR result = lyd_validate_all(&tree, schema_ctx(), LYD_VALIDATE_NO_STATE | LYD_VALIDATE_PRESENT, &changes);
  data->reset(tree);
  clear.close(tree, [](const lyd_node *node) { return node->priv != nullptr; });
  lyd_tree_ptr owner(changes);
  ymgrd_send_keepalive_msg(0, 0);
  if (result != LY_SUCCESS) {
    *ret_error = rpc_make_error(ds_error_kind(invalid_kind, invalid_kind), "validation failed");
    ds_add_path_and_msg(ret_error->get());
    restore_validated(data, count);
    return -1;
  }
  unmark_nodes(data->get());
  const lyd_node *lost = find_deleted(changes);
  if (lost != nullptr) {
    *ret_error = when_error(lost);
    data->reset();
    return -1;
  }
  if (ret_implied != nullptr) {
    add_created_schemas(changes, ret_implied);
  }
  ds_drop_implicit(data, changes);
  mark_all_explicit(data->get()); // validation looks for empty containers too
  return 0;
}
