// The reading slots of the built-in driver. A tree is read level by level, all nodes of a level in one pipeline, in
// pieces that bound the memory in use.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_element.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr int MAX_DEPTH = 4095;
constexpr size_t WINDOW_SIBLINGS = 512; // list entries that are read together
constexpr size_t PIECE_KEYS = 4096;     // keys that are read before they are written out

std::string child_key(std::string_view key, std::string_view name)
{
  std::string child(key);
  child.append("/").append(name);
  return child;
}

// A text that becomes the malloc'ed result without being copied again. It may hold secrets: what it leaves behind is
// cleared.
class result_text {
public:
  result_text() = default;
  result_text(const result_text &) = delete;
  result_text &operator=(const result_text &) = delete;
  ~result_text() { drop(text_); }

  int append(std::string_view piece)
  {
    if (size_ + piece.size() + 1 > capacity_ && grow(size_ + piece.size() + 1) != 0) {
      return -1;
    }
    memcpy(text_ + size_, piece.data(), piece.size());
    size_ += piece.size();
    text_[size_] = '\0';
    return 0;
  }

  // Null when nothing was appended.
  char *release() { return size_ > 0 ? std::exchange(text_, nullptr) : nullptr; }

private:
  int grow(size_t wanted)
  {
    size_t capacity = std::max({wanted, capacity_ * 2, INITIAL_SIZE});
    auto *text = static_cast<char *>(malloc(capacity));
    if (text == nullptr) {
      log_error("Failed to create bufffer to store strings.");
      return -1;
    }
    if (text_ != nullptr) {
      memcpy(text, text_, size_);
    }
    drop(std::exchange(text_, text));
    capacity_ = capacity;
    return 0;
  }

  void drop(char *text) const
  {
    if (text != nullptr) {
      memset_s(text, capacity_, 0, size_);
      free(text);
    }
  }

  static constexpr size_t INITIAL_SIZE = 4096;
  char *text_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

// The keys that a read sees. The data before a transaction is what its flushes saved and, for the rest, the master's.
class db_view {
public:
  db_view(hdb_t *handle, db_data_age_t age)
      : handle_(handle), old_(age == DB_DATA_BEFORE_TRANSACTION && !handle->saved.empty()),
        set_aside_(db_set_aside(handle->target_db))
  {
  }

  int open()
  {
    if (old_) {
      backup_ = db_connect(handle_->ndb->backup_rdb);
    }
    return !old_ || backup_ ? 0 : -1;
  }

  // Queues a command on one key.
  void add(const std::vector<std::string_view> &words)
  {
    bool is_saved = old_ && handle_->saved.keys.find(words[1]) != handle_->saved.keys.end();
    redis_batch_add(is_saved ? saved_batch_.get() : batch_.get(), words);
    (is_saved ? saved_order_ : order_).push_back(count_++);
  }

  // Sends the queued commands; the replies come with the commands' numbers, not in their order.
  int run(const std::function<void(size_t index, const redisReply *reply)> &on_reply)
  {
    std::vector<size_t> order = std::exchange(order_, {});
    std::vector<size_t> saved_order = std::exchange(saved_order_, {});
    count_ = 0;
    int sent = redis_batch_run(handle_->ctxt.get(), batch_.get(),
                               [&](size_t index, const redisReply *reply) { on_reply(order[index], reply); });
    if (sent == 0 && !saved_order.empty()) {
      sent = redis_batch_run(backup_.get(), saved_batch_.get(),
                             [&](size_t index, const redisReply *reply) { on_reply(saved_order[index], reply); });
    }
    redis_batch_clear(saved_batch_.get());
    return sent;
  }

  // Whether anything is left out; and whether the node that stands there is, or what is above it.
  bool has_left_out() const { return set_aside_ != nullptr; }
  bool leaves_out(std::string_view data_key) const
  {
    return set_aside_ != nullptr && db_stands_below(*set_aside_, data_key);
  }

