// How recorded writes reach Redis: a few rounds of reads for what was deleted, then one MULTI/EXEC.
#include "ymgrd/core/log.h"
#include "ymgrd/database/database_internal.h"

namespace {

// Above this many searching operations a list is read, changed in memory and written again: each LREM or LINSERT walks
// it.
constexpr size_t MAX_LIST_SEARCHES = 64;

std::string number_text(int number)
{
  return std::to_string(number);
}

std::string entry_key(std::string_view list_key, std::string_view member)
{
  std::string key(list_key);
  key.append("[").append(member).append("]");
  return key;
}

// One stored key below a deleted node.
typedef struct _stored_node {
  std::string key;
  bool is_list;
} stored_node_t;

class flush_plan {
public:
  flush_plan(hdb_t *handle, rContext *writer, db_flush_t kind)
      : handle_(handle), pending_(&handle->pending), connection_(handle->ctxt.get()), writer_(writer), kind_(kind)
  {
  }

  int run();

private:
  int resolve_replacement();
  int resolve_deleted();
  bool may_be_absent(std::string_view data_key) const;
  int note_deleted(const deleted_node_t &node, const redisReply *field, std::vector<stored_node_t> *level);
  int walk_down(std::vector<stored_node_t> level);
  void note_stored(const stored_node_t &node, const redisReply *reply, std::vector<stored_node_t> *next);
  int resolve_lists();
  int resolve_short_lists(const std::vector<std::pair<std::string, pending_list_t *>> &lists);
  int find_new_modules();

  void collect_touched();
  void add_saving(redis_batch_t *batch);
  void add_replacement(redis_batch_t *batch);
  void add_writes(redis_batch_t *batch);
  void add_fields(redis_batch_t *batch, const std::string &key, const std::vector<pending_field_t> &fields);
  void add_list(redis_batch_t *batch, const std::string &key, pending_list_t *list);
  void note_done();

  hdb_t *handle_;
  db_overlay *pending_;
  rContext *connection_; // for reading
  rContext *writer_;     // for what the plan comes to
  db_flush_t kind_;

