// One node of an edit in the three places where it stands: the data tree, the database, the diff tree.
#include "ymgrd/broker/differ_tree.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_value.h"
#include "ymgrd/datastore/edit_internal.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

// A list of this many diff nodes is searched by its index, a shorter one by walking it.
constexpr size_t SHORT_DIFFER_LIST = 8;

bool is_any(const lysc_node *schema)
{
  return schema->nodetype & LYD_NODE_ANY;
}

// --- The data tree.

int link_into_data(edit_job_t *job, const edit_place_t &place, lyd_node *node)
{
  LY_ERR result = LY_SUCCESS;
  ds_mark_explicit(node);
  if (place.parent != nullptr) {
    result = lyd_insert_child(place.parent, node);
  } else {
    lyd_node *first = job->data.release();
    result = lyd_insert_sibling(first, node, &first);
    job->data.reset(first);
  }
  if (result != LY_SUCCESS) {
    log_error("edit insert config lyd to database lyd node %.512s fail.", place.key->c_str());
    return -1;
  }
  return 0;
}

void take_out_of_data(edit_job_t *job, lyd_node *node)
{
  job->chosen_cases.clear(); // it knows nodes by address
  if (job->data.get() == node) {
    lyd_node *next = node->next;
    (void)job->data.release(); // the first top node goes, its successor takes its place
    job->data.reset(next);
  }
  job->changes.remove(node);
}

} // namespace

// --- differ_list

void differ_list::append(differ_node_t *node)
{
  if (node == nullptr) {
    return;
  }
  differ_node_t *earlier = find(node->data_path);
  if (earlier == nullptr) {
    link(node, last_);
    return;
  }
  differ_node_t *before = earlier->prev;
  unlink(earlier);
  differ_tree_merge(&earlier, &node, 0);
  if (earlier != nullptr) {
    link(earlier, before); // new entries stand in the order of their making
  }
}

differ_node_t *differ_list::find(const char *data_path)
{
  if (count_ > SHORT_DIFFER_LIST) {
    auto found = by_path_.find(data_path);
    return found == by_path_.end() ? nullptr : found->second;
  }
  for (differ_node_t *node = first_; node != nullptr; node = node->next) {
    if (node->data_path == data_path) {
      return node;
    }
  }
  return nullptr;
}

void differ_list::link(differ_node_t *node, differ_node_t *before)
{
  if (before != nullptr) {
    differ_node_add_sibling(first_, before, node);
  } else {
    node->next = first_;
    if (first_ != nullptr) {
      first_->prev = node;
    }
    first_ = node;
  }
  if (last_ == before) {
    last_ = node;
  }
  count_++;
  if (count_ == SHORT_DIFFER_LIST + 1) {
    for (differ_node_t *each = first_; each != nullptr; each = each->next) {
      by_path_.emplace(each->data_path, each);
    }
  } else if (count_ > SHORT_DIFFER_LIST) {
    by_path_.emplace(node->data_path, node);
  }
}

void differ_list::unlink(differ_node_t *node)
{
  if (first_ == node) {
    first_ = node->next;
  }
  if (last_ == node) {
    last_ = node->prev;
  }
  if (count_ > SHORT_DIFFER_LIST) {
    by_path_.erase(node->data_path);
  }
  count_--;
  if (count_ == SHORT_DIFFER_LIST) {
    by_path_.clear();
  }
  unlink_differ_node(node);
}

differ_node_t *differ_list::release()
{
  differ_node_t *first = first_;
  first_ = nullptr;
  last_ = nullptr;
  count_ = 0;
  by_path_.clear();
  return first;
}

void differ_list::attach_to(differ_node_t *parent)
{
  if (first_ != nullptr) {
    differ_node_add_child(parent, nullptr, release());
  }
}

// --- Nodes

differ_ptr edit_diff(const edit_place_t &place, ENUM_ACTION action, const lysc_node *schema, const lyd_node *config,
                     const lyd_node *db_node)
{
  return differ_ptr(new_differ_node(place.key->c_str(), dbkey_schema_key(schema), action, config, db_node));
}

bool edit_same_value(const lyd_node *db_node, const lyd_node *config)
{
  if (is_any(config->schema)) {
    return ds_stored_value(db_node) == ds_stored_value(config);
  }
  // Values are interned: equal ones are one pointer. Two cipher texts of one secret are not.
  return lyd_get_value(db_node) == lyd_get_value(config) ||
         (schema_is_sensitive(config->schema) && compare_encrypt(lyd_get_value(db_node), lyd_get_value(config)) == 0);
}

