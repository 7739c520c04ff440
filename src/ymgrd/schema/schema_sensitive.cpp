#include "ymgrd/schema/schema_sensitive.h"

#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>

#include <libyang/plugins_types.h>

#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/schema/schema.h"

namespace {

constexpr std::string_view STRING_PLUGIN = "libyang 2 - string";

// A value that was stored by its type's plugin.
class stored_value {
public:
  stored_value() = default;
  stored_value(const stored_value &) = delete;
  stored_value &operator=(const stored_value &) = delete;
  ~stored_value()
  {
    if (value_.realtype != nullptr) {
      value_.realtype->plugin->free(schema_ctx(), &value_);
    }
  }

  // Whether the type takes the text. libyang's message is not looked at: it quotes the value.
  bool store(const lysc_type *type, const lysc_node *leaf, std::string_view text)
  {
    ly_err_item *error = nullptr;
    lyd_value value = {};
    LY_ERR result = type->plugin->store(schema_ctx(), type, text.data(), text.size(), 0, LY_VALUE_JSON, nullptr,
                                        LYD_HINT_DATA, leaf, &value, nullptr, &error);
    if (error != nullptr && error->msg != nullptr) {
      memset_s(error->msg, strlen(error->msg), 0, strlen(error->msg));
    }
    ly_err_free(error);
    if (result != LY_SUCCESS) {
      return false;
    }
    value_ = value;
    return true;
  }
  lyd_value *get() { return &value_; }

private:
  lyd_value value_ = {};
};

// What the leaf had before it was protected. The value that stands for its default meanwhile is owned here.
typedef struct _own_type {
  lysc_type *type = nullptr;
  lyd_value *dflt = nullptr;
  std::unique_ptr<stored_value> text_dflt;
} own_type_t;

struct {
  lysc_type *string = nullptr;
  std::unordered_map<const lysc_node *, own_type_t> leaves;
  std::vector<const lysc_node *> order;
  std::map<std::string, const lysc_node *, std::less<>> by_path;
} state;

const lysc_type *type_of(const lysc_node *node)
{
  return node->nodetype & LYD_NODE_TERM ? reinterpret_cast<const lysc_node_leaf *>(node)->type : nullptr;
}

// --- Finding the leaves.

typedef struct _sensitive_path {
  const sensitive_config_t *record;
  std::vector<const lysc_node *> nodes;
} sensitive_path_t;

void find_nodes(const lysc_node *parent, const sensitive_config_t &record, size_t depth, int options,
                std::vector<const lysc_node *> *nodes)
{
  const sensitive_step_t &step = record.steps[depth];
  const lys_module *module = ly_ctx_get_module_implemented(schema_ctx(), step.module.c_str());
  if (module == nullptr) {
    return;
  }
  const lysc_node *child = nullptr;
  while ((child = lys_getnext(child, parent, parent == nullptr ? module->compiled : nullptr, options)) != nullptr) {
    if (child->module != module || step.name != child->name) {
      continue;
    }
    if (depth + 1 == record.steps.size()) {
      nodes->push_back(child);
      continue;
    }
    find_nodes(child, record, depth + 1, 0, nodes);
    if (child->nodetype & (LYS_RPC | LYS_ACTION)) {
      find_nodes(child, record, depth + 1, LYS_GETNEXT_OUTPUT, nodes);
    }
  }
}

bool is_type_protectable(const lysc_type *type)
{
  switch (type->basetype) {
  case LY_TYPE_LEAFREF:
  case LY_TYPE_INST:
  case LY_TYPE_IDENT:
  case LY_TYPE_EMPTY:
    return false;
  case LY_TYPE_UNION: {
    const auto *of_union = reinterpret_cast<const lysc_type_union *>(type);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(of_union->types, i)
    {
      if (!is_type_protectable(of_union->types[i])) {
        return false;
      }
    }
    return true;
  }
  default:
    return true;
  }
}

// Null when the leaf can be protected, else what it is.
const char *why_not_protectable(const lysc_node *node)
{
  if (node->nodetype != LYS_LEAF) {
    return "no leaf";
  }
  if (lysc_is_key(node)) {
    return "a list key, which is part of other data's names";
  }
  return is_type_protectable(type_of(node)) ? nullptr : "of a type whose values can not be encrypted";
}

// 0, or -1 (logged).
int find_leaves(std::vector<sensitive_path_t> *ret_paths)
{
  for (const sensitive_config_t *record : encrypt_sensitives()) {
    sensitive_path_t path{record, {}};
    find_nodes(nullptr, *record, 0, 0, &path.nodes);
    if (path.nodes.empty()) {
      log_warn("Sensitive leaf <%.512s> is not in the schema.", record->path.c_str());
    }
    for (const lysc_node *node : path.nodes) {
      if (const char *reason = why_not_protectable(node); reason != nullptr) {
        log_error("Sensitive node <%.512s> is %s.", record->path.c_str(), reason);
        return -1;
      }
    }
    ret_paths->push_back(std::move(path));
  }
  return 0;
}

// --- References. What refers to a sensitive leaf has its value, and would show it.

struct ly_set_delete_t {
  void operator()(ly_set *set) const { ly_set_free(set, nullptr); }
};

bool refers_to_sensitive(const lysc_node *leaf, const lysc_type *type)
{
  if (type->basetype == LY_TYPE_UNION) {
    const auto *of_union = reinterpret_cast<const lysc_type_union *>(type);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(of_union->types, i)
    {
      if (refers_to_sensitive(leaf, of_union->types[i])) {
        return true;
      }
    }
    return false;
  }
  if (type->basetype != LY_TYPE_LEAFREF) {
    return false;
  }
  const auto *reference = reinterpret_cast<const lysc_type_leafref *>(type);
  ly_set *atoms = nullptr;
  LY_ERR result =
      lys_find_expr_atoms(leaf, leaf->module, reference->path, reference->prefixes, LYS_FIND_XP_SCHEMA, &atoms);
  std::unique_ptr<ly_set, ly_set_delete_t> owner(atoms);
  for (uint32_t i = 0; result == LY_SUCCESS && atoms != nullptr && i < atoms->count; i++) {
    if (atoms->snodes[i] != leaf && schema_is_sensitive(atoms->snodes[i])) {
      return true;
    }
  }
  return false;
}

LY_ERR check_reference(lysc_node *node, void *, ly_bool *)
{
  const lysc_type *type = type_of(node);
  if (type == nullptr || !refers_to_sensitive(node, type)) {
    return LY_SUCCESS;
  }
  c_string_ptr path(lysc_path(node, LYSC_PATH_LOG, nullptr, 0));
  log_error("Leaf <%.512s> refers to a sensitive leaf and would show its value.", path == nullptr ? "" : path.get());
  return LY_EDENIED;
}

int check_references()
{
  uint32_t index = 0;
  while (const lys_module *module = ly_ctx_get_module_iter(schema_ctx(), &index)) {
    if (module->implemented && lysc_module_dfs_full(module, check_reference, nullptr) != LY_SUCCESS) {
      return -1;
    }
  }
  return 0;
}

// --- The types.

// The built-in type string, without restrictions, of some leaf.
LY_ERR find_string(lysc_node *node, void *found, ly_bool *)
{
  const lysc_type *type = type_of(node);
  if (type == nullptr || type->basetype != LY_TYPE_STRING ||
      !std::string_view(type->plugin->id).starts_with(STRING_PLUGIN)) {
    return LY_SUCCESS;
  }
  const auto *string = reinterpret_cast<const lysc_type_str *>(type);
  if (string->length != nullptr || string->patterns != nullptr || type->exts != nullptr) {
    return LY_SUCCESS;
  }
  *static_cast<lysc_type **>(found) = reinterpret_cast<lysc_node_leaf *>(node)->type;
  return LY_EEXIST; // ends the walk
}

lysc_type *string_type()
{
  lysc_type *type = nullptr;
  uint32_t index = 0;
  const lys_module *module = nullptr;
  while (type == nullptr && (module = ly_ctx_get_module_iter(schema_ctx(), &index)) != nullptr) {
    if (module->implemented) {
      (void)lysc_module_dfs_full(module, find_string, &type); // says no more than that it found one
    }
  }
  return type;
}

int protect(const lysc_node *node)
{
  auto *leaf = reinterpret_cast<lysc_node_leaf *>(const_cast<lysc_node *>(node));
  own_type_t own;
  own.type = leaf->type;
  own.dflt = leaf->dflt;
  if (leaf->dflt != nullptr) {
    own.text_dflt = std::make_unique<stored_value>();
    if (!own.text_dflt->store(state.string, node, lyd_value_get_canonical(schema_ctx(), leaf->dflt))) {
      log_error("Default of sensitive leaf <%.512s> can not be kept.", node->name);
      return -1;
    }
    leaf->dflt = own.text_dflt->get();
  }
  leaf->type = state.string;
  state.string->refcount++; // as long as the leaf has it
  state.leaves.emplace(node, std::move(own));
  state.order.push_back(node);
  return 0;
}

} // namespace

