// The walk over the compiled schema that makes every node's record. In the compiled tree uses, refines, augments,
// features and deviations are resolved; what only the statement tells (its status, the name of its type) is taken from
// the parsed node, to which the compiled one points (LY_CTX_SET_PRIV_PARSED).
#include <unordered_set>

#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/schema/schema_record.h"

namespace {

// A deviation may give a leaf another type; the parsed leaf still has the old one. From the leaf's path to the name.
using type_names_t = std::unordered_map<std::string, std::string>;

typedef struct _schema_walk {
  std::unordered_set<const lys_module *> saved; // of whose nodes records are made
  type_names_t deviated_types;
  schema_records_t *records;
} schema_walk_t;

void schema_op_snode(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node, const std::string &key);

// --- Names

// A case that stands for a shorthand statement: only libyang has it, the module does not.
bool is_shorthand_case(const lysc_node *node)
{
  return node->nodetype == LYS_CASE && node->priv == nullptr;
}

std::string_view without_prefix(std::string_view name)
{
  size_t colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

// The node's field: its name, behind its module's when another module put it below its parent.
std::string schema_calc_augment_node_name(const lysc_node *node)
{
  const lysc_node *parent = node->parent;
  if (parent != nullptr && is_shorthand_case(parent)) {
    parent = parent->parent;
  }
  bool is_augment = parent != nullptr && parent->module != node->module;
  return is_augment ? std::string(node->module->name) + ":" + node->name : node->name;
}

// What the hash of a node's children has behind the hash of the node itself.
std::string schema_node_to_subkey(const lysc_node *node)
{
  return "/" + schema_calc_augment_node_name(node);
}

bool schema_is_list_key(const lysc_node *node)
{
  return lysc_is_key(node);
}

// --- Deviated types

// The module that `prefix` stands for in a parsed module or submodule; empty when there is none.
template <class parsed_t>
std::string_view module_of_prefix(const parsed_t *parsed, std::string_view own_prefix, std::string_view prefix)
{
  if (prefix.empty() || prefix == own_prefix) {
    return parsed->mod->name;
  }
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(parsed->imports); i++) {
    if (prefix == parsed->imports[i].prefix) {
      return parsed->imports[i].name;
    }
  }
  return {};
}

// A schema node identifier in the form in which libyang prints paths: a module's name only where the module changes.
template <class parsed_t>
std::string schema_node_path(const parsed_t *parsed, std::string_view own_prefix, std::string_view nodeid)
{
  std::string path;
  std::string_view parent_module;
  while (!nodeid.empty()) {
    nodeid.remove_prefix(1); // the slash
    std::string_view step = nodeid.substr(0, nodeid.find('/'));
    nodeid.remove_prefix(step.size());
    std::string_view name = without_prefix(step);
    std::string_view prefix = name.size() == step.size() ? "" : step.substr(0, step.size() - name.size() - 1);
    std::string_view module = module_of_prefix(parsed, own_prefix, prefix);
    path += "/";
    if (module != parent_module) {
      path.append(module).append(":");
    }
    path += name;
    parent_module = module;
  }
  return path;
}

template <class parsed_t>
void note_deviated_types(const parsed_t *parsed, std::string_view own_prefix, type_names_t *types)
{
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(parsed->deviations); i++) {
    const lysp_deviation &deviation = parsed->deviations[i];
    for (const lysp_deviate *deviate = deviation.deviates; deviate != nullptr; deviate = deviate->next) {
      if (deviate->mod != LYS_DEV_REPLACE) {
        continue;
      }
      const auto *replace = reinterpret_cast<const lysp_deviate_rpl *>(deviate); // libyang's own form of inheritance
      if (replace->type != nullptr) {
        (*types)[schema_node_path(parsed, own_prefix, deviation.nodeid)] = without_prefix(replace->type->name);
      }
    }
  }
}

type_names_t collect_deviated_types()
{
  type_names_t types;
  uint32_t index = 0;
  while (const lys_module *module = ly_ctx_get_module_iter(schema_ctx(), &index)) {
    if (!module->implemented) {
      continue;
    }
    note_deviated_types(module->parsed, module->prefix, &types);
    for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(module->parsed->includes); i++) {
      const lysp_submodule *submodule = module->parsed->includes[i].submodule;
      note_deviated_types(submodule, submodule->prefix, &types);
    }
  }
  return types;
}

