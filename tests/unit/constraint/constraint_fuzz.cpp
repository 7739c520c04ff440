#include "unit/constraint/constraint_fuzz.h"

#include <cstdlib>
#include <functional>

#include "ymgrd/datastore/datastore_internal.h"

namespace {

// Whether the choice or case `above` stands over the node.
bool is_below(const lysc_node *node, const lysc_node *above)
{
  while (node != nullptr && node != above) {
    node = node->parent;
  }
  return node != nullptr;
}

std::string path_of(const lyd_node *node)
{
  c_string_ptr path(lyd_path(node, LYD_PATH_STD, nullptr, 0));
  return path == nullptr ? "?" : path.get();
}

std::vector<lyd_node *> all_nodes(lyd_node *first)
{
  std::vector<lyd_node *> nodes;
  for (lyd_node *root = first; root != nullptr; root = root->next) {
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(root, node)
    {
      nodes.push_back(node);
      LYD_TREE_DFS_END(root, node);
    }
  }
  return nodes;
}

bool is_created(const lyd_node *change)
{
  for (const lyd_node *node = change; node != nullptr; node = lyd_parent(node)) {
    if (const lyd_meta *meta = lyd_find_meta(node->meta, nullptr, "yang:operation")) {
      return std::string(lyd_get_meta_value(meta)) == "create";
    }
  }
  return false;
}

constexpr size_t SMALLEST_TREE = 27; // a tree that was edited down to less says little

lyd_tree_ptr copy_of(const lyd_node *tree)
{
  lyd_node *copy = nullptr;
  (void)lyd_dup_siblings(tree, nullptr, LYD_DUP_RECURSIVE, &copy);
  return lyd_tree_ptr(copy);
}

std::string text_of(const lyd_node *tree)
{
  char *text = nullptr;
  if (lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_KEEPEMPTYCONT) != LY_SUCCESS) {
    return {};
  }
  c_string_ptr owner(text);
  return text == nullptr ? "" : text;
}

} // namespace

constraint_fuzz::constraint_fuzz(const ly_ctx *ctx, uint32_t seed, bool stores_defaults)
    : ctx_(ctx), index_(ctx), random_(seed), stores_defaults_(stores_defaults)
{
}

fuzz_counts_t constraint_fuzz::run(int rounds)
{
  quiet_libyang quiet;
  fuzz_counts_t counts;
  for (int round = 0; round < rounds && counts.fault.empty(); round++) {
    if (all_nodes(tree_.get()).size() < SMALLEST_TREE && !one_in(10)) {
      plant();
      continue;
    }
    std::string before = text_of(tree_.get());
    story_.clear();
    edit_changes changes;
    changes.begin(tree_.get());
    bool was_valid_before = changes.was_empty() || changes.stamp() != 0; // an empty tree is, without stamp
    for (uint32_t steps = 1 + below(3); steps > 0; steps--) {
      step(&changes);
    }
    if (stores_defaults_ && !one_in(4)) {
      store_defaults(&changes);
    }
    bool is_accepted = was_valid_before && constraint_check(index_, tree_.get(), changes, &implied_);
    implied_nodes_t implied;
    std::string error = validate_all(&implied);
    std::string fault = error.empty() ? "" : "libyang: " + error;
    for (const lysc_node *node : implied) {
      fault += implied_.contains(node) ? "" : "not known to be implied: " + std::string(node->name);
    }
    if (is_accepted && !fault.empty()) {
      counts.fault = "before: " + before + "\nedit:" + story_ + "\nafter: " + text_of(tree_.get()) + "\n" + fault;
    }
    counts.valid += error.empty() ? 1 : 0;
    counts.refused += error.empty() ? 0 : 1;
    counts.undecided += error.empty() && !is_accepted ? 1 : 0;
    if (error.empty() && !is_accepted) {
      implied_ = std::move(implied);
    }
    if (!error.empty() && (!changes.undo(&tree_) || text_of(tree_.get()) != before)) {
      counts.fault += "before: " + before + "\nundone:" + story_ + "\nafter: " + text_of(tree_.get());
    }
    edit_stamp_tree(tree_.get());
  }
  return counts;
}

// Back to the tree to start from.
void constraint_fuzz::plant()
{
  lyd_node *tree = nullptr;
  const char *file = one_in(2) ? CONSTRAINT_MODULES "/sparse.xml" : CONSTRAINT_MODULES "/seed.xml";
  (void)lyd_parse_data_path(ctx_, file, LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree);
  tree_.reset(tree);
  implied_.clear();
  std::string error = validate_all(&implied_);
  if (tree == nullptr || !error.empty()) {
    std::abort(); // nothing would be tested
  }
  edit_stamp_tree(tree_.get());
}