int edit_write(edit_job_t *job, const edit_place_t &place, const lyd_node *node, const char *coords, int offset)
{
  if (!job->request->done) {
    return 0;
  }
  int hdb = job->request->hdb;
  int result = 0;
  if (node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) {
    result = database_new(hdb, place.key->c_str(), coords, offset, DB_DATA_CONTENT, nullptr);
  } else if (node->schema->nodetype == LYS_CONTAINER) {
    result = database_set(hdb, place.key->c_str(), DB_DATA_CONTENT, nullptr);
  } else {
    result = database_set(hdb, place.key->c_str(), DB_DATA_CONTENT, ds_stored_value(node).c_str());
  }
  if (result != 0) {
    log_error("write database %.512s fail.", place.key->c_str());
  }
  return result == 0 ? 0 : -1;
}

lyd_node *edit_insert(edit_job_t *job, const edit_place_t &place, const lyd_node *config, bool *ret_moved)
{
  lyd_node *copy = nullptr;
  // A list entry's keys are copied with it.
  if (lyd_dup_single(config, nullptr, LYD_DUP_NO_META, &copy) != LY_SUCCESS) {
    log_error("lyd dup config node fail.");
    return nullptr;
  }
  lyd_tree_ptr owner(copy);
  edit_position_t position;
  if (ds_has_attr_insert(config) && edit_read_position(job, place, config, &position) != 0) {
    log_error("parse node %.512s userordered attr fail.", place.key->c_str());
    return nullptr;
  }
  if (link_into_data(job, place, owner.get()) != 0) {
    return nullptr;
  }
  (void)owner.release(); // the data tree owns it
  job->changes.created(copy);
  if (edit_write(job, place, copy, nullptr, 0) != 0) {
    return nullptr;
  }
  if (position.where != EDIT_KEEP && edit_move(job, place, copy, position, ret_moved) != 0) {
    return nullptr;
  }
  return copy;
}

lyd_node *edit_insert_default(edit_job_t *job, const edit_place_t &place, const lysc_node *schema)
{
  lyd_node *node = nullptr;
  LY_ERR result = LY_SUCCESS;
  if (schema->nodetype == LYS_CONTAINER) {
    result = lyd_new_inner(place.parent, schema->module, schema->name, 0, &node);
    if (result == LY_SUCCESS) {
      ds_mark_explicit(node);
    }
  } else {
    const auto *leaf = reinterpret_cast<const lysc_node_leaf *>(schema);
    const char *value = lyd_value_get_canonical(schema->module->ctx, leaf->dflt);
    result = lyd_new_term(place.parent, schema->module, schema->name, value, 0, &node);
  }
  if (result != LY_SUCCESS) {
    log_error("create default node %.512s lyd fail.", schema->name);
    return nullptr;
  }
  job->changes.created(node);
  return edit_write(job, place, node, nullptr, 0) == 0 ? node : nullptr;
}

int edit_change_value(edit_job_t *job, const edit_place_t &place, lyd_node *db_node, const lyd_node *config)
{
  job->changes.value_changes(db_node);
  if (is_any(config->schema)) {
    const auto *any = reinterpret_cast<const lyd_node_any *>(config);
    if (lyd_any_copy_value(db_node, &any->value, any->value_type) != LY_SUCCESS) {
      log_error("edit operation database lyd node fail(merge tree).");
      return -1;
    }
  } else {
    LY_ERR result = lyd_change_term(db_node, lyd_get_value(config));
    if (result != LY_SUCCESS && result != LY_EEXIST && result != LY_ENOT) {
      log_error("edit operation database lyd node fail(merge tree).");
      return -1;
    }
  }
  return edit_write(job, place, config, nullptr, 0);
}

int edit_erase(edit_job_t *job, const edit_place_t &place, lyd_node *db_node, differ_list *diff)
{
  // Everything that goes is named: a subscriber below the removed node is told too.
  differ_node_t *removed = ds_subtree_diff(place.key, db_node, DBDIFF_REM);
  if (removed == nullptr) {
    return -1;
  }
  diff->append(removed);
  if (job->request->done && database_delete(job->request->hdb, place.key->c_str()) != 0) {
    log_error("edit clear choice case node %.512s fail.", place.key->c_str());
    return -1;
  }
  take_out_of_data(job, db_node);
  return 0;
}