std::string type_name(const schema_walk_t &walk, const lysc_node *node, const lysp_type &type)
{
  if (!walk.deviated_types.empty()) {
    c_string_ptr path(lysc_path(node, LYSC_PATH_LOG, nullptr, 0));
    auto deviated = path == nullptr ? walk.deviated_types.end() : walk.deviated_types.find(path.get());
    if (deviated != walk.deviated_types.end()) {
      return deviated->second;
    }
  }
  return std::string(without_prefix(type.name));
}

// --- Records

void schema_set_rpc_notif(conf_mnode_schema_t *node_schema, spec_mnode_type_t spc_config)
{
  node_schema->rpc = spc_config == SCHEMA_RPC;
  node_schema->notification = spc_config == SCHEMA_NOTIFICATION;
}

void schema_set_config_status_mandatory(conf_mnode_schema_t *node_schema, const lysc_node *node)
{
  const auto *statement = static_cast<const lysp_node *>(node->priv);
  // Below rpcs and notifications libyang gives neither of the two config flags.
  node_schema->config = (node->flags & LYS_CONFIG_R) == 0;
  // The compiled flags always hold some status.
  node_schema->status = statement != nullptr && (statement->flags & LYS_STATUS_MASK) != 0;
  // Containers have the flag from what is in them, lists from min-elements.
  bool may_be_mandatory = (node->nodetype & (LYS_LEAF | LYS_CHOICE | LYS_ANYDATA)) != 0;
  node_schema->mandatory = may_be_mandatory && (node->flags & LYS_MAND_TRUE) != 0;
}

conf_mnode_schema_t new_record(spec_mnode_type_t spc_config, const lysc_node *node, conf_mnode_type_t node_type)
{
  conf_mnode_schema_t node_schema;
  node_schema.node_type = node_type;
  schema_set_rpc_notif(&node_schema, spc_config);
  schema_set_config_status_mandatory(&node_schema, node);
  return node_schema;
}

// 0, or -1 when the node, and with it what is below, is left out.
int save_record(schema_walk_t *walk, const conf_mnode_schema_t &node_schema, const lysc_node *node,
                const std::string &key)
{
  if (!walk->saved.contains(node->module)) {
    return 0; // a module that saves itself may have augmented it
  }
  std::string record;
  if (schema_encode_record(node_schema, &record) != 0) {
    log_error("node[%.512s] of %.512s does not fit into a record.", node->name, key.c_str());
    return -1;
  }
  (*walk->records)[key].insert_or_assign(schema_calc_augment_node_name(node),
                                         schema_field_t{std::move(record), node->module->name});
  return 0;
}

// --- One writer for each kind. `key` is the hash of the node's own record.

void op_siblings(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *first, const std::string &key)
{
  for (const lysc_node *node = first; node != nullptr; node = node->next) {
    schema_op_snode(walk, spc_config, node, key);
  }
}

void schema_op_container(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node,
                         const std::string &key)
{
  conf_mnode_schema_t node_schema = new_record(spc_config, node, CONF_NODE_CONTAINER);
  node_schema.precense = (node->flags & LYS_PRESENCE) != 0;
  if (save_record(walk, node_schema, node, key) == 0) {
    op_siblings(walk, spc_config, lysc_node_child(node), key + schema_node_to_subkey(node));
  }
}

void schema_op_leaf(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node, const std::string &key)
{
  conf_mnode_schema_t node_schema = new_record(spc_config, node, CONF_NODE_LEAF);
  node_schema.type_name = type_name(*walk, node, static_cast<const lysp_node_leaf *>(node->priv)->type);
  if (const lyd_value *dflt = reinterpret_cast<const lysc_node_leaf *>(node)->dflt) {
    const char *text = lyd_value_get_canonical(node->module->ctx, dflt);
    node_schema.default_text = text == nullptr ? "" : text;
  }
  (void)save_record(walk, node_schema, node, key); // logged there; nothing is below
}

void schema_op_leaflist(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node,
                        const std::string &key)
{
  conf_mnode_schema_t node_schema = new_record(spc_config, node, CONF_NODE_LEAFLIST);
  node_schema.type_name = type_name(*walk, node, static_cast<const lysp_node_leaflist *>(node->priv)->type);
  (void)save_record(walk, node_schema, node, key); // as above
}

void schema_op_list(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node, const std::string &key)
{
  if (save_record(walk, new_record(spc_config, node, CONF_NODE_LIST), node, key) != 0) {
    return;
  }
  const std::string list_key = key + schema_node_to_subkey(node);
  const std::string child_key = list_key + "[]";
  for (const lysc_node *child = lysc_node_child(node); child != nullptr; child = child->next) {
    schema_op_snode(walk, spc_config, child, schema_is_list_key(child) ? list_key : child_key);
  }
}