// The error of libyang; empty when the tree is valid.
std::string constraint_fuzz::validate_all(implied_nodes_t *implied)
{
  if (tree_ == nullptr) {
    return {};
  }
  lyd_node *copy = copy_of(tree_.get()).release();
  uint32_t options = ly_log_options(LY_LOSTORE_LAST);
  lyd_node *changes = nullptr;
  LY_ERR result = lyd_validate_all(&copy, ctx_, LYD_VALIDATE_NO_STATE | LYD_VALIDATE_PRESENT, &changes);
  ly_log_options(options);
  lyd_tree_ptr owner(copy);
  lyd_tree_ptr changes_owner(changes);
  if (result != LY_SUCCESS) {
    const char *message = ly_errmsg(ctx_);
    return message == nullptr ? "refused" : message;
  }
  for (const lyd_node *node : all_nodes(changes)) {
    if (is_created(node)) {
      implied->insert(node->schema);
    }
  }
  return {};
}

void constraint_fuzz::step(edit_changes *changes)
{
  lyd_node *node = pick();
  uint32_t what = below(10);
  if (node == nullptr || what < 5) {
    if (node != nullptr && (node->schema->nodetype & LYD_NODE_TERM)) {
      node = lyd_parent(node);
    }
    const std::vector<const lysc_node *> all = children(node == nullptr || one_in(20) ? nullptr : node->schema);
    const lysc_node *schema = all[below(static_cast<uint32_t>(all.size()))];
    create(changes, lysc_data_parent(schema) == nullptr ? nullptr : node, schema, 0);
  } else if (what < 7) {
    bool is_small = node->schema->nodetype & LYD_NODE_TERM || one_in(6);
    if (!lysc_is_key(node->schema) && is_small) {
      remove(changes, node);
    }
  } else if (what < 9) {
    if (node->schema->nodetype == LYS_LEAF && !lysc_is_key(node->schema)) {
      std::string value = value_for(node->schema);
      story_ += " value " + path_of(node) + "=" + value;
      changes->value_changes(node);
      (void)lyd_change_term(node, value.c_str()); // a value of no type is no change
    } else {
      fill(changes, node, 0);
    }
  } else if (lysc_is_userordered(node->schema)) {
    move(changes, node);
  }
}

lyd_node *constraint_fuzz::pick()
{
  std::vector<lyd_node *> nodes = all_nodes(tree_.get());
  return nodes.empty() ? nullptr : nodes[below(static_cast<uint32_t>(nodes.size()))];
}

std::vector<const lysc_node *> constraint_fuzz::children(const lysc_node *parent) const
{
  std::vector<const lysc_node *> all;
  for (const char *module : {"rich", "more"}) {
    const lysc_module *top = ly_ctx_get_module_implemented(ctx_, module)->compiled;
    for (const lysc_node *node = nullptr; (node = lys_getnext(node, parent, parent == nullptr ? top : nullptr, 0));) {
      all.push_back(node);
    }
    if (parent != nullptr) {
      break;
    }
  }
  return all;
}

std::string constraint_fuzz::value_for(const lysc_node *schema)
{
  static const std::vector<std::string> words = {"a", "b", "c", "d", "e", "n"};
  static const std::vector<std::string> paths = {"/rich:net/limit", "/rich:net/interface[name='a']",
                                                 "/rich:net/interface[name='b']/stats/tag[.='a']",
                                                 "/rich:groups/group[id='1'][sub='a']"};
  const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(schema)->type;
  if (type->basetype == LY_TYPE_LEAFREF) {
    type = reinterpret_cast<const lysc_type_leafref *>(type)->realtype;
  }
  switch (type->basetype) {
  case LY_TYPE_UINT8:
    return std::to_string(1 + below(5));
  case LY_TYPE_BOOL:
    return one_in(4) ? "false" : "true";
  case LY_TYPE_EMPTY:
    return "";
  case LY_TYPE_ENUM: {
    const lysc_type_bitenum_item *enums = reinterpret_cast<const lysc_type_enum *>(type)->enums;
    return enums[below(static_cast<uint32_t>(LY_ARRAY_COUNT(enums)))].name;
  }
  case LY_TYPE_INST:
    return paths[below(static_cast<uint32_t>(paths.size()))];
  case LY_TYPE_UNION:
    return one_in(3) ? "all" : one_in(2) ? std::to_string(1 + below(3)) : words[below(3)];
  default:
    return words[below(static_cast<uint32_t>(words.size()))];
  }
}

std::string constraint_fuzz::list_keys(const lysc_node *list)
{
  std::string keys;
  for (const lysc_node *key = lysc_node_child(list); key != nullptr && lysc_is_key(key); key = key->next) {
    keys += "[" + std::string(key->name) + "='" + value_for(key) + "']";
  }
  return keys;
}