  // Names of the modules in "/", in the server's order.
  int modules(std::vector<std::string> *ret_modules)
  {
    redis_reply_ptr reply = redis_hash_get_all_bin_safe(handle_->ctxt.get(), "/");
    if (reply == nullptr) {
      return -1;
    }
    std::map<std::string, bool> changed;
    if (old_) {
      changed = handle_->saved.modules;
    }
    for (size_t i = 0; i + 1 < reply->elements; i += 2) {
      std::string module(redis_reply_text(reply->element[i]));
      auto known = changed.find(module);
      if (known == changed.end() || known->second) {
        ret_modules->push_back(module);
      }
      changed.erase(module);
    }
    for (const auto &[module, was_registered] : changed) {
      if (was_registered) {
        ret_modules->push_back(module);
      }
    }
    return 0;
  }

private:
  hdb_t *handle_;
  bool old_;
  const db_key_set *set_aside_; // null: nothing
  db_connection backup_;
  redis_batch_ptr batch_{redis_batch_create()};
  redis_batch_ptr saved_batch_{redis_batch_create()};
  std::vector<size_t> order_;
  std::vector<size_t> saved_order_;
  size_t count_ = 0;
};

// --- Trees

typedef enum _piece_kind { PIECE_TEXT, PIECE_HASH, PIECE_LIST } piece_kind_t;

// A part of the result in document order: text that is ready, or a node whose content stands in a Redis key.
struct read_piece_t {
  piece_kind_t kind = PIECE_TEXT;
  wiped_string text; // written first
  std::string key;   // of a hash or list
  std::string name;  // of the closing tag; empty when there is none
  int depth = 0;     // levels to read below
  bool loaded = false;
  std::vector<read_piece_t> children;

  bool needs_load() const { return kind != PIECE_TEXT && depth > 0 && !loaded; }
};

class tree_reader {
public:
  tree_reader(db_view *view, db_secrets_t secrets, result_text *out) : view_(view), writer_(secrets), out_(out) {}

  // The contents of hashes, one behind the other.
  int read_hashes(const std::vector<std::string> &keys, int depth)
  {
    std::vector<read_piece_t> roots;
    for (const std::string &key : keys) {
      roots.push_back({PIECE_HASH, {}, key, {}, depth, false, {}});
    }
    return write_all(&roots);
  }

  // An opened element with the content of a key; closed at the end.
  int read_element(const wiped_string &opening, const std::string &name, piece_kind_t kind, const std::string &key,
                   int depth)
  {
    std::vector<read_piece_t> roots(1);
    roots[0] = {kind, opening, key, name, depth, false, {}};
    return write_all(&roots);
  }

  db_element_writer *writer() { return &writer_; }
  result_text *out() { return out_; }

private:
  int load(std::vector<read_piece_t *> level);
  int add_hash(read_piece_t *node, const redisReply *reply);
  int add_list(read_piece_t *node, const redisReply *reply);
  int write_all(std::vector<read_piece_t> *pieces);

