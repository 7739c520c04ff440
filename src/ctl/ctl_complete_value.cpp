// Values of leaves, from their types and from the data.
#include <algorithm>
#include <map>

#include "ctl/ctl_complete_path.h"
#include "ctl/ctl_shell_history.h"
#include "ctl/ctl_value.h"

namespace {

const lysc_type *type_of(const lysc_node *node)
{
  return node->nodetype == LYS_LEAF       ? reinterpret_cast<const lysc_node_leaf *>(node)->type
         : node->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(node)->type
                                          : nullptr;
}

// What the type itself enumerates. Identities without their module, but where two have one name.
std::vector<std::string> enumerated(const lysc_node *leaf)
{
  std::vector<std::string> names = ctl_value_names(leaf);
  if (type_of(leaf)->basetype != LY_TYPE_IDENT) {
    return names;
  }
  auto plain = [](const std::string &name) { return name.substr(name.find(':') + 1); };
  std::map<std::string, int> counts;
  for (const std::string &name : names) {
    counts[plain(name)]++;
  }
  for (std::string &name : names) {
    name = counts[plain(name)] > 1 ? name : plain(name);
  }
  return names;
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
  const lysc_type *type = type_of(leaf);
  if (type == nullptr) {
    return {};
  }
  std::vector<std::string> values = enumerated(leaf);
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
