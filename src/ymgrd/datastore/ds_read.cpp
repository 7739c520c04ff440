#include "ymgrd/datastore/ds_read.h"

#include <algorithm>
#include <utility>

#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_print.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_value.h"

namespace {

constexpr int DEPTH_KEYS_ONLY = 1;

// Whether the kept tree is what the datastore holds, but for `ret_stored`: modules of which the database holds more.
bool tree_serves(int datastore, std::set<std::string, std::less<>> *ret_stored)
{
  switch (datastore) {
  case ENUM_DATASTORE_CANDIDATE:
    return true;
  case ENUM_DATASTORE_RUNNING:
    return differ_nodes == nullptr;
  case ENUM_DATASTORE_STATUS:
    return differ_nodes == nullptr && database_differing_modules(YMGRM_STATUS_DB, YMGRM_RUNNING_DB, ret_stored);
  default:
    return false;
  }
}

// A list's keys, in key order: they are its first children.
std::vector<const lysc_node *> key_nodes(const lysc_node *list)
{
  std::vector<const lysc_node *> keys;
  for (const lysc_node *key = lysc_node_child(list); key != nullptr && lysc_is_key(key); key = key->next) {
    keys.push_back(key);
  }
  return keys;
}

// "[k1='v1'][k2='v2']", or a leaf-list's value, as libyang looks entries up.
std::string lookup_predicate(const ds_step_t &step)
{
  if (step.schema->nodetype == LYS_LEAFLIST) {
    return step.keys.front();
  }
  std::string predicate;
  std::vector<const lysc_node *> nodes = key_nodes(step.schema);
  for (size_t i = 0; i < step.keys.size(); i++) {
    const char *quote = step.keys[i].find('\'') == std::string::npos ? "'" : "\"";
    predicate.append("[")
        .append(nodes[i]->name)
        .append("=")
        .append(quote)
        .append(step.keys[i])
        .append(quote)
        .append("]");
  }
  return predicate;
}

// libyang finds the entries of a leaf-list by value only.
lyd_node *find_first(const lyd_node *siblings, const lysc_node *schema)
{
  lyd_node *node = nullptr;
  if (schema->nodetype != LYS_LEAFLIST) {
    return lyd_find_sibling_val(siblings, schema, nullptr, 0, &node) == LY_SUCCESS ? node : nullptr;
  }
  LY_LIST_FOR(const_cast<lyd_node *>(siblings), node)
  {
    if (node->schema == schema) {
      return node;
    }
  }
  return nullptr;
}

// A key with quotes of both kinds can not be named to libyang.
lyd_node *search_entry(const lyd_node *siblings, const ds_step_t &step)
{
  lyd_node *node = find_first(siblings, step.schema);
  while (node != nullptr && !ds_is_entry_of(node, step)) {
    node = node->next;
  }
  return node;
}

// Every failure is an absent node: a value that its type refuses is no entry's key.
lyd_node *find_entry(const lyd_node *siblings, const ds_step_t &step)
{
  if (step.schema->nodetype == LYS_LIST && !std::all_of(step.keys.begin(), step.keys.end(), ds_can_be_key)) {
    return search_entry(siblings, step);
  }
  std::string predicate = lookup_predicate(step);
  lyd_node *node = nullptr;
  LY_ERR result = lyd_find_sibling_val(siblings, step.schema, predicate.c_str(), predicate.size(), &node);
  return result == LY_SUCCESS ? node : nullptr;
}

// The entry next to `entry`, in the direction of `other`; its data key, or nothing.
std::string key_of_neighbour(const lyd_node *entry, const lyd_node *other)
{
  return other != nullptr && other->schema == entry->schema ? dbkey_data_key(other) : std::string();
}

} // namespace

bool ds_is_entry_of(const lyd_node *node, const ds_step_t &step)
{
  if (node->schema != step.schema) {
    return false;
  }
  if (!step.is_entry()) {
    return true;
  }
  if (node->schema->nodetype == LYS_LEAFLIST) {
    return step.keys.front() == lyd_get_value(node);
  }
  const lyd_node *key = lyd_child(node); // keys come first, in the schema's order
  return std::all_of(step.keys.begin(), step.keys.end(), [&key](const std::string &value) {
    bool is_same = key != nullptr && value == lyd_get_value(key);
    key = key == nullptr ? nullptr : key->next;
    return is_same;
  });
}

