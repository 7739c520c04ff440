#include "ymgrd/datastore/edit_config.h"

#include <algorithm>

#include "ymgrd/core/log.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/edit_internal.h"

namespace {

// The outcome of one config subtree: its diff, and the entry that now stands for it in the data.
struct edit_result_t {
  differ_ptr diff; // null when nothing changed
  lyd_node *db_node = nullptr;
};

int edit_node(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE inherited,
              differ_list *diff);

NC_EDIT_OP_TYPE own_operation(const lyd_node *config)
{
  const ds_node_record_t *record = ds_node_record(config);
  return record == nullptr ? NC_EDIT_OP_NONE : record->node_op;
}

uint32_t document_position(const lyd_node *config)
{
  const ds_node_record_t *record = ds_node_record(config);
  return record == nullptr ? 0 : record->order;
}

bool is_inner(const lysc_node *schema)
{
  return schema->nodetype & (LYS_CONTAINER | LYS_LIST);
}

bool is_key(const lysc_node *schema)
{
  return schema->nodetype == LYS_LEAF && lysc_is_key(schema);
}

// The entry with the keys, or the value, of `entry`.
lyd_node *find_entry(const lyd_node *siblings, const lyd_node *entry)
{
  lyd_node *match = nullptr;
  return siblings != nullptr && lyd_find_sibling_first(siblings, entry, &match) == LY_SUCCESS ? match : nullptr;
}

lyd_node *find_counterpart(const edit_job_t *job, const lyd_node *parent, const lyd_node *config)
{
  const lysc_node *schema = dbkey_schema_of(config);
  if (!(schema->nodetype & (LYS_LIST | LYS_LEAFLIST))) {
    return edit_find_schema(job, parent, schema);
  }
  return find_entry(edit_siblings(job, parent), config);
}

// Every operation below a node that is deleted must agree with the deletion.
int check_operations_below(const lyd_node *config, NC_EDIT_OP_TYPE inherited)
{
  for (const lyd_node *child = lyd_child(config); child != nullptr; child = child->next) {
    NC_EDIT_OP_TYPE op;
    const lysc_node *schema = dbkey_schema_of(child);
    if (operations_check(own_operation(child), inherited, is_key(schema), &op) != 0 ||
        (is_inner(schema) && check_operations_below(child, op) != 0)) {
      return -1;
    }
  }
  return 0;
}

// --- Children.

// Under replace, the entries of a user-ordered list stand in the order of the document.
class replaced_order {
public:
  void note(const lyd_node *config)
  {
    const lysc_node *schema = dbkey_schema_of(config);
    if (!lysc_is_userordered(schema) || ds_has_attr_insert(config)) {
      return;
    }
    for (list_t &list : lists_) {
      if (list.schema == schema) {
        list.elements.push_back(config);
        return;
      }
    }
    lists_.push_back({schema, {config}});
  }

