#include "ymgrd/datastore/ds_filter_plan.h"

#include <algorithm>
#include <limits>
#include <list>
#include <memory>
#include <unordered_map>

#include "ymgrd/database/database_element.h"
#include "ymgrd/datastore/dbkey.h"

namespace {

// Reads of the database for one request; beyond that, what they have in common is read as a whole.
constexpr size_t MAX_REMOTE_READS = 64;
// Entries of a user-ordered list whose positions are looked up, each at the cost of a walk along the list.
constexpr size_t MAX_POSITIONS = 64;

struct plan_node_t {
  ds_step_t step;     // of the root: none
  bool whole = false; // read with all below; else only `children`
  std::vector<std::unique_ptr<plan_node_t>> children;
  std::unordered_map<std::string, plan_node_t *> index; // of `children`, by their key below this node

  plan_node_t *child(const lysc_node *schema, std::vector<std::string> keys);
};

plan_node_t *plan_node_t::child(const lysc_node *schema, std::vector<std::string> keys)
{
  ds_step_t wanted{schema, std::move(keys)};
  std::string key = ds_path_key({&wanted});
  auto known = index.find(key);
  if (known != index.end()) {
    return known->second;
  }
  auto made = std::make_unique<plan_node_t>();
  made->step = std::move(wanted);
  plan_node_t *node = made.get();
  index.emplace(std::move(key), node);
  children.push_back(std::move(made));
  return node;
}

// --- From filter to plan

bool is_content_match(const lyxml_elem *elem)
{
  return lyxml_first_child(elem) == nullptr && !lyxml_is_blank(lyxml_text(elem));
}

const lyxml_elem *first_match(const lyxml_elem *parent, const lysc_node *key, const lysc_node *list)
{
  for (const lyxml_elem *elem = lyxml_first_child(parent); elem != nullptr; elem = lyxml_next(elem)) {
    if (is_content_match(elem) && ds_filter_schema(elem, {list}) == ds_schema_nodes{key}) {
      return elem;
    }
  }
  return nullptr;
}

// The keys of the entry that the filter names by all of them; none when it does not.
std::vector<std::string> entry_keys(const lyxml_elem *elem, const lysc_node *list)
{
  std::vector<std::string> keys;
  for (const lysc_node *key = lysc_node_child(list); key != nullptr && lysc_is_key(key); key = key->next) {
    const lyxml_elem *match = first_match(elem, key, list);
    std::string value = match == nullptr ? std::string() : std::string(nc_clrwspace(lyxml_text(match)));
    bool is_instance_identifier = reinterpret_cast<const lysc_node_leaf *>(key)->type->basetype == LY_TYPE_INST;
    if (match == nullptr || is_instance_identifier || !ds_can_be_key(value)) {
      return {};
    }
    keys.push_back(std::move(value));
  }
  return keys;
}

class planner {
public:
  // `schemas`: of the parent element; empty for <filter>.
  void plan_siblings(const lyxml_elem *parent, const ds_schema_nodes &schemas, plan_node_t *node)
  {
    size_t named_keys = 0;
    bool any = false; // but content match nodes
    for (const lyxml_elem *elem = lyxml_first_child(parent); elem != nullptr; elem = lyxml_next(elem)) {
      ds_schema_nodes nodes = ds_filter_schema(elem, schemas);
      is_exact_ = is_exact_ && elem->properties == nullptr;
      if (!is_content_match(elem)) {
        any = true;
        for (const lysc_node *schema : nodes) {
          plan_element(elem, schema, nodes.size() == 1, node);
        }
      } else if (node->step.is_entry() && nodes.size() == 1 && lysc_is_key(nodes.front())) {
        named_keys++;
      } else {
        take_whole(node); // what it is compared with may be any of the siblings
        return;
      }
    }
    is_exact_ = is_exact_ && named_keys == node->step.keys.size(); // else a key is wanted to have two values
    node->whole = node->whole || !any;                             // nothing but its keys: all of the entry
  }

  // Whether the plan reads nothing but what the filter selects.
  bool is_exact() const { return is_exact_; }

private:
  void take_whole(plan_node_t *node)
  {
    node->whole = true;
    is_exact_ = false;
  }

  void plan_element(const lyxml_elem *elem, const lysc_node *schema, bool is_sure, plan_node_t *parent)
  {
    if (parent->step.is_entry() && lysc_is_key(schema)) {
      return; // an entry brings its keys
    }
    if (lyxml_first_child(elem) == nullptr) {
      parent->child(schema, {})->whole = true;
      return;
    }
    bool is_list = schema->nodetype == LYS_LIST;
    std::vector<std::string> keys = is_sure && is_list ? entry_keys(elem, schema) : std::vector<std::string>();
    plan_node_t *node = parent->child(schema, std::move(keys));
    if (node->step.is_entry() || (is_sure && schema->nodetype == LYS_CONTAINER)) {
      plan_siblings(elem, {schema}, node);
    } else {
      take_whole(node);
    }
  }