lyd_node *ds_find_node(const lyd_node *tree, const ds_path_t &path)
{
  const lyd_node *siblings = tree;
  lyd_node *node = nullptr;
  for (const ds_step_t *step : path) {
    node = step->is_entry() ? find_entry(siblings, *step) : find_first(siblings, step->schema);
    if (node == nullptr) {
      return nullptr;
    }
    siblings = lyd_child(node);
  }
  return node;
}

bool ds_can_be_key(std::string_view value)
{
  return value.find('\'') == std::string_view::npos || value.find('"') == std::string_view::npos;
}

std::string ds_path_key(const ds_path_t &path)
{
  std::string key;
  for (const ds_step_t *step : path) {
    dbkey_append_name(&key, step->schema);
    if (!step->is_entry()) {
      continue;
    }
    if (step->schema->nodetype == LYS_LEAFLIST) {
      key.append("[.=").append(datastore_value_add_quotes(step->keys.front())).append("]");
      continue;
    }
    std::vector<const lysc_node *> nodes = key_nodes(step->schema);
    char separator = '[';
    for (size_t i = 0; i < step->keys.size(); i++) {
      key.append(1, separator).append(nodes[i]->name).append("=").append(datastore_value_add_quotes(step->keys[i]));
      separator = ',';
    }
    key += ']';
  }
  return key;
}

int ds_append_opening(const ds_path_t &path, wiped_string *text, std::string *ret_name)
{
  const ds_step_t &step = *path.back();
  const lysc_node *parent = lysc_data_parent(step.schema);
  std::string name(step.schema->name);
  if (parent == nullptr || parent->module != step.schema->module) {
    name.insert(0, std::string(step.schema->module->name) + ":");
  }
  db_element_writer writer(DB_SECRETS_STORED); // keys are no secrets
  if (writer.db_new_node({}, name, std::nullopt, text, ret_name) != 0) {
    return -1;
  }
  std::vector<const lysc_node *> nodes = key_nodes(step.schema);
  for (size_t i = 0; i < step.keys.size(); i++) {
    wiped_string value = schema_stored_form_of_key(nodes[i], step.keys[i]);
    if (writer.db_new_node({}, nodes[i]->name, value, text, nullptr) != 0) {
      return -1;
    }
  }
  return 0;
}

int ds_wrap_text(const ds_path_t &way, std::string_view content, wiped_string *text)
{
  std::vector<std::string> names;
  ds_path_t path;
  for (const ds_step_t *step : way) {
    path.push_back(step);
    names.emplace_back();
    if (ds_append_opening(path, text, &names.back()) != 0) {
      return -1;
    }
  }
  text->append(content);
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    db_add_etag(*name, text);
  }
  return 0;
}

ds_source::ds_source(int hdb, int datastore, db_secrets_t secrets) : hdb_(hdb), secrets_(secrets)
{
  is_kept_ = tree_serves(datastore, &stored_modules_) && ds_kept_take(&kept_);
  has_tree_ = is_kept_;
  tree_ = kept_.get();
  if (has_secrets_of_driver() && read_tree() != 0) {
    secrets_ = DB_SECRETS_STORED;
  }
}

ds_source::ds_source(const lyd_node *tree, db_secrets_t secrets) : secrets_(secrets), has_tree_(true), tree_(tree) {}

ds_source::~ds_source()
{
  give_kept_back();
}

// Whether it reads what only a tree tells apart: an external driver does not know which leaves are sensitive.
bool ds_source::has_secrets_of_driver() const
{
  return is_remote() && secrets_ != DB_SECRETS_STORED && encrypt_has_sensitive() && !database_is_builtin();
}

// 0 with all data in a tree of its own, or -1.
int ds_source::read_tree()
{
  lyd_tree_ptr tree;
  if (ds_db_get_data_from_top(hdb_, 0, "/", &tree) != 0) {
    return -1;
  }
  give_kept_back();
  kept_ = std::move(tree);
  tree_ = kept_.get();
  has_tree_ = true;
  stored_modules_.clear();
  return 0;
}

void ds_source::give_kept_back()
{
  if (is_kept_) {
    ds_kept_store(std::move(kept_));
  }
  is_kept_ = false;
}

bool ds_source::is_in_tree(const ds_path_t &path) const
{
  return has_tree_ && !stored_modules_.contains(path.front()->schema->module->name);
}

int ds_source::read_stored(const char *path, int depth, wiped_string *text) const
{
  char *stored = nullptr;
  constexpr int FLAGS[] = {0, DB_TFLAG_SEAL, DB_TFLAG_DECRYPT}; // by db_secrets_t
  if (database_get(hdb_, DB_TFLAG_ABSENT_OK | FLAGS[secrets_], path, depth, &stored) != 0) {
    return -1;
  }
  c_string_ptr owner(stored);
  text->append(stored == nullptr ? "" : stored);
  return 0;
}