void schema_op_choice(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node, const std::string &key)
{
  conf_mnode_schema_t node_schema = new_record(spc_config, node, CONF_NODE_CHOICE);
  if (const lysc_node_case *dflt = reinterpret_cast<const lysc_node_choice *>(node)->dflt) {
    node_schema.default_text = dflt->name;
  }
  if (save_record(walk, node_schema, node, key) == 0) {
    op_siblings(walk, spc_config, lysc_node_child(node), key + schema_node_to_subkey(node));
  }
}

void schema_op_case(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node, const std::string &key)
{
  if (is_shorthand_case(node)) {
    op_siblings(walk, spc_config, lysc_node_child(node), key);
  } else if (save_record(walk, new_record(spc_config, node, CONF_NODE_CASE), node, key) == 0) {
    op_siblings(walk, spc_config, lysc_node_child(node), key + schema_node_to_subkey(node));
  }
}

void schema_op_anyxml(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node, const std::string &key)
{
  (void)save_record(walk, new_record(spc_config, node, CONF_NODE_ANYXML), node, key); // as above
}

void schema_op_inout(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node_action_inout &inout,
                     const std::string &key)
{
  conf_mnode_type_t node_type = spc_config == SCHEMA_RPC_IN ? CONF_NODE_INPUT : CONF_NODE_OUTPUT;
  if (save_record(walk, new_record(spc_config, &inout.node, node_type), &inout.node, key) == 0) {
    op_siblings(walk, spc_config, inout.child, key + schema_node_to_subkey(&inout.node));
  }
}

void schema_op_rpc(schema_walk_t *walk, const lysc_node_action *rpc, const std::string &key)
{
  if (save_record(walk, new_record(SCHEMA_RPC, &rpc->node, CONF_NODE_RPC), &rpc->node, key) == 0) {
    const std::string child_key = key + schema_node_to_subkey(&rpc->node);
    schema_op_inout(walk, SCHEMA_RPC_IN, rpc->input, child_key);
    schema_op_inout(walk, SCHEMA_RPC_OUT, rpc->output, child_key);
  }
}

void schema_op_notification(schema_walk_t *walk, const lysc_node_notif *notif, const std::string &key)
{
  const lysc_node *node = &notif->node;
  if (save_record(walk, new_record(SCHEMA_NOTIFICATION, node, CONF_NODE_NOTIFICATION), node, key) == 0) {
    op_siblings(walk, SCHEMA_CONFIG, notif->child, key + schema_node_to_subkey(node));
  }
}

void schema_op_snode(schema_walk_t *walk, spec_mnode_type_t spc_config, const lysc_node *node, const std::string &key)
{
  switch (node->nodetype) {
  case LYS_CONTAINER:
    return schema_op_container(walk, spc_config, node, key);
  case LYS_LEAF:
    return schema_op_leaf(walk, spc_config, node, key);
  case LYS_LEAFLIST:
    return schema_op_leaflist(walk, spc_config, node, key);
  case LYS_LIST:
    return schema_op_list(walk, spc_config, node, key);
  case LYS_CHOICE:
    return schema_op_choice(walk, spc_config, node, key);
  case LYS_CASE:
    return schema_op_case(walk, spc_config, node, key);
  case LYS_ANYXML:
  case LYS_ANYDATA:
    return schema_op_anyxml(walk, spc_config, node, key);
  default:
    return; // actions and notifications of data nodes have no record
  }
}

// The module's own tree with what other modules added to it. Their nodes belong to them.
void schema_op_module_node(schema_walk_t *walk, const lys_module *module)
{
  const std::string key = "/" + std::string(module->name);
  op_siblings(walk, SCHEMA_CONFIG, module->compiled->data, key);
  for (const lysc_node_action *rpc = module->compiled->rpcs; rpc != nullptr; rpc = rpc->next) {
    schema_op_rpc(walk, rpc, key);
  }
  for (const lysc_node_notif *notif = module->compiled->notifs; notif != nullptr; notif = notif->next) {
    schema_op_notification(walk, notif, key);
  }
}

} // namespace

void schema_collect_records(const std::vector<const lys_module *> &modules, schema_records_t *records)
{
  schema_walk_t walk = {{modules.begin(), modules.end()}, collect_deviated_types(), records};
  uint32_t index = 0;
  while (const lys_module *module = ly_ctx_get_module_iter(schema_ctx(), &index)) {
    if (module->compiled != nullptr) {
      schema_op_module_node(&walk, module);
    }
  }
}