lyd_node *constraint_fuzz::link(lyd_node *parent, lyd_node *node)
{
  ds_mark_explicit(node); // also an empty container is data
  if (parent != nullptr) {
    lyd_insert_child(parent, node);
  } else {
    lyd_node *first = tree_.release();
    lyd_insert_sibling(first, node, &first);
    tree_.reset(first);
  }
  return node;
}

void constraint_fuzz::create(edit_changes *changes, lyd_node *parent, const lysc_node *schema, int depth)
{
  lyd_node *siblings = parent == nullptr ? tree_.get() : lyd_child(parent);
  lyd_node *made = nullptr;
  std::string text;
  if (lysc_is_key(schema)) {
    return;
  }
  if (schema->nodetype == LYS_LIST) {
    text = list_keys(schema);
    if (lyd_new_list2(nullptr, schema->module, schema->name, text.c_str(), 0, &made) != LY_SUCCESS) {
      return;
    }
  } else if (schema->nodetype == LYS_CONTAINER) {
    lyd_new_inner(nullptr, schema->module, schema->name, 0, &made);
  } else {
    text = value_for(schema);
    if (parent == nullptr) {
      (void)lyd_new_term(nullptr, schema->module, schema->name, text.c_str(), 0, &made);
    } else { // a term is made in its place only, and taken out of it again
      lyd_node *home = nullptr;
      lyd_dup_single(parent, nullptr, 0, &home);
      lyd_tree_ptr owner(home);
      (void)lyd_new_term(home, schema->module, schema->name, text.c_str(), 0, &made);
      if (made != nullptr) {
        lyd_unlink_tree(made);
      }
    }
  }
  if (made == nullptr) {
    return;
  }
  lyd_node *there = nullptr;
  bool is_many = schema->nodetype & (LYS_LIST | LYS_LEAFLIST);
  if (siblings != nullptr && (is_many ? lyd_find_sibling_first(siblings, made, &there)
                                      : lyd_find_sibling_val(siblings, schema, nullptr, 0, &there)) == LY_SUCCESS) {
    lyd_free_tree(made);
    return;
  }
  clear_other_cases(changes, parent, schema);
  link(parent, made);
  changes->created(made);
  story_ += " create " + path_of(made) + (schema->nodetype == LYS_LEAF ? "=" + text : "");
  if (!(schema->nodetype & LYD_NODE_TERM)) {
    fill(changes, made, depth + 1);
  }
}

// Some of the children of a node; the mandatory ones mostly.
void constraint_fuzz::fill(edit_changes *changes, lyd_node *parent, int depth)
{
  if (depth > 4 || !(parent->schema->nodetype & LYD_NODE_INNER)) {
    return;
  }
  for (const lysc_node *child : children(parent->schema)) {
    bool is_wanted = child->flags & LYS_MAND_TRUE || child->parent->nodetype == LYS_CASE;
    if (is_wanted ? !one_in(3) : one_in(4)) {
      create(changes, parent, child, depth);
    }
  }
}

void constraint_fuzz::remove(edit_changes *changes, lyd_node *node)
{
  story_ += " remove " + path_of(node);
  if (tree_.get() == node) {
    (void)tree_.release();
    tree_.reset(node->next);
  }
  changes->remove(node);
}

void constraint_fuzz::clear_other_cases(edit_changes *changes, lyd_node *parent, const lysc_node *schema)
{
  for (const lysc_node *chosen = schema->parent; chosen != nullptr && chosen->nodetype == LYS_CASE;
       chosen = chosen->parent->parent) {
    for (lyd_node *next = nullptr, *node = lyd_child(parent); node != nullptr; node = next) {
      next = node->next;
      if (is_below(node->schema, chosen->parent) && !is_below(node->schema, chosen)) {
        remove(changes, node);
      }
    }
  }
}

void constraint_fuzz::move(edit_changes *changes, lyd_node *entry)
{
  lyd_node *other = entry->prev;
  if (other == entry || other->schema != entry->schema || other->next == nullptr) {
    return;
  }
  story_ += " move " + path_of(entry);
  changes->moves(entry);
  lyd_insert_before(other, entry);
  tree_.reset(lyd_first_sibling(tree_.release()));
}

void constraint_fuzz::store_defaults(edit_changes *changes)
{
  for (lyd_node *top = tree_.get(); top != nullptr; top = top->next) {
    lyd_tree_ptr made;
    if (ds_add_implicit(top, &made) != 0) {
      std::abort();
    }
    for (lyd_node *node : all_nodes(made.get())) {
      std::string path = path_of(node);
      lyd_node *stored = nullptr;
      if (lyd_find_path(tree_.get(), path.c_str(), 0, &stored) == LY_SUCCESS && (stored->flags & LYD_DEFAULT)) {
        ds_mark_explicit(stored);
        changes->created(stored);
        story_ += " default " + path;
      }
    }
  }
}
