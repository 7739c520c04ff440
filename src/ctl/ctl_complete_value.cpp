// Values of leaves, from their types and from the data.
#include <algorithm>
#include <cctype>

#include "ctl/ctl_complete_path.h"
#include "ctl/ctl_shell_history.h"

namespace {

// Once each, with the module where two have one name.
void add_identities(const lysc_ident *base, std::vector<const lysc_ident *> *identities)
{
  LY_ARRAY_COUNT_TYPE i = 0;
  LY_ARRAY_FOR(base->derived, i)
  {
    if (std::find(identities->begin(), identities->end(), base->derived[i]) == identities->end()) {
      identities->push_back(base->derived[i]);
      add_identities(base->derived[i], identities);
    }
  }
}

void add_identity_names(const lysc_type_identityref *type, std::vector<std::string> *values)
{
  std::vector<const lysc_ident *> identities;
  LY_ARRAY_COUNT_TYPE i = 0;
  LY_ARRAY_FOR(type->bases, i)
  {
    add_identities(type->bases[i], &identities);
  }
  for (const lysc_ident *identity : identities) {
    const std::string name = identity->name;
    const bool is_shared = std::count_if(identities.begin(), identities.end(),
                                         [&](const lysc_ident *other) { return name == other->name; }) > 1;
    values->push_back(is_shared ? std::string(identity->module->name) + ":" + name : name);
  }
}

// What the type itself enumerates.
void add_enumerated(const lysc_type *type, std::vector<std::string> *values)
{
  LY_ARRAY_COUNT_TYPE i = 0;
  switch (type->basetype) {
  case LY_TYPE_BOOL:
    values->insert(values->end(), {"true", "false"});
    break;
  case LY_TYPE_ENUM:
    LY_ARRAY_FOR(reinterpret_cast<const lysc_type_enum *>(type)->enums, i)
    {
      values->push_back(reinterpret_cast<const lysc_type_enum *>(type)->enums[i].name);
    }
    break;
  case LY_TYPE_BITS:
    LY_ARRAY_FOR(reinterpret_cast<const lysc_type_bits *>(type)->bits, i)
    {
      values->push_back(reinterpret_cast<const lysc_type_bits *>(type)->bits[i].name);
    }
    break;
  case LY_TYPE_IDENT:
    add_identity_names(reinterpret_cast<const lysc_type_identityref *>(type), values);
    break;
  case LY_TYPE_UNION:
    LY_ARRAY_FOR(reinterpret_cast<const lysc_type_union *>(type)->types, i)
    {
      add_enumerated(reinterpret_cast<const lysc_type_union *>(type)->types[i], values);
    }
    break;
  case LY_TYPE_LEAFREF:
    add_enumerated(reinterpret_cast<const lysc_type_leafref *>(type)->realtype, values);
    break;
  default:
    break;
  }
}

const lysc_type *type_of(const lysc_node *node)
{
  return node->nodetype == LYS_LEAF       ? reinterpret_cast<const lysc_node_leaf *>(node)->type
         : node->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(node)->type
                                          : nullptr;
}

// The node that a leafref's path ends at; null when it is not found. The predicates of the path touch nodes as well:
// it is the last one whose type is the one that the leafref stands for.
const lysc_node *find_referred(const lysc_node *leaf, const lysc_type_leafref *type)
{
  ly_set *touched = nullptr;
  if (lys_find_expr_atoms(leaf, leaf->module, type->path, type->prefixes, 0, &touched) != LY_SUCCESS) {
    return nullptr;
  }
  const lysc_node *found = nullptr;
  for (uint32_t i = 0; i < touched->count; i++) {
    const lysc_type *other = type_of(touched->snodes[i]);
    if (other != nullptr && other->basetype == LY_TYPE_LEAFREF) {
      other = reinterpret_cast<const lysc_type_leafref *>(other)->realtype;
    }
    found = other == type->realtype && touched->snodes[i] != leaf ? touched->snodes[i] : found;
  }
  ly_set_free(touched, nullptr);
  return found;
}

// The way to a node of the schema, through all entries.
ctl_path_t path_to(const lysc_node *node)
{
  ctl_path_t path;
  for (; node != nullptr; node = node->parent) {
    if ((node->nodetype & (LYS_CHOICE | LYS_CASE)) == 0) {
      path.insert(path.begin(), ctl_step_t{node, {}});
    }
  }
  return path;
}

// Identities are offered without their module.
std::string as_offered(const lysc_node *leaf, const std::string &value)
{
  return type_of(leaf)->basetype == LY_TYPE_IDENT ? value.substr(value.find(':') + 1) : value;
}

std::string default_of(const lysc_node *node)
{
  const lysc_node_leaf *leaf = reinterpret_cast<const lysc_node_leaf *>(node);
  return node->nodetype == LYS_LEAF && leaf->dflt != nullptr ? lyd_value_get_canonical(node->module->ctx, leaf->dflt)
                                                             : "";
}

} // namespace

std::vector<std::string> ctl_find_type_values(ctl_device &device, const lysc_node *leaf, std::string_view prefix)
{
  std::vector<std::string> values;
  const lysc_type *type = type_of(leaf);
  if (type == nullptr) {
    return values;
  }
  add_enumerated(type, &values);
  std::erase_if(values, [&](const std::string &value) { return !value.starts_with(prefix); });
  if (type->basetype == LY_TYPE_LEAFREF) {
    const lysc_node *referred = find_referred(leaf, reinterpret_cast<const lysc_type_leafref *>(type));
    if (referred != nullptr) {
      std::vector<std::string> found = ctl_find_values(device, path_to(referred), prefix);
      values.insert(values.end(), found.begin(), found.end());
    }
  }
  return values;
}

std::vector<ctl_candidate_t> ctl_complete_value(ctl_device &device, const std::string &text, std::string_view word)
{
  ctl_path_t path;
  if (ctl_parse_path(device, text, &path) != CTL_OK || path.empty() || type_of(path.back().schema) == nullptr) {
    return {};
  }
  const lysc_node *leaf = path.back().schema;
  std::vector<std::string> values = ctl_find_type_values(device, leaf, word);
  // What is there now is offered, too: it may be what one wants to change a little. A secret is not shown.
  std::string now;
  if (leaf->nodetype == LYS_LEAF && !ctl_names_secret(text)) {
    std::vector<std::string> found = ctl_find_candidate_values(device, path);
    now = found.size() == 1 ? as_offered(leaf, found.front()) : "";
  }
  const std::string usual = as_offered(leaf, default_of(leaf));
  for (const std::string &value : {now, usual}) {
    if (!value.empty() && value.starts_with(word) && std::find(values.begin(), values.end(), value) == values.end()) {
      values.push_back(value);
    }
  }
  std::vector<ctl_candidate_t> candidates;
  for (const std::string &value : values) {
    const char *hint = value == now ? " (now)" : value == usual ? " (default)" : "";
    candidates.push_back({value, value + hint, true});
  }
  return candidates;
}