  int arrange(edit_job_t *job, const edit_place_t &place, differ_list *diff) const
  {
    for (const list_t &list : lists_) {
      std::vector<lyd_node *> entries;
      for (const lyd_node *config : list.elements) {
        // Looked up again: what an element made may have been erased since, by a node of another case.
        lyd_node *entry = find_counterpart(job, place.parent, config);
        if (entry != nullptr) {
          entries.push_back(entry);
        }
      }
      if (edit_arrange(job, place, entries, diff) != 0) {
        return -1;
      }
    }
    return 0;
  }

private:
  struct list_t {
    const lysc_node *schema;
    std::vector<const lyd_node *> elements; // in the order of the document
  };
  std::vector<list_t> lists_; // of one parent: a few
};

int edit_children(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                  differ_list *diff)
{
  replaced_order order;
  for (const lyd_node *child : edit_document_order(lyd_child(config))) {
    if (edit_node(job, child, place, op, diff) != 0) {
      return -1;
    }
    if (op == NC_EDIT_OP_REPLACE) {
      order.note(child);
    }
  }
  return order.arrange(job, place, diff);
}

// A leaf with another value is the same leaf, another entry is another node.
bool is_named(const lyd_node *config_siblings, const lyd_node *db_node)
{
  if (db_node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) {
    return find_entry(config_siblings, db_node) != nullptr;
  }
  lyd_node *match = nullptr;
  return config_siblings != nullptr &&
         lyd_find_sibling_val(config_siblings, db_node->schema, nullptr, 0, &match) == LY_SUCCESS;
}

// Under replace, what the config does not name goes.
int erase_unnamed(edit_job_t *job, const lyd_node *config_siblings, const edit_place_t &place, differ_list *diff)
{
  lyd_node *next = nullptr;
  for (lyd_node *child = edit_siblings(job, place.parent); child != nullptr; child = next) {
    next = child->next;
    if (is_key(child->schema) || is_named(config_siblings, child)) {
      continue;
    }
    size_t parent_length = place.key->size();
    dbkey_append(place.key, child);
    int result = edit_erase(job, place, child, diff);
    place.key->resize(parent_length);
    if (result != 0) {
      return -1;
    }
  }
  return 0;
}

// Applies the children of an inner node that stands in the data, then the defaults; the diff of all that becomes
// `node_diff`'s.
int edit_below(edit_job_t *job, const lyd_node *config, lyd_node *db_node, std::string *key, NC_EDIT_OP_TYPE op,
               bool existed, differ_node_t *node_diff)
{
  edit_place_t place{db_node, key};
  differ_list below;
  if (op == NC_EDIT_OP_REPLACE && existed && erase_unnamed(job, lyd_child(config), place, &below) != 0) {
    return -1;
  }
  if (edit_children(job, config, place, op, &below) != 0) {
    return -1;
  }
  bool is_edited = op != NC_EDIT_OP_NONE || below.first() != nullptr; // and not just a level on the way
  if (is_edited && edit_fill_default(job, place, &below) != 0) {
    return -1;
  }
  below.attach_to(node_diff);
  return 0;
}

// --- Operations on one node. The place's key is the node's own.

int edit_create_node(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                     edit_result_t *result)
{
  bool moved = false;
  result->db_node = edit_insert(job, place, config, &moved);
  if (result->db_node == nullptr) {
    return -1;
  }
  result->diff = edit_diff(place, DBDIFF_ADD, config->schema, config, nullptr);
  if (result->diff == nullptr) {
    return -1;
  }
  if (moved) {
    result->diff->oper_type |= DBDIFF_MOVE;
  }
  if (!is_inner(config->schema)) {
    return 0;
  }
  return edit_below(job, config, result->db_node, place.key, op, false, result->diff.get());
}

int edit_existing_inner(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                        edit_result_t *result)
{
  result->diff = edit_diff(place, DBDIFF_CHAIN, config->schema, config, result->db_node);
  if (result->diff == nullptr ||
      edit_below(job, config, result->db_node, place.key, op, true, result->diff.get()) != 0) {
    return -1;
  }
  if (result->diff->child == nullptr) {
    result->diff.reset(); // nothing below changed
  }
  return 0;
}

int edit_existing_value(edit_job_t *job, const lyd_node *config, const edit_place_t &place, edit_result_t *result)
{
  if (config->schema->nodetype == LYS_LEAFLIST || edit_same_value(result->db_node, config)) {
    return 0;
  }
  result->diff = edit_diff(place, DBDIFF_MOD, config->schema, config, result->db_node);
  if (result->diff == nullptr) {
    return -1;
  }
  return edit_change_value(job, place, result->db_node, config);
}

int edit_existing_move(edit_job_t *job, const lyd_node *config, const edit_place_t &place, edit_result_t *result)
{
  if (!ds_has_attr_insert(config)) {
    return 0;
  }
  edit_position_t position;
  bool moved = false;
  if (edit_read_position(job, place, config, &position) != 0 ||
      edit_move(job, place, result->db_node, position, &moved) != 0) {
    log_error("edit merge move node %.512s fail.", place.key->c_str());
    return -1;
  }
  if (!moved) {
    return 0;
  }
  if (result->diff == nullptr) {
    result->diff = edit_diff(place, DBDIFF_MOVE, config->schema, config, result->db_node);
    return result->diff == nullptr ? -1 : 0;
  }
  result->diff->oper_type |= DBDIFF_MOVE;
  return 0;
}

// Merge and replace: the node stands in the data afterwards.
int edit_merge(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
               edit_result_t *result)
{
  if (result->db_node == nullptr) {
    return edit_create_node(job, config, place, op, result);
  }
  int done = is_inner(config->schema) ? edit_existing_inner(job, config, place, op, result)
                                      : edit_existing_value(job, config, place, result);
  return done != 0 ? -1 : edit_existing_move(job, config, place, result);
}

int edit_replace(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                 edit_result_t *result)
{
  if (edit_merge(job, config, place, op, result) != 0) {
    log_error("edit replace fail on %.512s.", place.key->c_str());
    return -1;
  }
  return 0;
}

int edit_create(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                edit_result_t *result)
{
  if (result->db_node != nullptr) {
    log_error("edit create node %.512s already in database.", place.key->c_str());
    return edit_fail(job, REPLY_ERR_DATA_EXISTS, config);
  }
  return edit_create_node(job, config, place, op, result);
}

// Without default operation nothing is created: the levels of the config must stand in the data.
int edit_none(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
              edit_result_t *result)
{
  if (result->db_node == nullptr) {
    log_error("edit none check node %.512s not exist in database.", place.key->c_str());
    return edit_fail(job, REPLY_ERR_DATA_MISSING, config);
  }
  return is_inner(config->schema) ? edit_existing_inner(job, config, place, op, result) : 0;
}

int edit_delete(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                lyd_node *db_node, differ_list *diff)
{
  if (check_operations_below(config, op) != 0) {
    log_error("edit delete check node %.512s operation fail.", place.key->c_str());
    return edit_fail(job, REPLY_ERR_OP_FAILED, config);
  }
  if (db_node == nullptr) {
    log_error("edit delete check node %.512s not exist in database.", place.key->c_str());
    return edit_fail(job, REPLY_ERR_DATA_MISSING, config);
  }
  return edit_erase(job, place, db_node, diff);
}

int edit_remove(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                lyd_node *db_node, differ_list *diff)
{
  if (check_operations_below(config, op) != 0) {
    log_error("remove node %.512s check child operation error.", place.key->c_str());
    return edit_fail(job, REPLY_ERR_OP_FAILED, config);
  }
  return db_node == nullptr ? 0 : edit_erase(job, place, db_node, diff);
}

typedef int (*edit_operation_fn)(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                                 edit_result_t *result);

// By effective operation; delete and remove are not among them: they end a branch of the edit.
const edit_operation_fn edit_operation_table[] = {edit_none, edit_merge, edit_replace, edit_create};

int edit_keeping_operation(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE op,
                           lyd_node *db_node, differ_list *diff)
{
  edit_result_t result;
  result.db_node = db_node;
  if (edit_operation_table[op](job, config, place, op, &result) != 0) {
    log_error("edit operation node fail.");
    return -1;
  }
  diff->append(result.diff.release());
  return 0;
}

// One config subtree. The place's key is the parent's, before and after; what changed is appended to `diff`.
int edit_node(edit_job_t *job, const lyd_node *config, const edit_place_t &place, NC_EDIT_OP_TYPE inherited,
              differ_list *diff)
{
  const lysc_node *schema = dbkey_schema_of(config);
  NC_EDIT_OP_TYPE op;
  if (operations_check(own_operation(config), inherited, is_key(schema), &op) != 0) {
    return edit_fail(job, REPLY_ERR_OP_FAILED, config);
  }
  if (is_key(schema)) {
    return 0; // keys are written with their entry
  }
  bool deletes = op == NC_EDIT_OP_DELETE || op == NC_EDIT_OP_REMOVE;
  if (config->schema == nullptr && !deletes) { // without a value nothing can be made of it
    return edit_fail(job, REPLY_ERR_INVALID_VALUE, config);
  }
  if (!deletes && op != NC_EDIT_OP_NONE && edit_clear_choice_case(job, place.parent, place.key, schema, diff) != 0) {
    log_error("delete the other choice case node fail.");
    return -1;
  }
  lyd_node *db_node = find_counterpart(job, place.parent, config);
  size_t parent_length = place.key->size();
  if (config->schema != nullptr) {
    dbkey_append(place.key, config);
  } else if (db_node != nullptr) {
    dbkey_append(place.key, db_node);
  }
  int result = -1;
  if (op == NC_EDIT_OP_DELETE) {
    result = edit_delete(job, config, place, op, db_node, diff);
  } else if (op == NC_EDIT_OP_REMOVE) {
    result = edit_remove(job, config, place, op, db_node, diff);
  } else {
    result = edit_keeping_operation(job, config, place, op, db_node, diff);
  }
  place.key->resize(parent_length);
  return result;
}

int edit_top_nodes(edit_job_t *job, differ_list *diff)
{
  std::string key;
  edit_place_t place{nullptr, &key};
  NC_EDIT_OP_TYPE inherited = job->request->default_operation;
  if (inherited == NC_EDIT_OP_REPLACE && erase_unnamed(job, job->request->config, place, diff) != 0) {
    return -1;
  }
  replaced_order order;
  for (const lyd_node *config : edit_document_order(job->request->config)) {
    if (edit_node(job, config, place, inherited, diff) != 0) {
      log_error("edit operatorn recursively fail on node %.512s/%.512s", dbkey_segment(config).c_str(),
                dbkey_schema_of(config)->name);
      return -1;
    }
    if (inherited == NC_EDIT_OP_REPLACE) {
      order.note(config);
    }
  }
  return order.arrange(job, place, diff);
}

// A refused edit gives back what it took: reading it anew costs as much as the datastore is large.
void give_data_back(edit_job_t *job)
{
  bool is_refused = job->error != nullptr; // else something failed, perhaps in the midst of a step
  if (is_refused && std::string_view(job->request->path) == "/" && job->changes.undo(&job->data)) {
    ds_kept_store(std::move(job->data));
  }
}

} // namespace

