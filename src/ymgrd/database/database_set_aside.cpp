// What is stored and the schema of this start does not know: data of modules that are no longer loaded, nodes that a
// module's revision has given up, values that a type refuses now. Startup keeps it, unseen; running loses it, and with
// running all that is copied from it.
#include <algorithm>
#include <map>
#include <span>

#include <libyang/libyang.h>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_internal.h"
#include "ymgrd/schema/schema.h"

namespace {

constexpr size_t KEYS_AT_ONCE = 1000;
constexpr size_t MAX_NAMED = 8; // nodes of a module, in the log
constexpr int INNER_NODES = LYS_CONTAINER | LYS_LIST;
constexpr int ENTRY_NODES = LYS_LIST | LYS_LEAFLIST;
constexpr int DATA_NODES = INNER_NODES | LYS_LEAF | LYS_LEAFLIST | LYD_NODE_ANY;

typedef struct _misfits {
  db_key_set keys;                 // their data keys; "/MODULE" for all of a module
  std::vector<db_address_t> nodes; // what that comes to
} misfits_t;

// Startup's; no write but one of all startup ends them.
db_key_set g_set_aside;

// --- Values

// The module's name for any token that a stored value may have for it.
std::string_view module_name(std::string_view token)
{
  const lys_module *module = token.empty() ? nullptr : schema_find_module(token.data(), token.size());
  return module == nullptr ? token : std::string_view(module->name);
}

// An instance-identifier names the module of each step in the database, and only where it changes in libyang.
std::string unqualified(std::string_view path)
{
  std::string text;
  std::string_view module;
  size_t predicates = 0;
  for (size_t i = 0; i < path.size(); i++) {
    char c = path[i];
    text.push_back(c);
    predicates += c == '[' ? 1 : 0;
    predicates -= c == ']' && predicates > 0 ? 1 : 0;
    size_t end = i + 1;
    if (c == '\'' || c == '"') { // copied up to its end
      end = std::min(path.find(c, i + 1), path.size() - 1);
      text.append(path.substr(i + 1, end - i));
      i = end;
    } else if (c == '/' || c == '[') {
      end = path.find_first_of("/[]=:", i + 1);
    }
    if ((c == '/' || c == '[') && end != std::string_view::npos && path[end] == ':') {
      std::string_view named = module_name(path.substr(i + 1, end - i - 1));
      if (named != module) {
        text.append(named).push_back(':');
      }
      module = predicates == 0 ? named : module;
      i = end;
    }
  }
  return text;
}

// The stored text as libyang writes it: with names of modules.
std::string with_module_names(std::string_view text)
{
  if (text[0] == '/') {
    return unqualified(text);
  }
  size_t colon = text.find(':');
  return std::string(module_name(text.substr(0, colon))).append(text.substr(colon));
}

bool is_value(const lysc_node *schema, std::string_view text)
{
  LY_ERR result = lyd_value_validate(nullptr, schema, text.data(), text.size(), nullptr, nullptr, nullptr);
  return result == LY_SUCCESS || result == LY_EINCOMPLETE; // incomplete: whether what it refers to exists
}

bool fits_value(const lysc_node *schema, std::string_view text)
{
  if (schema->nodetype & LYD_NODE_ANY) {
    return true;
  }
  return is_value(schema, text) ||
         (text.find(':') != std::string_view::npos && is_value(schema, with_module_names(text)));
}

// Whether a list's stored entry has the keys of today, in their order, with values that they take.
bool fits_entry(const lysc_node *schema, std::string_view predicate)
{
  std::string_view name;
  std::string value;
  if (schema->nodetype == LYS_LEAFLIST) {
    return db_next_predicate_pair(&predicate, &name, &value) && name == "." && fits_value(schema, value);
  }
  for (const lysc_node *key = lysc_node_child(schema); key != nullptr && lysc_is_key(key); key = key->next) {
    if (!db_next_predicate_pair(&predicate, &name, &value) || name != key->name || !fits_value(key, value)) {
      return false;
    }
  }
  return predicate.empty();
}

// Whether a field's value can be the node's.
bool fits_field(const lysc_node *schema, int32_t type, std::string_view text)
{
  if (schema == nullptr || !(schema->flags & LYS_CONFIG_W)) {
    return false;
  }
  bool has_entries = schema->nodetype & ENTRY_NODES;
  if (has_entries || type == DB_VALUE_LIST) {
    return has_entries && type == DB_VALUE_LIST;
  }
  return schema->nodetype == LYS_CONTAINER ? text.empty() : fits_value(schema, text);
}

// --- The schema, as keys name it

// What the schema has at a key.
typedef struct _place {
  const lys_module *module = nullptr; // of the node, or of the top nodes
  const lysc_node *node = nullptr;    // none: "/MODULE"
  std::map<std::string, const lysc_node *, std::less<>> children;
} place_t;

class schema_places {
public:
  // Null when the schema knows no such node.
  place_t *at(std::string_view key)
  {
    std::string path = db_without_predicates(key);
    auto known = places_.find(path);
    if (known == places_.end()) {
      place_t place;
      bool is_there = find(path, &place);
      known = places_.emplace(std::move(path), is_there ? std::make_unique<place_t>(std::move(place)) : nullptr).first;
    }
    return known->second.get();
  }

