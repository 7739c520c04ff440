#include "ymgrd/datastore/constraint_index.h"

#include <algorithm>
#include <memory>

#include <libyang/plugins_exts.h>
#include <libyang/plugins_types.h>

#include "ymgrd/datastore/xpath_scan.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

struct ly_set_delete_t {
  void operator()(ly_set *set) const { ly_set_free(set, nullptr); }
};
using ly_set_ptr = std::unique_ptr<ly_set, ly_set_delete_t>;

bool is_data(const lysc_node *schema)
{
  return schema->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST | LYS_ANYDATA);
}

bool is_inner(const lysc_node *schema)
{
  return schema->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_ANYDATA);
}

bool is_plain_container(const lysc_node *schema)
{
  return schema->nodetype == LYS_CONTAINER && !(schema->flags & LYS_PRESENCE);
}

bool has_default(const lysc_node *schema)
{
  if (schema->nodetype == LYS_LEAF) {
    return reinterpret_cast<const lysc_node_leaf *>(schema)->dflt != nullptr;
  }
  return schema->nodetype == LYS_LEAFLIST && reinterpret_cast<const lysc_node_leaflist *>(schema)->dflts != nullptr;
}

uint32_t min_elements(const lysc_node *schema)
{
  if (schema->nodetype == LYS_LIST) {
    return reinterpret_cast<const lysc_node_list *>(schema)->min;
  }
  return schema->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(schema)->min : 0;
}

const lysc_type *type_of(const lysc_node *schema)
{
  if (schema->nodetype == LYS_LEAF) {
    return reinterpret_cast<const lysc_node_leaf *>(schema)->type;
  }
  return schema->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(schema)->type : nullptr;
}

void add_once(std::vector<const lysc_node *> *nodes, const lysc_node *node)
{
  if (std::find(nodes->begin(), nodes->end(), node) == nodes->end()) {
    nodes->push_back(node);
  }
}

// Data nodes below `schema`, without itself.
void add_descendants(const lysc_node *schema, std::vector<const lysc_node *> *nodes)
{
  for (const lysc_node *child = lysc_node_child(schema); child != nullptr; child = child->next) {
    if (is_data(child)) {
      add_once(nodes, child);
    }
    add_descendants(child, nodes);
  }
}

// An expression as it stands in the compiled schema.
typedef struct _expression {
  const lyxp_expr *compiled;
  const lysc_prefix *prefixes;
  const lysc_node *context; // null: the root
  const lys_module *module;
} expression_t;

// A node that an expression looks at, and how far from the context node: `ascent` levels up, or anywhere.
typedef struct _sight {
  const lysc_node *node;
  bool anywhere;
  int ascent;
} sight_t;

typedef struct _analysis {
  bool understood = false;
  xpath_scan_t scan;
  std::vector<sight_t> sights;
  std::vector<const lysc_node *> implied;
} analysis_t;

bool names(const xpath_path_t &path, const char *name)
{
  return path.any_step || std::find(path.names.begin(), path.names.end(), name) != path.names.end();
}

bool is_named_by(const xpath_scan_t &scan, const lysc_node *node)
{
  return std::any_of(scan.paths.begin(), scan.paths.end(),
                     [node](const xpath_path_t &path) { return names(path, node->name); });
}

// The levels between the context node and its ancestor `node`; -1 when it is none.
int levels_up(const lysc_node *context, const lysc_node *node)
{
  int levels = 0;
  for (const lysc_node *up = context; up != nullptr; up = lysc_data_parent(up), levels++) {
    if (up == node) {
      return levels;
    }
  }
  return -1;
}

// How far from the context node the paths go that step through a node of this name. What no path names is reached by
// steps upwards, so it is an ancestor of the context node; or through a reference, and then every path counts.
sight_t sight_of(const lysc_node *node, const lysc_node *context, const xpath_scan_t &scan)
{
  sight_t sight{node, false, 0};
  bool is_named = is_named_by(scan, node);
  int levels = levels_up(context, node);
  if (!is_named && !scan.has_deref && levels >= 0) {
    sight.ascent = levels;
    return sight;
  }
  for (const xpath_path_t &path : scan.paths) {
    if (!is_named || names(path, node->name)) {
      sight.anywhere = sight.anywhere || path.anywhere;
      sight.ascent = std::max(sight.ascent, path.ascent);
    }
  }
  return sight;
}

