#include <algorithm>
#include <vector>

#include "libconf/plugin_path.h"
#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/schema/schema.h"

namespace {

typedef std::vector<const lysc_node *> schema_nodes;

constexpr uint16_t CHOICE_OR_CASE = LYS_CHOICE | LYS_CASE;

// The nodes called `name` among the siblings from `node` on, and in the choices and cases there. The children of all
// cases of a choice may be linked to each other: only their parents tell them apart.
void collect_named(const lysc_node *node, std::string_view name, schema_nodes *found)
{
  const lysc_node *parent = node == nullptr ? nullptr : node->parent;
  for (; node != nullptr && node->parent == parent; node = node->next) {
    if (name == node->name) {
      found->push_back(node);
    }
    if ((node->nodetype & CHOICE_OR_CASE) != 0) {
      collect_named(lysc_node_child(node), name, found);
    }
  }
}

schema_nodes top_nodes(const lys_module *module, std::string_view name)
{
  schema_nodes found;
  if (module->compiled != nullptr) {
    collect_named(module->compiled->data, name, &found);
    const lysc_node_action *rpcs = module->compiled->rpcs;
    collect_named(rpcs == nullptr ? nullptr : &rpcs->node, name, &found);
  }
  return found;
}

// A name may be that of a choice, of a case in it and of a node in that at once: what follows tells which is meant.
schema_nodes children(const schema_nodes &parents, std::string_view name)
{
  schema_nodes found;
  for (const lysc_node *parent : parents) {
    collect_named(lysc_node_child(parent), name, &found);
  }
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  return found;
}

void keep_module(schema_nodes *nodes, const lys_module *module)
{
  std::erase_if(*nodes, [module](const lysc_node *node) { return node->module != module; });
}

// A name without its module is looked for in the parent's module first. False when it is that of nodes of several
// others.
bool resolve_module(schema_nodes *nodes, const schema_nodes &parents)
{
  auto is_as_parents = [&](const lysc_node *node) {
    return std::any_of(parents.begin(), parents.end(),
                       [node](const lysc_node *parent) { return parent->module == node->module; });
  };
  if (std::any_of(nodes->begin(), nodes->end(), is_as_parents)) {
    std::erase_if(*nodes, [&](const lysc_node *node) { return !is_as_parents(node); });
    return true;
  }
  return std::all_of(nodes->begin(), nodes->end(),
                     [&](const lysc_node *node) { return node->module == nodes->front()->module; });
}

size_t depth_of(const lysc_node *node)
{
  size_t depth = 0;
  for (; node != nullptr; node = node->parent) {
    depth++;
  }
  return depth;
}

// Data nodes before choices and cases, and of these the outer one.
bool is_preferred(const lysc_node *node, const lysc_node *other)
{
  bool is_data = (node->nodetype & CHOICE_OR_CASE) == 0;
  bool is_other_data = (other->nodetype & CHOICE_OR_CASE) == 0;
  return is_data != is_other_data ? is_data : depth_of(node) < depth_of(other);
}

// One step further on the way to the node.
class path_walk {
public:
  explicit path_walk(const ly_ctx *ctx) : ctx_(ctx) {}

  // False with the fault in `*ret_fault`.
  bool go(std::string_view step, std::string *ret_fault)
  {
    size_t colon = step.find(':');
    bool has_module = colon != std::string_view::npos;
    std::string_view name = has_module ? step.substr(colon + 1) : step;
    const lys_module *module = nullptr;
    if (has_module) {
      std::string module_name(step.substr(0, colon));
      module = ly_ctx_get_module_implemented(ctx_, module_name.c_str());
      if (module == nullptr) {
        *ret_fault = "there is no module " + module_name;
        return false;
      }
    } else if (last_step_.empty()) {
      *ret_fault = "the first name needs its module";
      return false;
    }
    schema_nodes found = last_step_.empty() ? top_nodes(module, name) : children(nodes_, name);
    if (has_module) {
      keep_module(&found, module);
    } else if (!resolve_module(&found, nodes_)) {
      *ret_fault = "several modules have put a " + std::string(name) + " there, its module is needed";
      return false;
    }
    if (found.empty()) {
      *ret_fault = (last_step_.empty() ? "module " + std::string(module->name) : last_step_) + " has no child ";
      *ret_fault += last_step_.empty() ? name : step;
      return false;
    }
    nodes_ = std::move(found);
    last_step_ = step;
    return true;
  }

  const lysc_node *result() const { return *std::min_element(nodes_.begin(), nodes_.end(), is_preferred); }

private:
  const ly_ctx *ctx_;
  schema_nodes nodes_;
  std::string last_step_;
};

} // namespace

const lysc_node *dbkey_find_path(const ly_ctx *ctx, std::string_view path, std::string *ret_error)
{
  auto steps = plugin_path_steps(path);
  if (!steps || steps->empty()) {
    *ret_error = std::string(path) + ": this is no path of a node";
    return nullptr;
  }
  path_walk walk(ctx);
  for (const plugin_path_step_t &step : *steps) {
    std::string fault;
    if (!walk.go(step.name, &fault)) {
      std::string_view up_to_step =
          path.substr(0, static_cast<size_t>(step.name.data() - path.data()) + step.name.size());
      *ret_error = std::string(up_to_step) + ": " + fault;
      return nullptr;
    }
  }
  return walk.result();
}

const lysc_node *dbkey_find_path(std::string_view path, std::string *ret_error)
{
  return dbkey_find_path(schema_ctx(), path, ret_error);
}