lyd_node *edit_siblings(const edit_job_t *job, const lyd_node *parent)
{
  return parent == nullptr ? job->data.get() : lyd_child(parent);
}

lyd_node *edit_find_schema(const edit_job_t *job, const lyd_node *parent, const lysc_node *schema)
{
  lyd_node *siblings = edit_siblings(job, parent);
  if (siblings == nullptr) {
    return nullptr;
  }
  if (schema->nodetype == LYS_LEAFLIST) {
    for (lyd_node *node = siblings; node != nullptr; node = node->next) { // libyang finds these by value only
      if (node->schema == schema) {
        return node;
      }
    }
    return nullptr;
  }
  lyd_node *match = nullptr;
  return lyd_find_sibling_val(siblings, schema, nullptr, 0, &match) == LY_SUCCESS ? match : nullptr;
}

int edit_fail(edit_job_t *job, int kind, const lyd_node *config)
{
  if (job->error != nullptr) {
    return -1; // the cause is known already
  }
  job->error.reset(rpc_create_error(kind));
  c_string_ptr path(lyd_path(config, LYD_PATH_STD, nullptr, 0));
  if (job->error != nullptr && path != nullptr) {
    rpc_set_error_field(job->error.get(), REPLY_ERR_FIELD_PATH, path.get());
  }
  return -1;
}