// Whether a path may end at `node`. One that ends nowhere by name may end anywhere.
bool may_end_at(const xpath_path_t &path, const lysc_node *node, const lysc_node *context)
{
  if (path.ends_at_context) {
    return node == context;
  }
  return path.last.empty() || path.last == node->name;
}

std::vector<const lysc_node *> atoms_of(const expression_t &expression, bool *ret_found)
{
  ly_set *found = nullptr;
  LY_ERR result = lys_find_expr_atoms(expression.context, expression.module, expression.compiled, expression.prefixes,
                                      LYS_FIND_XP_SCHEMA, &found);
  ly_set_ptr owner(found);
  std::vector<const lysc_node *> atoms;
  for (uint32_t i = 0; result == LY_SUCCESS && found != nullptr && i < found->count; i++) {
    if (is_data(found->snodes[i])) {
      add_once(&atoms, found->snodes[i]);
    }
  }
  *ret_found = result == LY_SUCCESS;
  return atoms;
}

// deref() follows a reference: the nodes that decide where it leads count too. Of instance-identifiers they are not
// known.
bool add_reference_atoms(std::vector<const lysc_node *> *atoms)
{
  std::vector<const lysc_node *> referring = *atoms;
  for (const lysc_node *atom : referring) {
    const lysc_type *type = type_of(atom);
    if (type == nullptr) {
      continue;
    }
    if (type->basetype == LY_TYPE_INST || type->basetype == LY_TYPE_UNION) {
      return false;
    }
    if (type->basetype == LY_TYPE_LEAFREF) {
      const auto *reference = reinterpret_cast<const lysc_type_leafref *>(type);
      bool found = false;
      for (const lysc_node *each : atoms_of({reference->path, reference->prefixes, atom, atom->module}, &found)) {
        add_once(atoms, each);
      }
      if (!found) {
        return false;
      }
    }
  }
  return true;
}

// Whether the node is there whenever the expression is evaluated: the context node, what is above it.
bool is_surely_there(const lysc_node *node, const expression_t &expression, const xpath_scan_t &scan)
{
  return !is_named_by(scan, node) && !scan.has_deref && levels_up(expression.context, node) >= 0;
}

void add_sight(const expression_t &expression, const lysc_node *atom, analysis_t *analysis)
{
  sight_t sight = sight_of(atom, expression.context, analysis->scan);
  analysis->sights.push_back(sight);
  bool may_be_implied = !is_surely_there(atom, expression, analysis->scan);
  if (has_default(atom) && may_be_implied) {
    add_once(&analysis->implied, atom);
  }
  for (const xpath_path_t &path : analysis->scan.paths) {
    if (!may_end_at(path, atom, expression.context)) {
      continue;
    }
    if (is_plain_container(atom) && may_be_implied) {
      add_once(&analysis->implied, atom);
    }
    if (!path.existence && is_inner(atom)) { // the value of an inner node is the text of all below it
      std::vector<const lysc_node *> below;
      add_descendants(atom, &below);
      for (const lysc_node *each : below) {
        analysis->sights.push_back({each, sight.anywhere, sight.ascent});
        add_once(&analysis->implied, each);
      }
    }
  }
}

analysis_t analyse(const expression_t &expression)
{
  analysis_t analysis;
  analysis.scan = xpath_scan(lyxp_get_expr(expression.compiled));
  if (!analysis.scan.understood) {
    return analysis;
  }
  bool found = false;
  std::vector<const lysc_node *> atoms = atoms_of(expression, &found);
  if (!found || (analysis.scan.has_deref && !add_reference_atoms(&atoms))) {
    return analysis;
  }
  if (expression.context != nullptr) {
    add_once(&atoms, expression.context);
  }
  for (const lysc_node *atom : atoms) {
    add_sight(expression, atom, &analysis);
  }
  analysis.understood = true;
  return analysis;
}