  db_view *view_;
  db_element_writer writer_;
  result_text *out_;
};

wiped_string *text_at_end(read_piece_t *node)
{
  if (node->children.empty() || node->children.back().kind != PIECE_TEXT) {
    node->children.emplace_back();
  }
  return &node->children.back().text;
}

int tree_reader::add_hash(read_piece_t *node, const redisReply *reply)
{
  for (size_t i = 0; i + 1 < reply->elements; i += 2) {
    std::string_view field = redis_reply_text(reply->element[i]);
    int32_t type = 0;
    std::string_view text;
    if (db_read_value(redis_reply_text(reply->element[i + 1]), &type, &text) != 0) {
      log_error("Failed to new element(%.512s/%.512s).", node->key.c_str(), std::string(field).c_str());
      return -1;
    }
    if (view_->has_left_out() && view_->leaves_out(child_key(node->key, field))) {
      continue;
    }
    if (type != DB_VALUE_LIST && !text.empty()) {
      if (writer_.db_new_node(node->key, field, text, text_at_end(node), nullptr) != 0) {
        return -1;
      }
      continue;
    }
    read_piece_t child;
    child.kind = type == DB_VALUE_LIST ? PIECE_LIST : PIECE_HASH;
    child.key = child_key(node->key, field);
    child.depth = node->depth - 1;
    if (type != DB_VALUE_LIST && writer_.db_new_node(node->key, field, std::nullopt, &child.text, &child.name) != 0) {
      return -1;
    }
    node->children.push_back(std::move(child));
  }
  return 0;
}

int tree_reader::add_list(read_piece_t *node, const redisReply *reply)
{
  for (size_t i = 0; i < reply->elements; i++) {
    std::string_view member = redis_reply_text(reply->element[i]);
    if (view_->has_left_out() && view_->leaves_out(node->key + "[" + std::string(member) + "]")) {
      continue;
    }
    read_piece_t entry;
    if (writer_.db_add_list_entry(node->key, member, &entry.text, &entry.name) != 0) {
      log_error("Failed to new list xmlnode(%.512s[%.512s]).", node->key.c_str(), std::string(member).c_str());
      return -1;
    }
    if (entry.name.empty()) { // of a leaf-list: complete
      text_at_end(node)->append(entry.text);
      continue;
    }
    entry.kind = PIECE_HASH;
    entry.key.append(node->key).append("[").append(member).append("]");
    entry.depth = node->depth;
    node->children.push_back(std::move(entry));
  }
  return 0;
}

// Reads the nodes and what is below them, until PIECE_KEYS keys are read. What is left is read when it is written.
int tree_reader::load(std::vector<read_piece_t *> level)
{
  size_t keys_left = PIECE_KEYS;
  while (!level.empty()) {
    if (level.size() > keys_left) {
      level.resize(keys_left);
    }
    keys_left -= level.size();
    for (const read_piece_t *node : level) {
      if (node->kind == PIECE_LIST) {
        view_->add({"LRANGE", node->key, "0", "-1"});
      } else {
        view_->add({"HGETALL", node->key});
      }
    }
    int result = 0;
    int sent = view_->run([&](size_t index, const redisReply *reply) {
      read_piece_t *node = level[index];
      node->loaded = true;
      if (reply->type != REDIS_REPLY_ARRAY) {
        log_error("Failed to get data for datapath(%.512s).", node->key.c_str());
        result = -1;
      } else if (result == 0) {
        result = node->kind == PIECE_LIST ? add_list(node, reply) : add_hash(node, reply);
      }
    });
    if (sent != 0 || result != 0) {
      return -1;
    }
    std::vector<read_piece_t *> next;
    for (read_piece_t *node : level) {
      // No more of a long list than is read together: its entries would use up the keys, and what is below each of them
      // would be read by itself.
      size_t siblings = 0;
      for (read_piece_t &child : node->children) {
        if (child.needs_load() && next.size() < keys_left && siblings < WINDOW_SIBLINGS) {
          next.push_back(&child);
          siblings++;
        }
      }
    }
    level = std::move(next);
  }
  return 0;
}

int tree_reader::write_all(std::vector<read_piece_t> *pieces)
{
  for (size_t i = 0; i < pieces->size(); i++) {
    if ((*pieces)[i].needs_load()) {
      std::vector<read_piece_t *> window;
      for (size_t k = i; k < pieces->size() && window.size() < WINDOW_SIBLINGS; k++) {
        if ((*pieces)[k].needs_load()) {
          window.push_back(&(*pieces)[k]);
        }
      }
      if (load(std::move(window)) != 0) {
        return -1;
      }
    }
    read_piece_t piece = std::move((*pieces)[i]); // its memory goes with this turn
    if (out_->append(piece.text) != 0 || write_all(&piece.children) != 0) {
      return -1;
    }
    if (!piece.name.empty()) {
      wiped_string closing;
      db_add_etag(piece.name, &closing);
      if (out_->append(closing) != 0) {
        return -1;
      }
    }
  }
  return 0;
}

// --- Single nodes

typedef enum _db_key_type { DB_KEY_HASH = 1, DB_KEY_LIST = 2, DB_KEY_OTHER = 3 } db_key_type_t;

// What the server holds for a key and one item of it.
typedef struct _db_lookup {
  db_key_type_t type = DB_KEY_OTHER;
  bool found = false;
  std::string value;      // of a hash's field
  long long position = 0; // of a list's element
} db_lookup_t;

db_key_type_t key_type(std::string_view name)
{
  if (name == "hash") {
    return DB_KEY_HASH;
  }
  return name == "list" ? DB_KEY_LIST : DB_KEY_OTHER;
}

int look_up(db_view *view, const std::string &key, const std::string &item, db_lookup_t *ret_lookup)
{
  db_lookup_t lookup;
  view->add({"TYPE", key});
  view->add({"HGET", key, item});
  view->add({"LPOS", key, item});
  int sent = view->run([&lookup](size_t index, const redisReply *reply) {
    if (index == 0) {
      lookup.type = key_type(redis_reply_text(reply));
    } else if (reply->type == REDIS_REPLY_STRING && lookup.type == DB_KEY_HASH) {
      lookup.found = true;
      lookup.value = redis_reply_text(reply);
    } else if (reply->type == REDIS_REPLY_INTEGER && lookup.type == DB_KEY_LIST) {
      lookup.found = true;
      lookup.position = reply->integer;
    } // else absent, or the command for the other type
  });
  if (sent != 0) {
    return -1;
  }
  *ret_lookup = std::move(lookup);
  return 0;
}

// Replaces each predicate "[n]" by the list's entry at position n; one past the end stays as it is.
int format_path_to_dbkey(db_view *view, std::string_view path, std::string *ret_path)
{
  std::string formatted(path);
  size_t open = 0;
  size_t close = 0;
  for (size_t from = 0; db_find_predicate(formatted, from, &open, &close); from = close + 1) {
    std::string position = formatted.substr(open + 1, close - open - 1);
    if (position.empty() || position.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::string list_key = db_path2datakey(formatted.substr(0, open));
    std::optional<std::string> member;
    view->add({"LINDEX", list_key, position});
    int sent = view->run([&member](size_t, const redisReply *reply) {
      if (reply->type == REDIS_REPLY_STRING) {
        member = redis_reply_text(reply);
      }
    });
    if (sent != 0) {
      return -1;
    }
    if (member.has_value()) {
      formatted.replace(open + 1, position.size(), *member);
      close = open + 1 + member->size();
    }
  }
  *ret_path = std::move(formatted);
  return 0;
}

// A key leaf of a list entry: it stands in the entry's predicate only. False when it is none, or there is no such
// entry.
int db_get_key_node(db_view *view, tree_reader *reader, const std::string &entry_key, const std::string &name,
                    bool *ret_found)
{
  std::string list_key;
  std::string predicate;
  *ret_found = false;
  if (entry_key.empty() || entry_key.back() != ']' || path2key_value(entry_key.c_str(), &list_key, &predicate) != 0) {
    return 0;
  }
  std::string_view rest = predicate;
  std::string_view key_name;
  std::string value;
  while (db_next_predicate_pair(&rest, &key_name, &value)) {
    if (key_name != name) {
      continue;
    }
    db_lookup_t entry;
    if (look_up(view, list_key, predicate, &entry) != 0) {
      return -1;
    }
    *ret_found = entry.found;
    wiped_string text;
    return !entry.found || (reader->writer()->db_new_key(entry_key, name, value, &text) == 0 &&
                            reader->out()->append(text) == 0)
               ? 0
               : -1;
  }
  return 0;
}

int read_field(tree_reader *reader, const std::string &key, const std::string &field, const std::string &value,
               int depth)
{
  int32_t type = 0;
  std::string_view text;
  wiped_string opening;
  std::string name;
  if (db_read_value(value, &type, &text) != 0) {
    log_error("Failed to new element(%.512s/%.512s).", key.c_str(), field.c_str());
    return -1;
  }
  if (type != DB_VALUE_LIST && !text.empty()) {
    return reader->writer()->db_new_node(key, field, text, &opening, nullptr) == 0 ? reader->out()->append(opening)
                                                                                   : -1;
  }
  bool entries_open_themselves = type == DB_VALUE_LIST && depth != 1;
  if (!entries_open_themselves && reader->writer()->db_new_node(key, field, std::nullopt, &opening, &name) != 0) {
    log_error("Failed to new element(%.512s/%.512s).", key.c_str(), field.c_str());
    return -1;
  }
  return reader->read_element(opening, name, type == DB_VALUE_LIST ? PIECE_LIST : PIECE_HASH, child_key(key, field),
                              depth - 1);
}

int read_entry(tree_reader *reader, const std::string &list_key, const std::string &predicate, int depth)
{
  wiped_string opening;
  std::string name;
  if (reader->writer()->db_add_list_entry(list_key, predicate, &opening, &name) != 0) {
    log_error("Failed to new list xmlnode(%.512s[%.512s]).", list_key.c_str(), predicate.c_str());
    return -1;
  }
  return name.empty() ? reader->out()->append(opening)
                      : reader->read_element(opening, name, PIECE_HASH, list_key + "[" + predicate + "]", depth - 1);
}

// Whether a list entry has something stored below it: it is there then, and its list, which may be long, need not be
// searched. 0 or -1.
int has_content(db_view *view, std::string_view list_key, std::string_view predicate, bool *ret_has)
{
  std::string entry_key;
  entry_key.append(list_key).append("[").append(predicate).append("]");
  bool has = false;
  view->add({"EXISTS", entry_key});
  int sent = view->run([&has](size_t, const redisReply *reply) { has = reply->integer == 1; });
  *ret_has = has;
  return sent;
}

typedef enum _when_absent { LOG_ABSENT, ABSENT_IS_FINE } when_absent_t;

// Nothing is appended when there is no such node.
int db_get_tree(db_view *view, tree_reader *reader, std::string_view path, int depth, when_absent_t when_absent)
{
  if (path.find_first_of("/:", 1) == std::string_view::npos) { // a module
    return view->leaves_out(path) ? 0 : reader->read_hashes({std::string(path)}, depth);
  }
  std::string formatted;
  if (format_path_to_dbkey(view, path, &formatted) != 0) {
    log_error("Failed to format datapath(%.512s).", std::string(path).c_str());
    return -1;
  }
  if (view->has_left_out() && view->leaves_out(db_path2datakey(formatted))) {
    return 0;
  }
  std::string key;
  std::string item;
  if (path2key_value(formatted.c_str(), &key, &item) != 0) {
    log_error("Transform datapath(%.512s) into key-value failed.", formatted.c_str());
    return -1;
  }
  bool is_there = false;
  if (db_get_type(formatted) == DB_NODE_LIST && has_content(view, key, item, &is_there) != 0) {
    return -1;
  }
  if (is_there) {
    return read_entry(reader, key, item, depth);
  }
  db_lookup_t node;
  if (look_up(view, key, item, &node) != 0) {
    return -1;
  }
  if (node.type == DB_KEY_LIST) {
    if (!node.found && when_absent == ABSENT_IS_FINE) {
      return 0;
    }
    if (!node.found) {
      log_warn("Invalid value(%.512s) in key(%.512s).", item.c_str(), key.c_str());
      return 0;
    }
    return read_entry(reader, key, item, depth);
  }
  if (node.found) {
    return read_field(reader, key, item, node.value, depth);
  }
  bool found = false;
  if (db_get_key_node(view, reader, key, item, &found) != 0) {
    return -1;
  }
  if (found || when_absent == ABSENT_IS_FINE) {
    return 0;
  }
  if (node.type == DB_KEY_HASH) {
    log_error("Value is NULL for key:field(%.512s:%.512s)  from path(%.512s).", key.c_str(), item.c_str(),
              formatted.c_str());
  } else {
    log_warn("Invalid field(%.512s) of key(%.512s).", item.c_str(), key.c_str());
  }
  return 0;
}

int db_get_all_modules(db_view *view, tree_reader *reader, int depth)
{
  std::vector<std::string> keys;
  if (view->modules(&keys) != 0) {
    return -1;
  }
  for (std::string &module : keys) {
    module.insert(0, "/");
  }
  std::erase_if(keys, [view](const std::string &module) { return view->leaves_out(module); });
  return reader->read_hashes(keys, depth);
}

} // namespace

int db_get_items(int hdb, int tflag, const char *path, int depth, char **result)
{
  if (hdb <= 0 || path == nullptr || depth < DB_DEPTH_ALL || result == nullptr) {
    log_error("Input parameters is illegal.");
    return -1;
  }
  *result = nullptr;
  if (depth == 0) {
    return 0;
  }
  hdb_t *handle = nullptr;
  db_data_age_t age = DB_DATA_CURRENT;
  if (get_trans_db(hdb, tflag, path, &handle, &age) != 0) {
    log_error("Failed to get db context(handle=%d, flag=%d, path=%.512s).", hdb, tflag, path);
    return -1;
  }
  db_view view(handle, age);
  result_text text;
  tree_reader reader(&view, db_secrets_of(tflag), &text);
  int levels = depth == DB_DEPTH_ALL ? MAX_DEPTH : depth;
  when_absent_t when_absent = (tflag & DB_TFLAG_ABSENT_OK) != 0 ? ABSENT_IS_FINE : LOG_ABSENT;
  if (view.open() != 0) {
    return -1;
  }
  if (strcmp(path, "/") == 0) {
    if (db_get_all_modules(&view, &reader, levels) != 0) {
      log_error("Failed to get entire data of all modules.");
      return -1;
    }
  } else if (db_get_tree(&view, &reader, path, levels, when_absent) != 0) {
    log_error("Failed to get data from path(%.512s).", path);
    return -1;
  }
  *result = text.release();
  return 0;
}

int db_list_entries(int hdb, int tflag, const char *path, char **result)
{
  hdb_t *handle = nullptr;
  db_data_age_t age = DB_DATA_CURRENT;
  if (path == nullptr || result == nullptr || get_trans_db(hdb, tflag, path, &handle, &age) != 0) {
    return -1;
  }
  *result = nullptr;
  db_view view(handle, age);
  std::string formatted;
  if (view.open() != 0 || format_path_to_dbkey(&view, path, &formatted) != 0) {
    return -1;
  }
  std::string list_key = db_path2datakey(formatted);
  db_element_writer writer(DB_SECRETS_STORED); // keys are no secrets
  result_text text;
  int failed = 0;
  view.add({"LRANGE", list_key, "0", "-1"});
  int sent = view.run([&](size_t, const redisReply *reply) {
    failed |= reply->type != REDIS_REPLY_ARRAY;
    for (size_t i = 0; i < reply->elements && failed == 0; i++) {
      wiped_string element;
      std::string name;
      failed |= writer.db_add_list_entry(list_key, redis_reply_text(reply->element[i]), &element, &name);
      if (!name.empty()) {
        db_add_etag(name, &element);
      }
      failed |= text.append(element);
    }
  });
  if (sent != 0 || failed != 0) {
    log_error("list index:failed to traverse the list(%.512s) in hdb(%d).", list_key.c_str(), hdb);
    return -1;
  }
  *result = text.release();
  return 0;
}

int db_entry_index(int hdb, int tflag, const char *path)
{
  std::string list_key;
  std::string predicate;
  if (path == nullptr || path2key_value(path, &list_key, &predicate) != 0) {
    log_error("list index:failed to transform datapath(%.512s) in key-field.", path != nullptr ? path : "(nil)");
    return -1;
  }
  hdb_t *handle = nullptr;
  db_data_age_t age = DB_DATA_CURRENT;
  if (get_trans_db(hdb, tflag, path, &handle, &age) != 0) {
    log_error("list index:redis connect failed.");
    return -1;
  }
  db_view view(handle, age);
  db_lookup_t entry;
  if (view.open() != 0 || look_up(&view, list_key, predicate, &entry) != 0) {
    log_error("list index:failed to traverse the list(%.512s) in hdb(%d).", list_key.c_str(), hdb);
    return -1;
  }
  return entry.type == DB_KEY_LIST && entry.found ? static_cast<int>(entry.position) : -1;
}