std::vector<const lyd_node *> edit_document_order(const lyd_node *first)
{
  size_t count = 0;
  for (const lyd_node *node = first; node != nullptr; node = node->next) {
    count++;
  }
  std::vector<const lyd_node *> nodes;
  nodes.reserve(count); // asked for every inner node of a config
  for (const lyd_node *node = first; node != nullptr; node = node->next) {
    nodes.push_back(node);
  }
  auto earlier = [](const lyd_node *a, const lyd_node *b) { return document_position(a) < document_position(b); };
  if (!std::is_sorted(nodes.begin(), nodes.end(), earlier)) {
    std::stable_sort(nodes.begin(), nodes.end(), earlier);
  }
  return nodes;
}

int operations_check(NC_EDIT_OP_TYPE own, NC_EDIT_OP_TYPE inherited, bool is_list_key, NC_EDIT_OP_TYPE *ret_op)
{
  if (own == NC_EDIT_OP_ERROR || inherited == NC_EDIT_OP_ERROR) {
    log_error("operation (%d) differ from parent (%d)", own, inherited);
    return -1;
  }
  if (own == NC_EDIT_OP_NONE || own == inherited) {
    *ret_op = inherited;
    return 0;
  }
  bool parent_leaves_open = inherited == NC_EDIT_OP_NONE || inherited == NC_EDIT_OP_MERGE;
  if (parent_leaves_open && !(is_list_key && own != NC_EDIT_OP_MERGE)) {
    *ret_op = own;
    return 0;
  }
  if (!parent_leaves_open && own == NC_EDIT_OP_MERGE) {
    *ret_op = inherited;
    return 0;
  }
  log_error("operation (%d) differ from parent (%d)", own, inherited);
  return -1;
}

int edit_operations(const edit_request_t &request, lyd_tree_ptr *ret_data, differ_node_t **ret_tree, bool *ret_written,
                    reply_error_ptr *ret_error)
{
  if (request.config == nullptr && request.default_operation != NC_EDIT_OP_REPLACE) {
    log_warn("edit operation input doc or doc root is NULL");
    *ret_tree = nullptr;
    *ret_written = false;
    return ds_take_data(request.hdb, request.tflag, request.path, ret_data);
  }
  edit_job_t job;
  job.request = &request;
  differ_list diff;
  if (ds_take_data(request.hdb, request.tflag, request.path, &job.data) != 0) {
    return -1;
  }
  job.changes.begin(job.data.get());
  if (edit_top_nodes(&job, &diff) != 0) {
    give_data_back(&job);
    *ret_error = std::move(job.error);
    return -1;
  }
  differ_node_t *tree = diff.release();
  if (!job.conditional_defaults.empty() && edit_fill_conditional_defaults(&job, &tree) != 0) {
    free_differ_tree(tree);
    return -1;
  }
  *ret_written = !job.changes.all().empty();
  if (!*ret_written) {
    (void)job.changes.undo(&job.data); // it is as valid as before; without steps nothing can fail
  }
  *ret_data = std::move(job.data);
  *ret_tree = tree;
  if (request.changes != nullptr) {
    *request.changes = std::move(job.changes);
  }
  return 0;
}
