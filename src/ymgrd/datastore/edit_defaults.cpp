// Schema defaults become data: below a node that was edited, every leaf that has a default and no value is created with
// it, also in non-presence containers and in the chosen or default cases of choices.
#include <unordered_map>
#include <unordered_set>

#include "ymgrd/core/log.h"
#include "ymgrd/datastore/absent_node.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/edit_internal.h"

namespace {

bool has_when(const lysc_node *schema)
{
  return lysc_node_when(schema) != nullptr;
}

bool is_presence(const lysc_node *container)
{
  return container->flags & LYS_PRESENCE;
}

const lysc_node *default_case(const lysc_node *choice)
{
  return reinterpret_cast<const lysc_node *>(reinterpret_cast<const lysc_node_choice *>(choice)->dflt);
}

bool has_defaults_below(const lysc_node *parent);

bool is_or_has_default(const lysc_node *node)
{
  if (!(node->flags & LYS_CONFIG_W)) {
    return false;
  }
  switch (node->nodetype) {
  case LYS_LEAF:
    return reinterpret_cast<const lysc_node_leaf *>(node)->dflt != nullptr;
  case LYS_CONTAINER:
    return !is_presence(node) && has_defaults_below(node);
  case LYS_CHOICE:
  case LYS_CASE:
    return has_defaults_below(node);
  default:
    return false;
  }
}

// Asked for every edited node: most list entries have no defaults at all.
bool has_defaults_below(const lysc_node *parent)
{
  static std::unordered_map<const lysc_node *, bool> known; // the schema does not change while the daemon runs
  auto found = known.find(parent);
  if (found != known.end()) {
    return found->second;
  }
  bool any = false;
  for (const lysc_node *child = lysc_node_child(parent); child != nullptr && !any; child = child->next) {
    any = is_or_has_default(child);
  }
  known.emplace(parent, any);
  return any;
}

bool case_has_data(const edit_job_t *job, const lyd_node *parent, const lysc_node *choice_case)
{
  for (const lysc_node *node = lysc_node_child(choice_case); node != nullptr; node = node->next) {
    if (node->nodetype == LYS_CHOICE) {
      for (const lysc_node *each = lysc_node_child(node); each != nullptr; each = each->next) {
        if (case_has_data(job, parent, each)) {
          return true;
        }
      }
    } else if (edit_find_schema(job, parent, node) != nullptr) {
      return true;
    }
  }
  return false;
}

int fill_level(edit_job_t *job, const edit_place_t &place, const lysc_node *level, differ_list *diff);

int fill_leaf(edit_job_t *job, const edit_place_t &place, const lysc_node *leaf, differ_list *diff)
{
  if (edit_find_schema(job, place.parent, leaf) != nullptr) {
    return 0;
  }
  size_t parent_length = place.key->size();
  dbkey_append_name(place.key, leaf);
  const lyd_node *node = edit_insert_default(job, place, leaf);
  differ_ptr made = node == nullptr ? nullptr : edit_diff(place, DBDIFF_ADD, leaf, node, nullptr);
  place.key->resize(parent_length);
  if (made == nullptr) {
    return -1;
  }
  diff->append(made.release());
  return 0;
}

int fill_container(edit_job_t *job, const edit_place_t &place, const lysc_node *container, differ_list *diff)
{
  lyd_node *node = edit_find_schema(job, place.parent, container);
  ENUM_ACTION action = node == nullptr ? DBDIFF_ADD : DBDIFF_CHAIN;
  size_t parent_length = place.key->size();
  dbkey_append_name(place.key, container);
  if (node == nullptr) {
    node = edit_insert_default(job, place, container);
  }
  differ_list below;
  int result = node == nullptr ? -1 : fill_level(job, {node, place.key}, container, &below);
  differ_ptr made;
  if (result == 0 && (action == DBDIFF_ADD || below.first() != nullptr)) {
    made = edit_diff(place, action, container, node, nullptr);
    result = made == nullptr ? -1 : 0;
  }
  place.key->resize(parent_length);
  if (result != 0) {
    return -1;
  }
  if (made != nullptr) {
    below.attach_to(made.get());
    diff->append(made.release());
  }
  return 0;
}

int fill_later(edit_job_t *job, const edit_place_t &place, const lysc_node *node)
{
  job->conditional_defaults.emplace_back(place.parent, node);
  return 0;
}

int fill_choice(edit_job_t *job, const edit_place_t &place, const lysc_node *choice, differ_list *diff)
{
  for (const lysc_node *each = lysc_node_child(choice); each != nullptr; each = each->next) {
    if (case_has_data(job, place.parent, each)) {
      return has_when(each) ? fill_later(job, place, each) : fill_level(job, place, each, diff);
    }
  }
  const lysc_node *preset = default_case(choice);
  if (preset == nullptr) {
    return 0;
  }
  return has_when(preset) ? fill_later(job, place, preset) : fill_level(job, place, preset, diff);
}

int fill_node(edit_job_t *job, const edit_place_t &place, const lysc_node *node, differ_list *diff)
{
  switch (node->nodetype) {
  case LYS_LEAF:
    return fill_leaf(job, place, node, diff);
  case LYS_CONTAINER:
    return fill_container(job, place, node, diff);
  default:
    return fill_choice(job, place, node, diff);
  }
}

int fill_level(edit_job_t *job, const edit_place_t &place, const lysc_node *level, differ_list *diff)
{
  if (!has_defaults_below(level)) {
    return 0;
  }
  for (const lysc_node *node = lysc_node_child(level); node != nullptr; node = node->next) {
    if (!is_or_has_default(node)) {
      continue;
    }
    if ((has_when(node) ? fill_later(job, place, node) : fill_node(job, place, node, diff)) != 0) {
      return -1;
    }
  }
  return 0;
}

// --- Defaults that depend on a when.

// Stores an implicit node and the implicit containers above it; the diff of all is merged into `*tree`.
int store_implicit(edit_job_t *job, lyd_node *node, differ_node_t **tree)
{
  std::vector<lyd_node *> way;
  for (lyd_node *up = node; up != nullptr; up = lyd_parent(up)) {
    way.insert(way.begin(), up);
  }
  differ_ptr top;
  differ_node_t *above = nullptr;
  std::string key;
  for (lyd_node *step : way) {
    dbkey_append(&key, step);
    edit_place_t place{lyd_parent(step), &key};
    bool implicit = step->flags & LYD_DEFAULT;
    if (implicit) {
      job->changes.created(step);
    }
    if (implicit && edit_write(job, place, step, nullptr, 0) != 0) {
      return -1;
    }
    step->flags &= ~static_cast<uint32_t>(LYD_DEFAULT);
    differ_ptr diff = edit_diff(place, implicit ? DBDIFF_ADD : DBDIFF_CHAIN, step->schema, step, nullptr);
    if (diff == nullptr) {
      return -1;
    }
    differ_node_t *made = diff.get();
    if (above == nullptr) {
      top = std::move(diff);
    } else {
      differ_node_add_child(above, nullptr, diff.release());
    }
    above = made;
  }
  differ_node_t *later = top.release();
  differ_tree_merge(tree, &later, 0);
  return 0;
}

int store_implicit_leaf(edit_job_t *job, const lyd_node *top, const lyd_node *created, differ_node_t **tree)
{
  c_string_ptr path(lyd_path(created, LYD_PATH_STD, nullptr, 0));
  lyd_node *leaf = nullptr;
  if (path == nullptr || lyd_find_path(top, path.get(), 0, &leaf) != LY_SUCCESS) {
    return -1;
  }
  return store_implicit(job, leaf, tree);
}

int store_implicit_leafs(edit_job_t *job, const lyd_node *top, const lyd_node *created, differ_node_t **tree)
{
  for (const lyd_node *root = created; root != nullptr; root = root->next) {
    const lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      bool is_default = node->schema->nodetype == LYS_LEAF && !lysc_is_key(node->schema);
      if (is_default && store_implicit_leaf(job, top, node, tree) != 0) {
        log_error("create default node %.512s lyd fail.", node->schema->name);
        return -1;
      }
      LYD_TREE_DFS_END(root, node);
    }
  }
  return 0;
}