int ds_source::read_all(wiped_string *text) const
{
  if (!has_tree_) {
    return read_stored("/", DB_DEPTH_ALL, text);
  }
  for (const lyd_node *top = tree_; top != nullptr; top = top->next) {
    if (!stored_modules_.contains(top->schema->module->name) && ds_print_node(top, secrets_, text) != 0) {
      return -1;
    }
  }
  for (const std::string &module : stored_modules_) {
    if (read_stored(("/" + module).c_str(), DB_DEPTH_ALL, text) != 0) {
      return -1;
    }
  }
  return 0;
}

int ds_source::read_text(const ds_path_t &path, wiped_string *text) const
{
  if (path.empty()) {
    return read_all(text);
  }
  if (!is_in_tree(path)) {
    return read_stored(ds_path_key(path).c_str(), DB_DEPTH_ALL, text);
  }
  const lyd_node *node = ds_find_node(tree_, path);
  bool is_one = node == nullptr || path.back()->is_entry();
  const lysc_node *schema = node == nullptr ? nullptr : node->schema;
  for (; node != nullptr && node->schema == schema; node = is_one ? nullptr : node->next) {
    if (ds_print_node(node, secrets_, text) != 0) {
      return -1;
    }
  }
  return 0;
}

int ds_source::has_entry(const ds_path_t &path, bool *ret_has) const
{
  if (is_in_tree(path)) {
    *ret_has = ds_find_node(tree_, path) != nullptr;
    return 0;
  }
  wiped_string keys;
  if (read_stored(ds_path_key(path).c_str(), DEPTH_KEYS_ONLY, &keys) != 0) {
    return -1;
  }
  *ret_has = !keys.empty();
  return 0;
}

int ds_source::index_of(const ds_path_t &path, int *ret_index) const
{
  if (!is_in_tree(path)) {
    int index = database_index(hdb_, 0, ds_path_key(path).c_str());
    *ret_index = index; // negative for an absent entry, whose place does not matter
    return 0;
  }
  const lyd_node *node = ds_find_node(tree_, path);
  *ret_index = node == nullptr ? -1 : static_cast<int>(lyd_list_pos(node));
  return 0;
}

// The data key of the entry at that position of the list of `path`; empty when there is none. 0 or -1.
int ds_source::key_at(const ds_path_t &path, int index, std::string *ret_key) const
{
  ret_key->clear();
  if (index < 0) {
    return 0;
  }
  ds_path_t way(path.begin(), path.end() - 1);
  ds_step_t all{path.back()->schema, {}};
  way.push_back(&all);
  wiped_string entry;
  std::string position = ds_path_key(way) + "[" + std::to_string(index) + "]";
  if (read_stored(position.c_str(), DEPTH_KEYS_ONLY, &entry) != 0) {
    return -1;
  }
  way.pop_back();
  wiped_string text;
  if (entry.empty() || ds_wrap_text(way, entry, &text) != 0) {
    return entry.empty() ? 0 : -1;
  }
  lyd_node *tree = nullptr;
  LY_ERR result = lyd_parse_data_mem(schema_ctx(), text.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree);
  lyd_tree_ptr owner(tree);
  way.push_back(&all);
  const lyd_node *node = result == LY_SUCCESS ? ds_find_node(tree, way) : nullptr;
  if (node == nullptr) {
    log_error("Stored entry of %.512s does not fit the schema.", ds_path_key(way).c_str());
    return -1;
  }
  *ret_key = dbkey_data_key(node);
  return 0;
}

int ds_source::neighbours_of(const ds_path_t &path, bool *ret_has, std::string *ret_prev, std::string *ret_next) const
{
  if (is_in_tree(path)) {
    const lyd_node *entry = ds_find_node(tree_, path);
    *ret_has = entry != nullptr;
    *ret_prev = entry == nullptr || entry->prev->next == nullptr ? "" : key_of_neighbour(entry, entry->prev);
    *ret_next = entry == nullptr ? "" : key_of_neighbour(entry, entry->next);
    return 0;
  }
  int index = database_index(hdb_, 0, ds_path_key(path).c_str());
  *ret_has = index >= 0;
  if (index < 0) {
    ret_prev->clear();
    ret_next->clear();
    return 0;
  }
  return key_at(path, index - 1, ret_prev) != 0 || key_at(path, index + 1, ret_next) != 0 ? -1 : 0;
}