  bool is_exact_ = true;
};

// --- Fewer and larger reads

// Entries of a list that is read as a whole by itself.
void drop_covered(plan_node_t *node)
{
  std::vector<const lysc_node *> whole_lists;
  for (const auto &child : node->children) {
    if (child->whole && !child->step.is_entry() && child->step.schema->nodetype == LYS_LIST) {
      whole_lists.push_back(child->step.schema);
    }
  }
  std::erase_if(node->children, [&](const std::unique_ptr<plan_node_t> &child) {
    return child->step.is_entry() &&
           std::find(whole_lists.begin(), whole_lists.end(), child->step.schema) != whole_lists.end();
  });
}

struct group_t {
  size_t entries = 0;
  size_t reads = 0;
};

// The reads that are left. `*ret_is_changed` is set when more is read than was planned.
size_t simplify(plan_node_t *node, size_t limit, bool *ret_is_changed)
{
  if (node->whole) {
    return 1;
  }
  drop_covered(node);
  size_t total = node->step.is_entry() ? 1 : 0; // whether it is there
  std::unordered_map<const lysc_node *, group_t> groups;
  for (const auto &child : node->children) {
    size_t reads = simplify(child.get(), limit, ret_is_changed);
    total += reads;
    if (child->step.is_entry()) {
      groups[child->step.schema].entries++;
      groups[child->step.schema].reads += reads;
    }
  }
  for (const auto &[list, group] : groups) {
    bool is_ordered = lysc_is_userordered(list);
    if (group.reads > limit || (is_ordered && group.entries > MAX_POSITIONS)) {
      node->child(list, {})->whole = true;
      *ret_is_changed = true;
      total -= group.reads - 1;
    }
  }
  drop_covered(node);
  if (total <= limit) {
    return total;
  }
  node->whole = true;
  *ret_is_changed = true;
  return 1;
}

// --- From plan to text

class plan_reader {
public:
  plan_reader(const ds_source &source, wiped_string *text) : source_(source), text_(text) {}

  // The node at the end of the path.
  int read(plan_node_t *node)
  {
    if (node->whole) {
      return source_.read_text(path_, text_);
    }
    if (path_.empty()) {
      return read_children(node);
    }
    bool is_there = true;
    if (node->step.is_entry() && source_.has_entry(path_, &is_there) != 0) {
      return -1;
    }
    if (!is_there) {
      return 0;
    }
    std::string name;
    size_t begin = text_->size();
    if (ds_append_opening(path_, text_, &name) != 0) {
      return -1;
    }
    size_t content = text_->size();
    if (read_children(node) != 0) {
      return -1;
    }
    if (text_->size() == content && !node->step.is_entry()) {
      text_->resize(begin); // nothing below is there: not selected
    } else {
      db_add_etag(name, text_);
    }
    return 0;
  }

private:
  int read_children(plan_node_t *node)
  {
    if (order_entries(node) != 0) {
      return -1;
    }
    for (const auto &child : node->children) {
      path_.push_back(&child->step);
      int result = read(child.get());
      path_.pop_back();
      if (result != 0) {
        return -1;
      }
    }
    return 0;
  }

  // Entries of user-ordered lists come in the order of their list, whatever the order in the filter.
  int order_entries(plan_node_t *node)
  {
    std::unordered_map<const lysc_node *, size_t> entries;
    for (const auto &child : node->children) {
      entries[child->step.schema] += child->step.is_entry() && lysc_is_userordered(child->step.schema) ? 1 : 0;
    }
    for (const auto &[list, count] : entries) {
      if (count > 1 && order_entries_of(node, list) != 0) {
        return -1;
      }
    }
    return 0;
  }

  int order_entries_of(plan_node_t *node, const lysc_node *list)
  {
    std::vector<std::pair<int, std::unique_ptr<plan_node_t>>> placed;
    for (auto &child : node->children) {
      if (child->step.schema != list) {
        continue;
      }
      path_.push_back(&child->step);
      int index = 0;
      int result = source_.index_of(path_, &index);
      path_.pop_back();
      if (result != 0) {
        return -1;
      }
      placed.emplace_back(index, std::move(child));
    }
    std::sort(placed.begin(), placed.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    auto next = placed.begin();
    for (auto &child : node->children) {
      if (child == nullptr) {
        child = std::move((next++)->second);
      }
    }
    return 0;
  }

  const ds_source &source_;
  wiped_string *text_;
  ds_path_t path_;
};

} // namespace

int ds_filter_read(const ds_source &source, const nc_filter_t &filter, wiped_string *text, bool *ret_is_answer)
{
  plan_node_t root;
  planner plan;
  plan.plan_siblings(filter.subtree_filter.get(), {}, &root);
  bool is_changed = false;
  (void)simplify(&root, source.is_remote() ? MAX_REMOTE_READS : std::numeric_limits<size_t>::max(), &is_changed);
  if (plan_reader(source, text).read(&root) != 0) {
    return -1;
  }
  *ret_is_answer = plan.is_exact() && !is_changed;
  return 0;
}
