// The writing slots of the built-in driver: they record in the handle what Redis shall hold.
#include <cstring>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_internal.h"
#include "ymgrd/rpc/lyxml.h"

namespace {

// The handle, when it may write now; else null, with the cause in the log.
hdb_t *find_writer(int hdb)
{
  hdb_t *handle = hdb_find(hdb);
  if (handle == nullptr) {
    return nullptr;
  }
  if (handle->trans_state != TRANS_STATE_WORKING && handle->target_db != YMGRM_STATUS_DB) {
    log_error("start trans first!");
    return nullptr;
  }
  // What follows a copied datastore may depend on its content.
  if (handle->pending.replacement() != 0 && db_flush_pending(handle, DB_FLUSH_UNDOABLE) != 0) {
    return nullptr;
  }
  return handle;
}

// Outside a transaction (status data) nobody will commit: stored at once.
int finish_write(hdb_t *handle)
{
  return handle->trans_state == TRANS_STATE_WORKING ? 0 : db_flush_pending(handle, DB_FLUSH_FINAL);
}

void register_module(hdb_t *handle, std::string_view data_key)
{
  handle->pending.set_field("/", belong_module(data_key).substr(1), DB_VALUE_NODE, {});
}

void set_content(hdb_t *handle, const db_address_t &address, const char *data)
{
  if (address.type == DB_NODE_TOPNODE) {
    register_module(handle, address.data_key);
  }
  handle->pending.set_field(address.key, address.item, DB_VALUE_NODE, data != nullptr ? data : "");
}

int set_node(hdb_t *handle, const db_address_t &address, const char *data)
{
  lyxml_ptr root = data != nullptr ? lyxml_parse_mem(data) : nullptr;
  if (root == nullptr) {
    log_error("data parse xml failed.");
    return -1;
  }
  if (lyxml_first_child(root.get()) != nullptr) {
    log_error("data type is not a node but a tree.");
    return -1;
  }
  handle->pending.set_field(address.data_key, lyxml_name(root.get()), DB_VALUE_NODE, lyxml_text(root.get()));
  return 0;
}

int set_by_type(hdb_t *handle, const db_address_t &address, int datatype, const char *data)
{
  switch (datatype) {
  case DB_DATA_TREE:
    log_error("Not support set tree at present.");
    return -1;
  case DB_DATA_CONTENT:
    set_content(handle, address, data);
    return 0;
  case DB_DATA_NODE:
    return set_node(handle, address, data);
  default:
    log_error("wrong data type.");
    return -1;
  }
}

bool has_text(const char *data)
{
  return data != nullptr && data[0] != '\0';
}

// The list with its order known, as the operations so far leave it.
pending_list_t *list_with_order(hdb_t *handle, const std::string &list_key)
{
  pending_list_t *list = handle->pending.list_at(list_key);
  return list->order != nullptr || db_load_order(handle, list_key, list) == 0 ? list : nullptr;
}

// Where an entry comes to stand `offset` places behind the entry at `reference`, in a list of `size` entries that does
// not have it. 0, or -1 when the list has no such place.
int find_place(size_t reference, int offset, size_t size, const char *who, size_t *ret_position)
{
  long long position = static_cast<long long>(reference) + offset + (offset < 0 ? 1 : 0);
  if (position < 0) {
    log_error("%s: This can not insert.", who);
    return -1;
  }
  if (position > static_cast<long long>(size)) {
    log_error("%s: destpos is reach the max bound, error.", who);
    return -1;
  }
  *ret_position = static_cast<size_t>(position);
  return 0;
}

void place(hdb_t *handle, const db_address_t &entry, size_t position)
{
  list_order *order = handle->pending.list_at(entry.key)->order.get();
  pending_op_t op = {LIST_PUSH_TAIL, entry.item, {}};
  if (position < order->size()) {
    op.op = position == 0 ? LIST_PUSH_HEAD : LIST_INSERT_BEFORE;
    op.pivot = position == 0 ? std::string_view() : order->at(position);
  }
  handle->pending.add_list_op(entry.key, std::move(op));
}

// The position of the entry that `coords` names, in the list of `entry`.
int find_reference(list_order *order, const db_address_t &entry, const char *coords, size_t *ret_position)
{
  db_address_t reference;
  std::optional<size_t> position;
  if (db_find_address(coords, &reference) == 0 && reference.key == entry.key) {
    position = order->position_of(reference.item);
  }
  if (!position.has_value()) {
    log_error("not found the k-v");
    return -1;
  }
  *ret_position = *position;
  return 0;
}

void push(hdb_t *handle, const db_address_t &entry, int offset)
{
  handle->pending.add_list_op(entry.key, {offset < 0 ? LIST_PUSH_HEAD : LIST_PUSH_TAIL, entry.item, {}});
}

int insert_data(hdb_t *handle, const db_address_t &entry, const char *coords, int offset)
{
  pending_list_t *list = list_with_order(handle, entry.key);
  size_t reference = 0;
  if (list == nullptr || find_reference(list->order.get(), entry, coords, &reference) != 0) {
    return -1;
  }
  size_t position = 0;
  if (find_place(reference, offset, list->order->size(), "insert-data", &position) != 0) {
    return -1;
  }
  place(handle, entry, position);
  return 0;
}

int insert_without_data(hdb_t *handle, const db_address_t &entry, const char *coords, int offset)
{
  pending_list_t *list = list_with_order(handle, entry.key);
  if (list == nullptr) {
    return -1;
  }
  if (list->order->size() == 0) {
    log_error("insert-item: list is not exist, reply->str=%s.", "none");
    return -1;
  }
  std::optional<size_t> current = list->order->position_of(entry.item);
  if (!current.has_value()) {
    log_error("insert-item: not found the k-v");
    return -1;
  }
  if (coords == nullptr) {
    handle->pending.add_list_op(entry.key, {LIST_REMOVE, entry.item, {}});
    push(handle, entry, offset);
    return 0;
  }
  if (offset == 0) {
    log_error("offset is not to be set 0.error!");
    return -1;
  }
  size_t reference = 0;
  if (find_reference(list->order.get(), entry, coords, &reference) != 0) {
    return -1;
  }
  long long target = static_cast<long long>(reference) + offset;
  if (target == static_cast<long long>(*current)) {
    log_debug("the pos is not changed, do not need to move.");
    return 0;
  }
  // Without the moved entry those behind it stand one place further ahead.
  reference -= *current < reference ? 1 : 0;
  size_t position = 0;
  if (find_place(reference, offset, list->order->size() - 1, "insert-item", &position) != 0) {
    return -1;
  }
  handle->pending.add_list_op(entry.key, {LIST_REMOVE, entry.item, {}});
  place(handle, entry, position);
  return 0;
}

bool may_become_entry(const char *path, const char *data)
{
  if (has_text(data)) {
    log_error("set leaflist or list should input data=NULL or \"\",path=%.512s,data=%.512s.", path, data);
    return false;
  }
  return true;
}

// The list of an entry stands in its parent.
void note_list(hdb_t *handle, const db_address_t &entry)
{
  std::string_view parent;
  std::string_view name;
  db_split_last_node(entry.key, &parent, &name);
  if (parent == belong_module(entry.key)) { // a top-level list
    register_module(handle, entry.key);
  }
  handle->pending.set_field(parent, name, DB_VALUE_LIST, {});
}

void add_entry(hdb_t *handle, const db_address_t &entry, list_op_t op)
{
  handle->pending.add_list_op(entry.key, {op, entry.item, {}});
  note_list(handle, entry);
}

} // namespace