const lys_module *owner_of_tree(const lysc_node *schema)
{
  while (schema->parent != nullptr) {
    schema = schema->parent;
  }
  return schema->module;
}

bool is_conditional(const lysc_node *schema)
{
  while (schema != nullptr && lysc_node_when(schema) == nullptr) {
    schema = schema->parent;
  }
  return schema != nullptr;
}

// The ancestor `levels` above `schema`; null when it is the root.
const lysc_node *ancestor(const lysc_node *schema, int levels)
{
  while (levels > 0 && schema != nullptr) {
    schema = lysc_data_parent(schema);
    levels--;
  }
  return schema;
}

// Whether the node stands in configuration, not in an operation or notification.
bool is_config(const lysc_node *schema)
{
  const lysc_node *top = schema;
  while (top->parent != nullptr && !(top->nodetype & (LYS_RPC | LYS_ACTION | LYS_NOTIF))) {
    top = top->parent;
  }
  return (schema->flags & LYS_CONFIG_W) != 0 && !(top->nodetype & (LYS_RPC | LYS_ACTION | LYS_NOTIF));
}

const lysc_node *region_of(const sight_t &sight, const lysc_node *context)
{
  return sight.anywhere ? nullptr : ancestor(context, sight.ascent);
}

bool is_checked_by_libyang_only(const lysc_node *schema)
{
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(schema->exts, i)
  {
    const lysc_ext *definition = schema->exts[i].def;
    if (definition != nullptr && definition->plugin != nullptr && definition->plugin->validate != nullptr) {
      return true;
    }
  }
  return false;
}

} // namespace

bool constraint_is_implied(const lysc_node *schema)
{
  if (!(schema->flags & LYS_CONFIG_W)) {
    return false;
  }
  if (is_plain_container(schema) || has_default(schema)) {
    return true;
  }
  if (!(schema->nodetype & (LYS_CHOICE | LYS_CASE))) {
    return false;
  }
  for (const lysc_node *child = lysc_node_child(schema); child != nullptr; child = child->next) {
    if (constraint_is_implied(child)) {
      return true;
    }
  }
  return false;
}

bool constraint_counts_when_absent(const lysc_node *schema)
{
  if (!(schema->flags & LYS_CONFIG_W)) {
    return false;
  }
  bool may_be_mandatory = schema->nodetype & (LYS_LEAF | LYS_CHOICE | LYS_ANYDATA);
  if ((may_be_mandatory && (schema->flags & LYS_MAND_TRUE)) || min_elements(schema) > 0) {
    return true;
  }
  // Every choice: its cases exclude each other.
  return schema->nodetype & (LYS_CHOICE | LYS_CASE) || constraint_is_implied(schema);
}

class constraint_builder {
public:
  explicit constraint_builder(constraint_index *index) : index_(index) {}

  void add_module(const lys_module *module)
  {
    std::vector<const lysc_node *> *level = &index_->top_levels_[module];
    for (const lysc_node *node = module->compiled->data; node != nullptr; node = node->next) {
      if (constraint_counts_when_absent(node)) {
        level->push_back(node);
      }
      add_node(node);
    }
  }

  // To be called when all modules are added.
  void add_secret(const lysc_node *leaf)
  {
    const node_rules_t &known = index_->rules(leaf);
    bool is_looked_at = !known.uniques.empty();
    for (const constraint_look_t &look : known.looks) {
      if (look.constraint->condition != nullptr) {
        index_->secret_looks_[look.constraint->condition].push_back({leaf, look.region});
        is_looked_at = true;
      }
    }
    for (const constraint_t *constraint : index_->anywhere_) {
      if (constraint->condition != nullptr) {
        index_->secret_looks_[constraint->condition].push_back({leaf, nullptr});
        is_looked_at = true;
      }
    }
    if (is_looked_at) {
      index_->secrets_.push_back(leaf);
    }
  }

private:
  node_rules_t *rules(const lysc_node *schema) { return &index_->rules_[schema]; }