  // The node of a field; null when there is none.
  static const lysc_node *child(place_t *place, std::string_view field)
  {
    auto known = place->children.find(field);
    if (known == place->children.end()) {
      known = place->children.emplace(std::string(field), find_child(*place, field)).first;
    }
    return known->second;
  }

private:
  static const lysc_node *find_child(const place_t &place, std::string_view field)
  {
    std::string_view name;
    std::string_view prefix;
    bool is_inner = place.node == nullptr || (place.node->nodetype & INNER_NODES);
    if (!is_inner || db_split_elemname(field, &name, &prefix) != 0) {
      return nullptr;
    }
    const lys_module *module =
        prefix.empty() ? place.module : ly_ctx_get_module_implemented(schema_ctx(), std::string(prefix).c_str());
    return module == nullptr
               ? nullptr
               : lys_find_child(place.node, module, std::string(name).c_str(), name.size(), DATA_NODES, 0);
  }

  bool find(const std::string &path, place_t *ret_place)
  {
    size_t slash = path.rfind('/');
    if (slash == 0) {
      ret_place->module = ly_ctx_get_module_implemented(schema_ctx(), path.c_str() + 1);
      return ret_place->module != nullptr;
    }
    place_t *parent = at(std::string_view(path).substr(0, slash));
    const lysc_node *node = parent == nullptr ? nullptr : child(parent, std::string_view(path).substr(slash + 1));
    ret_place->node = node;
    ret_place->module = node == nullptr ? nullptr : node->module;
    return node != nullptr;
  }

  std::unordered_map<std::string, std::unique_ptr<place_t>> places_;
};

// --- The search

class misfit_search {
public:
  explicit misfit_search(misfits_t *found) : found_(found) {}

  // All of a datastore. 0 or -1.
  int run(const ndb_t *ndb)
  {
    db_connection connection = db_connect(ndb->rdb);
    std::vector<std::string> keys;
    if (!connection || redis_scan(connection.get(), "/?*", &keys) != 0) {
      return -1;
    }
    for (size_t from = 0; from < keys.size(); from += KEYS_AT_ONCE) {
      size_t count = std::min(KEYS_AT_ONCE, keys.size() - from);
      if (look_at(connection.get(), std::span<const std::string>(keys).subspan(from, count)) != 0) {
        return -1;
      }
    }
    // What is below a misfit goes with it.
    std::erase_if(found_->nodes, [this](const db_address_t &node) {
      return node.type != DB_NODE_TOPNODE && db_stands_below(found_->keys, node.key);
    });
    return 0;
  }

private:
  struct stored_key_t {
    const std::string *key;
    place_t *place; // null: of a module that is not loaded
    bool is_list;
  };

  int look_at(rContext *connection, std::span<const std::string> keys)
  {
    std::vector<stored_key_t> asked;
    redis_batch_ptr batch(redis_batch_create());
    for (const std::string &key : keys) {
      place_t *place = places_.at(key);
      bool is_module = belong_module(key).size() == key.size();
      if (place == nullptr && !is_module) {
        continue; // what is above it tells
      }
      bool is_list =
          place != nullptr && place->node != nullptr && (place->node->nodetype & ENTRY_NODES) && key.back() != ']';
      asked.push_back({&key, place, is_list});
      if (is_list) {
        redis_batch_add(batch.get(), {"LRANGE", key, "0", "-1"});
      } else {
        redis_batch_add(batch.get(), {"HGETALL", key});
      }
    }
    return redis_batch_run(connection, batch.get(), [this, &asked](size_t index, const redisReply *reply) {
      if (reply->type == REDIS_REPLY_ARRAY && reply->elements > 0) { // else of another kind, as its parent tells
        look_at_content(asked[index], reply);
      }
    });
  }

  void look_at_content(const stored_key_t &stored, const redisReply *reply)
  {
    if (stored.is_list) {
      for (size_t i = 0; i < reply->elements; i++) {
        look_at_entry(*stored.key, stored.place->node, redis_reply_text(reply->element[i]));
      }
      return;
    }
    if (stored.place == nullptr) {
      found_->keys.insert(*stored.key);
    }
    const lysc_node *node = stored.place == nullptr ? nullptr : stored.place->node;
    if (node != nullptr && !(node->nodetype & INNER_NODES)) { // was a container
      std::string_view parent;
      std::string_view name;
      db_split_last_node(*stored.key, &parent, &name);
      note(parent, name);
      return;
    }
    for (size_t i = 0; i + 1 < reply->elements; i += 2) {
      look_at_field(stored, redis_reply_text(reply->element[i]), redis_reply_text(reply->element[i + 1]));
    }
  }

