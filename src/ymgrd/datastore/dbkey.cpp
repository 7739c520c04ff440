#include "ymgrd/datastore/dbkey.h"

#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ymgrd/core/log.h"

namespace {

typedef struct _schema_key {
  const ly_ctx *ctx;
  const char *text; // interned
} schema_key_t;

std::unordered_map<const lysc_node *, schema_key_t> schema_keys;

// Valid for one compilation of one context.
struct {
  const ly_ctx *ctx = nullptr;
  uint16_t change_count = 0;
  std::unordered_set<const lysc_node *> nodes;
} shorthand_cases;

LY_ERR note_shorthand_case(lysc_node *node, void *, ly_bool *)
{
  if (node->nodetype == LYS_CASE && node->priv == nullptr) {
    shorthand_cases.nodes.insert(node);
  }
  return LY_SUCCESS;
}

int note_shorthand_cases(const ly_ctx *ctx)
{
  uint32_t index = 0;
  while (const lys_module *module = ly_ctx_get_module_iter(ctx, &index)) {
    if (module->implemented && lysc_module_dfs_full(module, note_shorthand_case, nullptr) != LY_SUCCESS) {
      log_error("Walk over the schema of module %.512s failed.", module->name);
      return -1;
    }
  }
  return 0;
}

// Whether the case may stand for a shorthand statement at all: it is then alone with a child of its own name.
bool looks_like_shorthand(const lysc_node *node)
{
  const lysc_node *child = lysc_node_child(node);
  return child != nullptr && child->next == nullptr && std::string_view(child->name) == node->name;
}

bool shorthand_cases_are_known(const ly_ctx *ctx)
{
  return shorthand_cases.ctx == ctx && shorthand_cases.change_count == ly_ctx_get_change_count(ctx);
}

// The choices and explicit cases between `schema` and its data parent, the outermost first.
int collect_choices_and_cases(const lysc_node *schema, std::vector<const lysc_node *> *ret_between)
{
  std::vector<const lysc_node *> between;
  for (const lysc_node *up = schema->parent; up != nullptr && (up->nodetype & (LYS_CHOICE | LYS_CASE)) != 0;
       up = up->parent) {
    if (up->nodetype == LYS_CASE && looks_like_shorthand(up)) {
      if (!shorthand_cases_are_known(schema->module->ctx)) {
        log_error("Shorthand cases are not known since the schema was loaded, key of node %.512s.", schema->name);
        return -1;
      }
      if (dbkey_is_shorthand_case(up)) {
        continue;
      }
    }
    between.insert(between.begin(), up);
  }
  *ret_between = std::move(between);
  return 0;
}

void append_name(std::string *key, const lys_module *prefix, const char *name)
{
  *key += '/';
  if (prefix != nullptr) {
    *key += prefix->name;
    *key += ':';
  }
  *key += name;
}

int make_schema_key(const lysc_node *schema, std::string *ret_key)
{
  const lys_module *module = schema->module;
  const lysc_node *parent = lysc_data_parent(schema);
  std::string key;
  const lys_module *prefix = module;
  if (parent != nullptr) {
    const char *parent_key = dbkey_schema_key(parent);
    std::vector<const lysc_node *> between;
    if (parent_key == nullptr || collect_choices_and_cases(schema, &between) != 0) {
      return -1;
    }
    key = parent_key;
    const lys_module *carried = parent->module;
    for (size_t i = 0; i < between.size(); i++) {
      // Only the first name carries a prefix.
      bool is_foreign = i == 0 && between[i]->module != parent->module;
      append_name(&key, is_foreign ? between[i]->module : nullptr, between[i]->name);
      carried = is_foreign ? between[i]->module : carried;
    }
    prefix = module == parent->module || module == carried ? nullptr : module;
  }
  append_name(&key, prefix, schema->name);
  if ((schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0) {
    key += "[]";
  }
  *ret_key = std::move(key);
  return 0;
}

void append_quoted(std::string *key, const char *value)
{
  *key += '"';
  for (const char *p = value == nullptr ? "" : value; *p != '\0'; p++) {
    if (*p == '"' || *p == '\\') {
      *key += '\\';
    }
    *key += *p;
  }
  *key += '"';
}

// Both append what their public counterparts return, without a string of their own: keys are made for every node of a
// document.
void append_segment(std::string *key, const lyd_node *node)
{
  if (const char *prefix = dbkey_calc_prefix(node)) {
    *key += prefix;
    *key += ':';
  }
  *key += LYD_NAME(node);
}

void append_predicate(std::string *key, const lyd_node *node)
{
  if (node->schema == nullptr) {
    return;
  }
  if (node->schema->nodetype == LYS_LEAFLIST) {
    *key += ".=";
    append_quoted(key, lyd_get_value(node));
    return;
  }
  if (node->schema->nodetype != LYS_LIST) {
    return;
  }
  if ((node->schema->flags & LYS_KEYLESS) != 0) {
    log_debug("list %s has not key", node->schema->name);
    return;
  }
  // The key leaves are an entry's first children, in the schema's key order.
  bool is_first = true;
  for (const lyd_node *leaf = lyd_child(node); leaf != nullptr && leaf->schema != nullptr && lysc_is_key(leaf->schema);
       leaf = leaf->next) {
    if (!is_first) {
      *key += ',';
    }
    is_first = false;
    *key += leaf->schema->name;
    *key += '=';
    append_quoted(key, lyd_get_value(leaf));
  }
}

bool is_entry(const lyd_node *node)
{
  return node->schema != nullptr && (node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0;
}

// `key` is the parent's data key, and is so again afterwards. Recurses as deep as the schema.
int fill_keys(lyd_node *node, std::string *key, ds_node_arena *arena, const char *previous_schema_key)
{
  ds_node_record_t *record = arena->record_of(node);
  record->schema_key = previous_schema_key;
  if (previous_schema_key == nullptr) {
    const lysc_node *schema = dbkey_schema_of(node);
    record->schema_key = schema == nullptr ? nullptr : dbkey_schema_key(schema);
  }
  if (record->schema_key == nullptr) {
    log_error("get sch_key error");
    return -1;
  }

  size_t parent_length = key->size();
  dbkey_append(key, node);
  if (record->data_key != nullptr) {
    lydict_remove(LYD_CTX(node), record->data_key);
    record->data_key = nullptr;
  }
  if (lydict_insert(LYD_CTX(node), key->c_str(), key->size(), &record->data_key) != LY_SUCCESS) {
    log_error("dict insert %.512s failed.", key->c_str());
    return -1;
  }
  const lyd_node *previous = nullptr;
  const char *child_schema_key = nullptr;
  for (lyd_node *child = lyd_child(node); child != nullptr; child = child->next) {
    bool is_next_entry = previous != nullptr && child->schema != nullptr && child->schema == previous->schema;
    if (fill_keys(child, key, arena, is_next_entry ? child_schema_key : nullptr) != 0) {
      return -1;
    }
    child_schema_key = ds_node_record(child)->schema_key;
    previous = child;
  }
  key->resize(parent_length);
  return 0;
}

} // namespace

int dbkey_prepare(ly_ctx *ctx)
{
  bool was_set = (ly_ctx_get_options(ctx) & LY_CTX_SET_PRIV_PARSED) != 0;
  dbkey_release();
  if (!was_set && ly_ctx_set_options(ctx, LY_CTX_SET_PRIV_PARSED) != LY_SUCCESS) {
    log_error("The schema could not be compiled with references to its statements.");
    return -1;
  }
  int result = note_shorthand_cases(ctx);
  if (!was_set) {
    (void)ly_ctx_unset_options(ctx, LY_CTX_SET_PRIV_PARSED); // does not compile anew, so it cannot fail
  }
  if (result == 0) {
    shorthand_cases.ctx = ctx;
    shorthand_cases.change_count = ly_ctx_get_change_count(ctx);
  }
  return result;
}

bool dbkey_is_shorthand_case(const lysc_node *schema)
{
  return shorthand_cases.nodes.contains(schema);
}

const lysc_node *dbkey_schema_of(const lyd_node *node)
{
  if (node->schema != nullptr) {
    return node->schema;
  }
  const auto *opaque = reinterpret_cast<const lyd_node_opaq *>(node);
  const lyd_node *parent = lyd_parent(node);
  const lysc_node *parent_schema = parent == nullptr ? nullptr : dbkey_schema_of(parent);
  const lys_module *module = lyd_owner_module(node);
  if (module == nullptr || (parent != nullptr && parent_schema == nullptr)) {
    return nullptr;
  }
  return lys_find_child(parent_schema, module, opaque->name.name, 0, 0, 0);
}

const lys_module *dbkey_get_main_module(const lysc_node *schema)
{
  return schema->module;
}

const char *dbkey_calc_prefix(const lyd_node *node)
{
  const lyd_node *parent = lyd_parent(node);
  const lys_module *module = node->schema != nullptr ? node->schema->module : lyd_owner_module(node);
  if (module == nullptr) {
    log_error("node<%.512s>'s module name or submodule name is null", LYD_NAME(node));
    return nullptr;
  }
  return parent != nullptr && parent->schema != nullptr && parent->schema->module == module ? nullptr : module->name;
}

std::string dbkey_segment(const lyd_node *node)
{
  std::string segment;
  append_segment(&segment, node);
  return segment;
}

std::string dbkey_predicate(const lyd_node *node)
{
  std::string predicate;
  append_predicate(&predicate, node);
  return predicate;
}

void dbkey_append(std::string *key, const lyd_node *node)
{
  *key += '/';
  append_segment(key, node);
  if (!is_entry(node)) {
    return;
  }
  size_t normal_length = key->size();
  *key += '[';
  append_predicate(key, node);
  if (key->size() == normal_length + 1) {
    key->resize(normal_length);
  } else {
    *key += ']';
  }
}

void dbkey_append_name(std::string *key, const lysc_node *schema)
{
  const lysc_node *parent = lysc_data_parent(schema);
  bool is_foreign = parent == nullptr || parent->module != schema->module;
  append_name(key, is_foreign ? schema->module : nullptr, schema->name);
}

std::string dbkey_data_key(const lyd_node *node)
{
  const lyd_node *parent = lyd_parent(node);
  std::string key = parent == nullptr ? std::string() : dbkey_data_key(parent);
  dbkey_append(&key, node);
  return key;
}

const char *dbkey_schema_key(const lysc_node *schema)
{
  auto known = schema_keys.find(schema);
  if (known != schema_keys.end()) {
    return known->second.text;
  }
  std::string key;
  if (make_schema_key(schema, &key) != 0) {
    return nullptr;
  }
  const char *interned = nullptr;
  if (lydict_insert(schema->module->ctx, key.c_str(), key.size(), &interned) != LY_SUCCESS) {
    log_error("dict insert %.512s failed.", key.c_str());
    return nullptr;
  }
  schema_keys.emplace(schema, schema_key_t{schema->module->ctx, interned});
  return interned;
}

void dbkey_release()
{
  for (const auto &[schema, key] : schema_keys) {
    lydict_remove(key.ctx, key.text);
  }
  schema_keys.clear();
  shorthand_cases.ctx = nullptr;
  shorthand_cases.nodes.clear();
}

ds_node_arena::~ds_node_arena()
{
  for (const ds_node_record_t &record : records_) {
    if (record.data_key != nullptr) {
      lydict_remove(ctx_, record.data_key);
    }
  }
}

ds_node_record_t *ds_node_arena::record_of(lyd_node *node)
{
  if (node->priv == nullptr) {
    ctx_ = LYD_CTX(node);
    node->priv = &records_.emplace_back();
  }
  return static_cast<ds_node_record_t *>(node->priv);
}

int parse_dbkey(lyd_node *node, ds_node_arena *arena)
{
  if (node == nullptr) {
    return 0;
  }
  const lyd_node *parent = lyd_parent(node);
  std::string key = parent == nullptr ? std::string() : dbkey_data_key(parent);
  return fill_keys(node, &key, arena, nullptr);
}