  void add_node(const lysc_node *schema)
  {
    if (!(schema->flags & LYS_CONFIG_W)) {
      rules(schema)->is_foreign = true; // state is refused: there is no way for it into these data
      return;
    }
    add_musts(schema);
    add_whens(schema);
    if (type_of(schema) != nullptr) {
      add_value(schema);
    }
    if (schema->nodetype == LYS_LIST) {
      add_uniques(reinterpret_cast<const lysc_node_list *>(schema));
    }
    if (is_checked_by_libyang_only(schema)) {
      rules(schema)->is_foreign = true;
    }
    for (const lysc_node *child = lysc_node_child(schema); child != nullptr; child = child->next) {
      if (constraint_counts_when_absent(child)) {
        rules(schema)->level.push_back(child);
      }
      add_node(child);
    }
  }

  constraint_t *make(constraint_kind_t kind, const lysc_node *schema)
  {
    auto made = std::make_unique<constraint_t>();
    made->kind = kind;
    made->node = schema;
    index_->constraints_.push_back(std::move(made));
    return index_->constraints_.back().get();
  }

  void look_anywhere(constraint_t *constraint)
  {
    if (!constraint->looks_anywhere) {
      constraint->looks_anywhere = true;
      index_->anywhere_.push_back(constraint);
    }
  }

  void add_look(const lysc_node *at, const constraint_t *constraint, const lysc_node *region, bool only_lost_values)
  {
    rules(at)->looks.push_back({constraint, region, only_lost_values});
  }

  void add_musts(const lysc_node *schema)
  {
    const lysc_must *musts = lysc_node_musts(schema);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(musts, i)
    {
      constraint_t *constraint = make(CONSTRAINT_MUST, schema);
      constraint->condition = musts[i].cond;
      constraint->prefixes = musts[i].prefixes;
      rules(schema)->own.push_back(constraint);
      add_condition(constraint, {musts[i].cond, musts[i].prefixes, schema, schema->module}, schema);
    }
  }

  void add_whens(const lysc_node *schema)
  {
    lysc_when **whens = lysc_node_when(schema);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(whens, i)
    {
      constraint_t *constraint = make(CONSTRAINT_WHEN, schema);
      constraint->condition = whens[i]->cond;
      constraint->prefixes = whens[i]->prefixes;
      constraint->on_parent = whens[i]->context != schema;
      own_when(schema, constraint);
      add_condition(constraint, {whens[i]->cond, whens[i]->prefixes, whens[i]->context, schema->module},
                    lysc_data_parent(schema));
    }
  }

  // A when of a choice or case holds for all data nodes in it.
  void own_when(const lysc_node *schema, const constraint_t *constraint)
  {
    rules(schema)->own.push_back(constraint);
    if (is_data(schema)) {
      return;
    }
    for (const lysc_node *child = lysc_node_child(schema); child != nullptr; child = child->next) {
      own_when(child, constraint);
    }
  }

  // `lowest`: what is evaluated lies at or below instances of it, so no smaller region makes sense.
  void add_condition(constraint_t *constraint, const expression_t &expression, const lysc_node *lowest)
  {
    analysis_t analysis = analyse(expression);
    if (!analysis.understood) {
      look_anywhere(constraint);
      return;
    }
    constraint->implied = std::move(analysis.implied);
    for (const sight_t &sight : analysis.sights) {
      if (is_conditional(sight.node) && owner_of_tree(sight.node) != owner_of_tree(constraint->node)) {
        constraint->needs_libyang = true;
      }
      const lysc_node *region = region_of(sight, expression.context);
      bool is_below = region != nullptr && lowest != region && lysc_data_parent(region) == lowest;
      add_look(sight.node, constraint, is_below ? lowest : region, false);
    }
  }

  void add_value(const lysc_node *schema)
  {
    constraint_t *constraint = nullptr;
    add_type(schema, type_of(schema), &constraint);
    rules(schema)->value = constraint;
  }

  constraint_t *value_constraint(const lysc_node *schema, constraint_t **constraint)
  {
    if (*constraint == nullptr) {
      *constraint = make(CONSTRAINT_VALUE, schema);
    }
    return *constraint;
  }