int schema_protect_sensitive()
{
  std::vector<sensitive_path_t> paths;
  if (!encrypt_has_sensitive()) {
    return 0;
  }
  state.string = string_type();
  if (state.string == nullptr) {
    log_error("No loaded module has a leaf of type string.");
    return -1;
  }
  if (find_leaves(&paths) != 0) {
    return -1;
  }
  int result = 0;
  for (const sensitive_path_t &path : paths) {
    for (const lysc_node *node : path.nodes) {
      result |= protect(node);
      state.by_path.emplace(path.record->path, node);
    }
  }
  if (result != 0 || check_references() != 0) {
    schema_unprotect_sensitive();
    return -1;
  }
  return 0;
}

void schema_unprotect_sensitive()
{
  for (auto &[node, own] : state.leaves) {
    auto *leaf = reinterpret_cast<lysc_node_leaf *>(const_cast<lysc_node *>(node));
    leaf->type = own.type;
    leaf->dflt = own.dflt;
    state.string->refcount--;
  }
  state.leaves.clear();
  state.order.clear();
  state.by_path.clear();
  state.string = nullptr;
}

bool schema_is_sensitive(const lysc_node *node)
{
  return !state.leaves.empty() && state.leaves.contains(node);
}

bool schema_is_sensitive(std::string_view path)
{
  return schema_find_sensitive(path) != nullptr;
}

const std::vector<const lysc_node *> &schema_sensitive_leaves()
{
  return state.order;
}

const lysc_node *schema_find_sensitive(std::string_view path)
{
  auto found = state.by_path.find(path);
  return found == state.by_path.end() ? nullptr : found->second;
}

bool schema_check_sensitive(const lysc_node *leaf, std::string_view value, wiped_string *ret_canonical)
{
  auto known = state.leaves.find(leaf);
  const lysc_type *type = known == state.leaves.end() ? type_of(leaf) : known->second.type;
  stored_value stored;
  if (type == nullptr || !stored.store(type, leaf, value)) {
    return false;
  }
  const char *canonical = lyd_value_get_canonical(schema_ctx(), stored.get());
  if (canonical == nullptr) {
    return false;
  }
  ret_canonical->reserve(strlen(canonical) + sizeof(wiped_string)); // a short text would not be wiped
  ret_canonical->assign(canonical);
  return true;
}
