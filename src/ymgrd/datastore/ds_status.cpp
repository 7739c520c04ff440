#include "ymgrd/datastore/ds_status.h"

#include "ymgrd/database/database.h"
#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/datastore/ds_value.h"

ds_status_batch::~ds_status_batch()
{
  if (hdb_ > 0) {
    database_unlock(hdb_, lock_id_);
    database_close(hdb_); // discards
  }
}

int ds_status_batch::begin(const char *path)
{
  hdb_ = database_open(YMGRM_STATUS_DB);
  if (hdb_ <= 0) {
    return -1;
  }
  lock_id_ = database_lock(hdb_, DB_LOCK_WRITE, path);
  return lock_id_ > 0 ? database_trans_start(hdb_) : -1;
}

void ds_status_batch::set(const std::string &path, const std::string &text)
{
  failed_ = failed_ || database_set(hdb_, path.c_str(), DB_DATA_CONTENT, text.c_str()) != 0;
}

void ds_status_batch::remove(const std::string &path)
{
  failed_ = failed_ || database_delete(hdb_, path.c_str()) != 0;
}

void ds_status_batch::set_node(const lyd_node *node, std::string *key)
{
  size_t length = key->size();
  dbkey_append(key, node);
  bool has_text = node->schema->nodetype & (LYS_LEAF | LYD_NODE_ANY);
  set(*key, has_text ? ds_stored_value(node) : std::string());
  for (const lyd_node *child = lyd_child_no_keys(node); child != nullptr; child = child->next) {
    set_node(child, key);
  }
  key->resize(length);
}

void ds_status_batch::set_tree(const lyd_node *node)
{
  for (const lyd_node *parent = lyd_parent(node); parent != nullptr; parent = lyd_parent(parent)) {
    set(dbkey_data_key(parent));
  }
  std::string key = lyd_parent(node) == nullptr ? "" : dbkey_data_key(lyd_parent(node));
  set_node(node, &key);
}

void ds_status_batch::remove_state(const lyd_node *node, std::string *key)
{
  size_t length = key->size();
  dbkey_append(key, node);
  if (node->schema->flags & LYS_CONFIG_R) {
    remove(*key);
  } else {
    for (const lyd_node *child = lyd_child_no_keys(node); child != nullptr; child = child->next) {
      remove_state(child, key);
    }
  }
  key->resize(length);
}

void ds_status_batch::remove_state(const lyd_node *node)
{
  std::string key = lyd_parent(node) == nullptr ? "" : dbkey_data_key(lyd_parent(node));
  remove_state(node, &key);
}

int ds_status_batch::commit()
{
  return !failed_ && database_trans_commit(hdb_) == 0 ? 0 : -1;
}