int db_set_item(int hdb, const char *path, int datatype, const char *data)
{
  db_address_t address;
  if (path == nullptr || db_find_address(path, &address) != 0) {
    log_error("wrong path, path=%.512s", path != nullptr ? path : "(nil)");
    return -1;
  }
  bool adds_entry = address.type == DB_NODE_LEAFLIST ||
                    (address.type == DB_NODE_LIST && (!has_text(data) || datatype == DB_DATA_CONTENT));
  if (adds_entry && !may_become_entry(path, data)) {
    return -1;
  }
  hdb_t *handle = find_writer(hdb);
  if (handle == nullptr) {
    log_error("Connect to db failed.");
    return -1;
  }
  if (adds_entry) {
    add_entry(handle, address, LIST_ADD);
    return finish_write(handle);
  }
  return set_by_type(handle, address, datatype, data) != 0 ? -1 : finish_write(handle);
}

int db_new_item(int hdb, const char *path, const char *coords, int offset, int datatype, const char *data)
{
  db_address_t address;
  if (path == nullptr || db_find_address(path, &address) != 0) {
    return -1;
  }
  if (!address.is_entry() || (address.type == DB_NODE_LIST && has_text(data) && datatype != DB_DATA_CONTENT)) {
    return db_set_item(hdb, path, datatype, data);
  }
  if (!may_become_entry(path, data)) {
    return -1;
  }
  hdb_t *handle = find_writer(hdb);
  if (handle == nullptr) {
    return -1;
  }
  if (coords == nullptr) {
    add_entry(handle, address, offset < 0 ? LIST_PUSH_HEAD : LIST_PUSH_TAIL);
  } else if (insert_data(handle, address, coords, offset) == 0) {
    note_list(handle, address);
  } else {
    return -1;
  }
  return finish_write(handle);
}

int db_move_item(int hdb, const char *path, const char *coords, int offset)
{
  log_debug("db-move-item: path=%.512s, coords=%.512s, offset=%d.", path != nullptr ? path : "(nil)",
            coords != nullptr ? coords : "(nil)", offset);
  if (path == nullptr) {
    log_error("db-move-item: path is (nil),error.");
    return -1;
  }
  db_address_t address;
  hdb_t *handle = find_writer(hdb);
  if (handle == nullptr || db_find_address(path, &address) != 0 || !address.is_entry() ||
      insert_without_data(handle, address, coords, offset) != 0) {
    log_error("db-move-item: insert item failed.");
    return -1;
  }
  return finish_write(handle);
}

int db_del_item(int hdb, const char *path)
{
  if (path == nullptr) {
    log_error("db-del-item: path is NULL, error.");
    return -1;
  }
  db_address_t address;
  if (db_find_address(path, &address) != 0) {
    log_error("path to key failed.");
    return -1;
  }
  hdb_t *handle = find_writer(hdb);
  if (handle == nullptr) {
    log_error("Redis Connect failed.");
    return -1;
  }
  if (address.is_entry()) {
    log_debug("key is list: key=%.512s, value=%.512s.", address.key.c_str(), address.item.c_str());
  } else {
    log_debug("key is hash: key=%.512s, field=%.512s.", address.key.c_str(), address.item.c_str());
  }
  handle->pending.remove_node(address);
  return finish_write(handle);
}