  void add_type(const lysc_node *schema, const lysc_type *type, constraint_t **constraint)
  {
    switch (type->basetype) {
    case LY_TYPE_LEAFREF:
      if (reinterpret_cast<const lysc_type_leafref *>(type)->require_instance) {
        add_leafref(schema, reinterpret_cast<const lysc_type_leafref *>(type), value_constraint(schema, constraint));
      }
      break;
    case LY_TYPE_INST:
      if (reinterpret_cast<const lysc_type_instanceid *>(type)->require_instance) {
        constraint_t *made = value_constraint(schema, constraint);
        if (std::find(index_->instance_identifiers_.begin(), index_->instance_identifiers_.end(), made) ==
            index_->instance_identifiers_.end()) {
          index_->instance_identifiers_.push_back(made);
        }
      }
      break;
    case LY_TYPE_UNION:
      add_union(schema, reinterpret_cast<const lysc_type_union *>(type), constraint);
      break;
    default:
      if (type->plugin != nullptr && type->plugin->validate != nullptr) {
        rules(schema)->is_foreign = true;
      }
    }
  }

  void add_union(const lysc_node *schema, const lysc_type_union *type, constraint_t **constraint)
  {
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(type->types, i)
    {
      add_type(schema, type->types[i], constraint);
    }
  }

  void add_leafref(const lysc_node *schema, const lysc_type_leafref *type, constraint_t *constraint)
  {
    analysis_t analysis = analyse({type->path, type->prefixes, schema, schema->module});
    if (!analysis.understood) {
      look_anywhere(constraint);
      return;
    }
    const sight_t *target = nullptr;
    int leafs = 0;
    for (const sight_t &sight : analysis.sights) {
      if (type_of(sight.node) != nullptr && sight.node != schema) {
        target = &sight;
        leafs++;
      }
    }
    bool is_plain =
        !analysis.scan.has_predicate && !analysis.scan.has_deref && analysis.scan.paths.size() == 1 && leafs == 1;
    if (!is_plain) {
      for (const sight_t &sight : analysis.sights) {
        add_look(sight.node, constraint, region_of(sight, schema), false);
      }
      return;
    }
    const lysc_node *region = region_of(*target, schema);
    add_look(target->node, constraint, region, true);
    const lysc_type *real = type_of(target->node);
    if (type_of(schema)->basetype == LY_TYPE_LEAFREF && real->basetype != LY_TYPE_UNION && !lysc_is_key(target->node) &&
        type->realtype->basetype != LY_TYPE_UNION) {
      constraint->target = target->node;
      constraint->target_region = region;
    }
  }

  void add_uniques(const lysc_node_list *list)
  {
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(list->uniques, i)
    {
      unique_rule_t rule{list, list->uniques[i]};
      rules(&list->node)->uniques.push_back(rule);
      LY_ARRAY_COUNT_TYPE j;
      LY_ARRAY_FOR(rule.leafs, j)
      {
        rules(&rule.leafs[j]->node)->uniques.push_back(rule);
      }
    }
  }

  constraint_index *index_;
};

constraint_index::constraint_index(const ly_ctx *ctx)
{
  quiet_libyang quiet; // about names in expressions that are not there it spoke when it loaded the modules
  constraint_builder builder(this);
  uint32_t at = 0;
  while (const lys_module *module = ly_ctx_get_module_iter(ctx, &at)) {
    if (module->implemented && module->compiled != nullptr) {
      builder.add_module(module);
    }
  }
  for (const lysc_node *leaf : schema_sensitive_leaves()) {
    if (is_config(leaf)) {
      builder.add_secret(leaf);
    }
  }
}

const std::vector<secret_look_t> &constraint_index::secrets(const lyxp_expr *condition) const
{
  static const std::vector<secret_look_t> none;
  if (secret_looks_.empty()) {
    return none;
  }
  auto found = secret_looks_.find(condition);
  return found == secret_looks_.end() ? none : found->second;
}

const node_rules_t &constraint_index::rules(const lysc_node *schema) const
{
  static const node_rules_t none;
  auto found = rules_.find(schema);
  return found == rules_.end() ? none : found->second;
}

const std::vector<const lysc_node *> &constraint_index::top_level(const lys_module *module) const
{
  static const std::vector<const lysc_node *> none;
  auto found = top_levels_.find(module);
  return found == top_levels_.end() ? none : found->second;
}