  db_key_set found_;                         // what was looked for: stored keys that go
  db_key_set source_keys_;                   // all of the replacing datastore, when differences are not known
  const db_key_set *unlinked_ = &found_;     // stored keys that go
  const db_key_set *copied_ = &source_keys_; // keys taken from the replacing datastore
  std::vector<std::string_view> written_;    // keys with fields or list operations
  std::vector<std::string_view> touched_;    // all of them, each once
  std::vector<std::string> emptied_lists_;
  std::vector<std::string_view> new_keys_;     // touched, not saved before
  std::map<std::string, bool> new_modules_;    // touched, not saved before; whether registered
  std::vector<std::string> registered_before_; // all modules of a datastore that is replaced
};

// --- What is stored.

int scan_tree(const ndb_t *ndb, db_key_set *ret_keys)
{
  db_connection connection = db_connect(ndb->rdb);
  std::vector<std::string> keys;
  if (!connection || redis_scan(connection.get(), "/*", &keys) != 0) {
    return -1;
  }
  ret_keys->insert(std::make_move_iterator(keys.begin()), std::make_move_iterator(keys.end()));
  return 0;
}

int flush_plan::resolve_replacement()
{
  int source = pending_->replacement();
  const db_key_set *differences = source != 0 ? db_differences(handle_->target_db, source) : nullptr;
  if (differences != nullptr) {
    unlinked_ = differences; // they stay as they are until the flush is done
    copied_ = differences;
  } else if (scan_tree(handle_->ndb, &found_) != 0 ||
             (source != 0 && scan_tree(ndb_find(source), &source_keys_) != 0)) {
    return -1;
  }
  if (kind_ == DB_FLUSH_FINAL) {
    return 0;
  }
  redis_reply_ptr modules = redis_hash_get_all_bin_safe(connection_, "/");
  if (modules == nullptr) {
    return -1;
  }
  for (size_t i = 0; i + 1 < modules->elements; i += 2) {
    registered_before_.emplace_back(redis_reply_text(modules->element[i]));
  }
  return 0;
}

// Whether the deleted node need not be there. State data may have gone with a copy of running.
bool flush_plan::may_be_absent(std::string_view data_key) const
{
  return handle_->target_db == YMGRM_STATUS_DB || pending_->is_gone(data_key);
}

// Decides by a deleted node's field in its parent what is stored below. 0, or -1 when there is no such node.
int flush_plan::note_deleted(const deleted_node_t &node, const redisReply *field, std::vector<stored_node_t> *level)
{
  const db_address_t &address = node.address;
  if (redis_reply_is_error(field)) {
    log_error("key is not in db or type error.");
    return -1;
  }
  if (field->type != REDIS_REPLY_STRING) {
    if (node.was_there || may_be_absent(address.data_key)) {
      return 0;
    }
    log_error("redis has no key:%.512s", address.data_key.c_str());
    return -1;
  }
  int32_t type = 0;
  std::string_view text;
  if (db_read_value(redis_reply_text(field), &type, &text) != 0) {
    return 0; // no value of ours: the field goes, nothing can be below
  }
  if (type == DB_VALUE_LIST || text.empty()) {
    level->push_back({address.data_key, type == DB_VALUE_LIST});
  }
  return 0;
}

int flush_plan::resolve_deleted()
{
  std::vector<stored_node_t> level;
  std::vector<const deleted_node_t *> asked;
  redis_batch_ptr batch(redis_batch_create());
  for (const deleted_node_t &node : pending_->deleted()) {
    if (!node.address.is_entry()) {
      redis_batch_add(batch.get(), {"HGET", node.address.key, node.address.item});
      asked.push_back(&node);
    } else if (node.address.type == DB_NODE_LIST) {
      level.push_back({node.address.data_key, false});
    }
  }
  int result = 0;
  int sent = redis_batch_run(connection_, batch.get(), [&](size_t index, const redisReply *reply) {
    result |= note_deleted(*asked[index], reply, &level);
  });
  return sent != 0 || result != 0 ? -1 : walk_down(std::move(level));
}

void flush_plan::note_stored(const stored_node_t &node, const redisReply *reply, std::vector<stored_node_t> *next)
{
  if (reply->elements == 0 || !found_.insert(node.key).second) {
    return; // nothing stored, or seen below another deleted node
  }
  if (node.is_list) {
    for (size_t i = 0; i < reply->elements; i++) {
      std::string_view member = redis_reply_text(reply->element[i]);
      if (!member.empty() && member[0] != '.') {
        next->push_back({entry_key(node.key, member), false});
      }
    }
    return;
  }
  for (size_t i = 0; i + 1 < reply->elements; i += 2) {
    int32_t type = 0;
    std::string_view text;
    if (db_read_value(redis_reply_text(reply->element[i + 1]), &type, &text) == 0 &&
        (type == DB_VALUE_LIST || text.empty())) {
      next->push_back({node.key + '/' + std::string(redis_reply_text(reply->element[i])), type == DB_VALUE_LIST});
    }
  }
}

// All deleted nodes together, one level of the tree for each round.
int flush_plan::walk_down(std::vector<stored_node_t> level)
{
  redis_batch_ptr batch(redis_batch_create());
  while (!level.empty()) {
    for (const stored_node_t &node : level) {
      if (node.is_list) {
        redis_batch_add(batch.get(), {"LRANGE", node.key, "0", "-1"});
      } else {
        redis_batch_add(batch.get(), {"HGETALL", node.key});
      }
    }
    std::vector<stored_node_t> next;
    bool wrong_type = false;
    int sent = redis_batch_run(connection_, batch.get(), [&](size_t index, const redisReply *reply) {
      wrong_type = wrong_type || redis_reply_is_error(reply);
      if (!wrong_type) {
        note_stored(level[index], reply, &next);
      }
    });
    if (sent != 0) {
      return -1;
    }
    if (wrong_type) {
      log_error("match_key is not in db or type error.");
      return -1;
    }
    level = std::move(next);
  }
  return 0;
}

// Finds out which lists become empty, and whether what is removed from them, or added once only, is there.
int flush_plan::resolve_lists()
{
  std::vector<std::pair<std::string, pending_list_t *>> short_lists;
  for (auto &[key, node] : pending_->keys()) {
    pending_list_t *list = node.list.get();
    if (list == nullptr || list->searches == 0) {
      continue;
    }
    bool fits_memory_better = list->starts_empty || list->searches > MAX_LIST_SEARCHES;
    if (list->order == nullptr && !fits_memory_better) {
      short_lists.emplace_back(key, list);
      continue;
    }
    if (list->order == nullptr && db_load_order(handle_, key, list) != 0) {
      return -1;
    }
    for (const std::string &member : list->missing) {
      if (!may_be_absent(entry_key(key, member))) {
        log_error("redis has no key:%.512s", entry_key(key, member).c_str());
        return -1;
      }
    }
    if (list->order->size() == 0) {
      emptied_lists_.push_back(key);
    }
  }
  if (resolve_short_lists(short_lists) != 0) {
    return -1;
  }
  for (const std::string &key : emptied_lists_) { // Redis drops the list itself
    std::string_view parent;
    std::string_view name;
    db_split_last_node(key, &parent, &name);
    pending_->set_field(parent, name, FIELD_REMOVED, {});
  }
  return 0;
}

int flush_plan::resolve_short_lists(const std::vector<std::pair<std::string, pending_list_t *>> &lists)
{
  redis_batch_ptr batch(redis_batch_create());
  for (const auto &[key, list] : lists) {
    redis_batch_add(batch.get(), {"LLEN", key});
    for (const pending_op_t &op : list->ops) {
      if (op.op == LIST_REMOVE || op.op == LIST_ADD) {
        redis_batch_add(batch.get(), {"LPOS", key, op.member});
      }
    }
  }
  std::vector<long long> replies; // a length, or whether the member is stored
  bool wrong_type = false;
  int sent = redis_batch_run(connection_, batch.get(), [&](size_t, const redisReply *reply) {
    wrong_type = wrong_type || redis_reply_is_error(reply);
    replies.push_back(reply->type == REDIS_REPLY_INTEGER ? reply->integer : -1);
  });
  if (sent != 0) {
    return -1;
  }
  if (wrong_type) {
    log_error("key is not in db or type error.");
    return -1;
  }
  size_t reply = 0;
  for (const auto &[key, list] : lists) {
    long long length = replies[reply++];
    std::unordered_map<std::string, bool> is_there; // of the members that operations named
    std::vector<pending_op_t> recorded = std::move(list->ops);
    list->ops.clear();
    for (pending_op_t &op : recorded) {
      bool is_searched = op.op == LIST_REMOVE || op.op == LIST_ADD;
      bool *present = &is_there.emplace(op.member, is_searched && replies[reply] >= 0).first->second;
      reply += is_searched ? 1 : 0;
      if (op.op == LIST_ADD && *present) {
        continue;
      }
      if (op.op == LIST_REMOVE && !*present && !may_be_absent(entry_key(key, op.member))) {
        log_error("redis has no key:%.512s", entry_key(key, op.member).c_str());
        return -1;
      }
      length += op.op != LIST_REMOVE ? 1 : *present ? -1 : 0;
      *present = op.op != LIST_REMOVE;
      op.op = op.op == LIST_ADD ? LIST_PUSH_TAIL : op.op;
      list->ops.push_back(std::move(op));
    }
    if (length <= 0) {
      emptied_lists_.push_back(key);
    }
  }
  return 0;
}

// --- What is sent.

void flush_plan::collect_touched()
{
  touched_.assign(unlinked_->begin(), unlinked_->end());
  if (copied_ != unlinked_) {
    for (const std::string &key : *copied_) {
      if (!unlinked_->contains(key)) {
        touched_.push_back(key);
      }
    }
  }
  for (const auto &[key, node] : pending_->keys()) {
    if (node.fields.empty() && (node.list == nullptr || node.list->ops.empty())) {
      continue;
    }
    written_.push_back(key);
    if (!unlinked_->contains(key) && !copied_->contains(key)) {
      touched_.push_back(key);
    }
  }
}

// Which modules the flush touches for the first time, and whether they are registered now.
int flush_plan::find_new_modules()
{
  auto note = [this](std::string_view module) {
    std::string name(module);
    if (!handle_->saved.modules.contains(name)) {
      new_modules_.emplace(std::move(name), false);
    }
  };
  std::string_view noted; // keys of one module mostly follow each other
  for (std::string_view key : touched_) {
    if (key == "/") {
      continue;
    }
    std::string_view module = belong_module(key);
    if (module != noted && !module.empty()) {
      note(module.substr(1));
      noted = module;
    }
    if (!handle_->saved.keys.contains(key)) {
      new_keys_.push_back(key);
    }
  }
  for (const std::string &module : registered_before_) {
    note(module);
  }
  if (new_modules_.empty()) {
    return 0;
  }
  redis_batch_ptr batch(redis_batch_create());
  for (const auto &[module, registered] : new_modules_) {
    redis_batch_add(batch.get(), {"HEXISTS", "/", module});
  }
  auto module = new_modules_.begin();
  return redis_batch_run(connection_, batch.get(), [&module](size_t, const redisReply *reply) {
    module->second = reply->type == REDIS_REPLY_INTEGER && reply->integer == 1;
    ++module;
  });
}

// The old content of everything that is touched for the first time, and the journal that names it.
void flush_plan::add_saving(redis_batch_t *batch)
{
  std::string backup = number_text(handle_->ndb->backup_rdb);
  std::string owner = number_text(handle_->hdb_id);
  std::string registered = db_make_value(DB_VALUE_NODE, {});
  std::vector<std::string_view> journal;
  for (std::string_view key : new_keys_) {
    redis_batch_add(batch, {"COPY", key, key, "DB", backup, "REPLACE"});
    journal.push_back(key);
    journal.push_back(owner);
  }
  redis_batch_add(batch, {"SELECT", backup});
  db_add_chunked(batch, {"HSET", DB_JOURNAL_KEY}, journal);
  for (const auto &[module, was_registered] : new_modules_) {
    if (was_registered) {
      redis_batch_add(batch, {"HSET", "/", module, registered});
    }
  }
  redis_batch_add(batch, {"SELECT", number_text(handle_->ndb->rdb)});
}

void flush_plan::add_replacement(redis_batch_t *batch)
{
  std::vector<std::string_view> gone(unlinked_->begin(), unlinked_->end());
  db_add_chunked(batch, {"UNLINK"}, gone);
  if (copied_->empty()) {
    return;
  }
  std::string target = number_text(handle_->ndb->rdb);
  redis_batch_add(batch, {"SELECT", number_text(ndb_find(pending_->replacement())->rdb)});
  for (const std::string &key : *copied_) {
    redis_batch_add(batch, {"COPY", key, key, "DB", target, "REPLACE"});
  }
  redis_batch_add(batch, {"SELECT", target});
}

void flush_plan::add_fields(redis_batch_t *batch, const std::string &key, const std::vector<pending_field_t> &fields)
{
  size_t removed = 0;
  for (const pending_field_t &field : fields) {
    removed += field.type == FIELD_REMOVED ? 1 : 0;
  }
  if (removed > 0) {
    redis_batch_begin(batch, 2 + removed);
    redis_batch_word(batch, "HDEL");
    redis_batch_word(batch, key);
    for (const pending_field_t &field : fields) {
      if (field.type == FIELD_REMOVED) {
        redis_batch_word(batch, field.name);
      }
    }
  }
  size_t set = fields.size() - removed;
  if (set == 0) {
    return;
  }
  std::string value;
  redis_batch_begin(batch, 2 + 2 * set);
  redis_batch_word(batch, "HSET");
  redis_batch_word(batch, key);
  for (const pending_field_t &field : fields) {
    if (field.type != FIELD_REMOVED) {
      redis_batch_word(batch, field.name);
      db_make_value(field.type, field.text, &value);
      redis_batch_word(batch, value);
    }
  }
}

void flush_plan::add_list(redis_batch_t *batch, const std::string &key, pending_list_t *list)
{
  if (list->order != nullptr && (list->searches > MAX_LIST_SEARCHES || list->starts_empty)) {
    redis_batch_add(batch, {"UNLINK", key});
    db_add_chunked(batch, {"RPUSH", key}, list->order->members());
    return;
  }
  std::vector<std::string_view> pushed; // the run of equal pushes that ends before the operation at hand
  for (size_t i = 0; i < list->ops.size(); i++) {
    const pending_op_t &op = list->ops[i];
    bool is_push = op.op == LIST_PUSH_HEAD || op.op == LIST_PUSH_TAIL;
    if (is_push) {
      pushed.push_back(op.member);
      bool run_ends = i + 1 == list->ops.size() || list->ops[i + 1].op != op.op;
      if (run_ends) {
        db_add_chunked(batch, {op.op == LIST_PUSH_HEAD ? "LPUSH" : "RPUSH", key}, pushed);
        pushed.clear();
      }
    } else if (op.op == LIST_REMOVE) {
      redis_batch_add(batch, {"LREM", key, "0", op.member});
    } else {
      redis_batch_add(batch, {"LINSERT", key, "BEFORE", op.pivot, op.member});
    }
  }
}

void flush_plan::add_writes(redis_batch_t *batch)
{
  for (auto &[key, node] : pending_->keys()) {
    add_fields(batch, key, node.fields);
    if (node.list != nullptr && !node.list->ops.empty()) {
      add_list(batch, key, node.list.get());
    }
  }
}

void flush_plan::note_done()
{
  if (kind_ == DB_FLUSH_UNDOABLE) {
    handle_->saved.keys.insert(new_keys_.begin(), new_keys_.end());
    handle_->saved.modules.merge(new_modules_);
  }
  if (kind_ == DB_FLUSH_FINAL && handle_->target_db == YMGRM_STARTUP_DB) {
    db_forget_set_aside(); // startup is never written in parts
  }
  db_differences_touch(handle_->target_db, touched_);
  if (pending_->replacement() != 0) {
    // Last use of the keys: when they are the known differences, they go now.
    db_differences_equal(handle_->target_db, pending_->replacement());
    db_differences_touch(handle_->target_db, written_);
  }
  for (const deleted_node_t &node : pending_->deleted()) {
    pending_->note_gone(node.address.data_key);
  }
  for (const std::string &key : emptied_lists_) {
    pending_->note_gone(key);
  }
  pending_->clear();
}

int flush_plan::run()
{
  // A datastore that is replaced first has nothing stored that deletes could find.
  int resolved = pending_->replaces_all() ? resolve_replacement() : resolve_deleted();
  if (resolved != 0 || resolve_lists() != 0) {
    return -1;
  }
  collect_touched();
  redis_batch_ptr batch(redis_batch_create());
  if (kind_ == DB_FLUSH_UNDOABLE) {
    if (find_new_modules() != 0) {
      return -1;
    }
    add_saving(batch.get());
  }
  add_replacement(batch.get());
  add_writes(batch.get());
  if (kind_ == DB_FLUSH_FINAL) {
    db_add_drop_saved(batch.get(), handle_);
  }
  if (redis_batch_run_atomic(writer_, batch.get()) != 0) {
    handle_->uncertain = true;
    db_differences_forget(handle_->target_db);
    return -1;
  }
  note_done();
  return 0;
}

// A restarted server may have lost what this transaction wrote or read.
int check_transaction(hdb_t *handle)
{
  if (handle->trans_state != TRANS_STATE_WORKING) {
    return 0;
  }
  if (redis_ensure_connected(handle->ctxt.get()) != 0) {
    return -1;
  }
  if (handle->generation != db_server_generation()) {
    handle->uncertain = true;
  }
  if (handle->uncertain) {
    log_error("Transaction of db(%d) was cut off by a lost connection.", handle->ndb->rdb);
    return -1;
  }
  return 0;
}

} // namespace