bool is_any_missing(const edit_job_t *job, lyd_node *parent, const lysc_node *level);

// Whether a default at or below `node` is missing that no when rules out.
bool is_missing(const edit_job_t *job, lyd_node *parent, const lysc_node *node)
{
  lyd_node *instance = node->nodetype & (LYS_LEAF | LYS_CONTAINER) ? edit_find_schema(job, parent, node) : nullptr;
  if (instance != nullptr) {
    return node->nodetype == LYS_CONTAINER && is_any_missing(job, instance, node);
  }
  if (has_when(node) && absent_node_is_ruled_out(parent, node)) {
    return false;
  }
  if (node->nodetype == LYS_CASE) {
    return is_any_missing(job, parent, node);
  }
  if (node->nodetype != LYS_CHOICE) {
    return true;
  }
  for (const lysc_node *each = lysc_node_child(node); each != nullptr; each = each->next) {
    if (case_has_data(job, parent, each)) {
      return is_missing(job, parent, each);
    }
  }
  const lysc_node *preset = default_case(node);
  return preset != nullptr && is_missing(job, parent, preset);
}

bool is_any_missing(const edit_job_t *job, lyd_node *parent, const lysc_node *level)
{
  for (const lysc_node *node = lysc_node_child(level); node != nullptr; node = node->next) {
    if (is_or_has_default(node) && is_missing(job, parent, node)) {
      return true;
    }
  }
  return false;
}

// The top nodes below which libyang is to create defaults: it walks all that is there.
std::unordered_set<lyd_node *> incomplete_tops(const edit_job_t *job)
{
  std::unordered_set<lyd_node *> tops;
  for (const auto &[parent, node] : job->conditional_defaults) {
    lyd_node *top = parent;
    while (lyd_parent(top) != nullptr) {
      top = lyd_parent(top);
    }
    if (!tops.contains(top) && job->changes.is_live(parent) && is_missing(job, parent, node)) {
      tops.insert(top);
    }
  }
  return tops;
}

int fill_conditional_below(edit_job_t *job, lyd_node *top, differ_node_t **tree)
{
  lyd_tree_ptr created;
  if (ds_add_implicit(top, &created) != 0 || store_implicit_leafs(job, top, created.get(), tree) != 0) {
    return -1;
  }
  ds_drop_implicit(&job->data, created.get()); // what is not stored: leaf-list defaults, containers that nothing needed
  return 0;
}

} // namespace

int edit_fill_default(edit_job_t *job, const edit_place_t &place, differ_list *diff)
{
  return fill_level(job, place, place.parent->schema, diff);
}

int edit_fill_conditional_defaults(edit_job_t *job, differ_node_t **tree)
{
  std::unordered_set<lyd_node *> tops = incomplete_tops(job);
  if (tops.empty()) {
    return 0;
  }
  for (lyd_node *top = job->data.get(); top != nullptr; top = top->next) {
    if (tops.contains(top) && fill_conditional_below(job, top, tree) != 0) {
      return -1;
    }
  }
  return 0;
}