  void look_at_entry(const std::string &list_key, const lysc_node *schema, std::string_view predicate)
  {
    if (fits_entry(schema, predicate)) {
      return;
    }
    std::string key = list_key + "[" + std::string(predicate) + "]";
    db_node_type_t type = schema->nodetype == LYS_LIST ? DB_NODE_LIST : DB_NODE_LEAFLIST;
    found_->keys.insert(key);
    found_->nodes.push_back({type, std::move(key), list_key, std::string(predicate)});
  }

  void look_at_field(const stored_key_t &stored, std::string_view field, std::string_view value)
  {
    int32_t type = 0;
    std::string_view text;
    if (db_read_value(value, &type, &text) != 0) {
      return; // not written by this daemon: reading it tells
    }
    if (stored.place == nullptr || !fits_field(schema_places::child(stored.place, field), type, text)) {
      note(*stored.key, field);
    }
  }

  void note(std::string_view key, std::string_view field)
  {
    db_address_t node;
    node.type = belong_module(key).size() == key.size() ? DB_NODE_TOPNODE : DB_NODE_OTHER;
    node.key = key;
    node.item = field;
    node.data_key.append(key).append("/").append(field);
    if (!found_->keys.contains(key)) { // else all of the module
      found_->keys.insert(node.data_key);
    }
    found_->nodes.push_back(std::move(node));
  }

  misfits_t *found_;
  schema_places places_;
};

// --- What becomes of it

// "/MODULE:TOP/...".
std::string path_of(std::string key)
{
  size_t module_end = key.find('/', 1);
  if (module_end != std::string::npos) {
    key[module_end] = ':';
  }
  return key;
}

void tell(const misfits_t &misfits)
{
  std::map<std::string, std::vector<std::string>> by_module; // none: all of it
  for (const std::string &key : misfits.keys) {
    if (belong_module(key).size() == key.size()) {
      by_module.try_emplace(key);
    }
  }
  for (const db_address_t &node : misfits.nodes) {
    std::string module(belong_module(node.data_key));
    if (!misfits.keys.contains(module)) {
      by_module[module].push_back(path_of(node.data_key));
    }
  }
  for (auto &[module, paths] : by_module) {
    if (paths.empty()) {
      log_warn("Module %.512s is not loaded: what is stored of it is set aside until startup is written.",
               module.c_str() + 1);
      continue;
    }
    std::sort(paths.begin(), paths.end());
    std::string names;
    for (size_t i = 0; i < std::min(paths.size(), MAX_NAMED); i++) {
      names.append(i == 0 ? "" : ", ").append(paths[i]);
    }
    log_warn(
        "What is stored of module %.512s does not fit it and is set aside until startup is written (%zu): %.512s%s.",
        module.c_str() + 1, paths.size(), names.c_str(), paths.size() > MAX_NAMED ? ", ..." : "");
  }
}

int remove_from_running(const std::vector<db_address_t> &nodes)
{
  int hdb = nodes.empty() ? 0 : database_open(YMGRM_RUNNING_DB);
  if (hdb == 0) {
    return 0;
  }
  hdb_t *handle = hdb < 0 ? nullptr : hdb_find(hdb);
  int result = handle == nullptr ? -1 : database_trans_start(hdb);
  if (result == 0) {
    for (const db_address_t &node : nodes) {
      handle->pending.remove_node(node);
    }
    result = database_trans_commit(hdb);
  }
  database_close(hdb); // discards what was not committed
  return result;
}

bool are_equal(int target, int source)
{
  (void)db_foreign_writes(); // before what is known of the differences is used
  const db_key_set *differences = db_differences(target, source);
  return differences != nullptr && differences->empty();
}

} // namespace

int db_set_aside_misfits()
{
  misfits_t startup;
  misfits_t running;
  g_set_aside.clear();
  if (misfit_search(&startup).run(ndb_find(YMGRM_STARTUP_DB)) != 0) {
    return -1;
  }
  if (are_equal(YMGRM_RUNNING_DB, YMGRM_STARTUP_DB)) {
    running = startup;
  } else if (misfit_search(&running).run(ndb_find(YMGRM_RUNNING_DB)) != 0) {
    return -1;
  }
  if (remove_from_running(running.nodes) != 0) {
    log_error("What does not fit the schema can not be removed from running.");
    return -1;
  }
  g_set_aside = startup.keys;
  for (const db_address_t &node : running.nodes) {
    if (!startup.keys.contains(node.data_key)) {
      startup.nodes.push_back(node);
    }
  }
  startup.keys.merge(running.keys);
  tell(startup);
  return 0;
}

const db_key_set *db_set_aside(int target)
{
  return target == YMGRM_STARTUP_DB && !g_set_aside.empty() ? &g_set_aside : nullptr;
}

bool db_is_in_schema(std::string_view data_path)
{
  return schema_places().at(db_path2datakey(data_path)) != nullptr;
}

void db_forget_set_aside()
{
  g_set_aside = db_key_set();
}