void db_add_chunked(redis_batch_t *batch, const std::vector<std::string_view> &command,
                    const std::vector<std::string_view> &words, size_t chunk)
{
  for (size_t first = 0; first < words.size(); first += chunk) {
    size_t last = std::min(words.size(), first + chunk);
    std::vector<std::string_view> line = command;
    line.insert(line.end(), words.begin() + static_cast<std::ptrdiff_t>(first),
                words.begin() + static_cast<std::ptrdiff_t>(last));
    redis_batch_add(batch, line);
  }
}

int db_load_order(hdb_t *handle, const std::string &list_key, pending_list_t *list)
{
  auto order = std::make_unique<list_order>();
  if (!list->starts_empty) {
    redis_reply_ptr reply = redis_command(handle->ctxt.get(), {"LRANGE", list_key, "0", "-1"});
    if (reply == nullptr) {
      return -1;
    }
    if (reply->type != REDIS_REPLY_ARRAY) {
      log_error("key is not a list, error.");
      return -1;
    }
    for (size_t i = 0; i < reply->elements; i++) {
      order->append(redis_reply_text(reply->element[i]));
    }
  }
  list->order = std::move(order);
  list->missing.clear();
  std::vector<pending_op_t> recorded = std::move(list->ops);
  list->ops.clear();
  for (pending_op_t &op : recorded) {
    if (db_apply_list_op(list, &op)) {
      list->ops.push_back(std::move(op));
    }
  }
  return 0;
}

int db_flush_pending(hdb_t *handle, db_flush_t kind)
{
  if (handle->pending.empty() && (kind == DB_FLUSH_UNDOABLE || handle->saved.empty())) {
    return 0;
  }
  rContext *writer = db_writer(handle->ndb->rdb);
  int result = writer == nullptr ? -1 : check_transaction(handle);
  if (result == 0) {
    result = flush_plan(handle, writer, kind).run();
  }
  if (result != 0 && handle->trans_state != TRANS_STATE_WORKING) {
    handle->pending.clear(); // refused as a whole; nobody will discard it
    handle->uncertain = false;
  }
  return result;
}

int db_flush(int hdb)
{
  hdb_t *handle = hdb_find(hdb);
  return handle != nullptr ? db_flush_pending(handle, DB_FLUSH_UNDOABLE) : -1;
}
