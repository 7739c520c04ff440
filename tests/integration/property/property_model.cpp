#include "property_model.h"

#include <algorithm>
#include <stdexcept>

namespace property {

namespace {

const lysc_node_list *as_list(const lysc_node *node)
{
  return reinterpret_cast<const lysc_node_list *>(node);
}

const lysc_node_leaf *as_leaf(const lysc_node *node)
{
  return reinterpret_cast<const lysc_node_leaf *>(node);
}

node_t make_node(const lysc_node *schema, const std::string &value)
{
  node_t node;
  node.schema = schema;
  node.value = value;
  return node;
}

std::string quoted(const std::string &value)
{
  std::string text = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') {
      text += '\\';
    }
    text += c;
  }
  return text + "\"";
}

// Whether the choice or case `above` stands between the node and its data parent.
bool is_within(const lysc_node *node, const lysc_node *above)
{
  for (const lysc_node *up = node->parent; up != nullptr && (up->nodetype & (LYS_CHOICE | LYS_CASE)); up = up->parent) {
    if (up == above) {
      return true;
    }
  }
  return false;
}

bool has_any(const node_t &parent, const lysc_node *choice_or_case)
{
  return std::any_of(parent.children.begin(), parent.children.end(),
                     [&](const node_t &child) { return is_within(child.schema, choice_or_case); });
}

const node_t *find_schema(const node_t &parent, const lysc_node *schema)
{
  auto found = std::find_if(parent.children.begin(), parent.children.end(),
                            [&](const node_t &child) { return child.schema == schema; });
  return found == parent.children.end() ? nullptr : &*found;
}

// --- Conditions and defaults.

bool condition_holds(const node_t &parent, const lysc_node *schema)
{
  return lysc_node_when(schema) == nullptr ||
         std::any_of(parent.children.begin(), parent.children.end(), [](const node_t &child) {
           return std::string_view(child.schema->name) == "banner" && child.value == "true";
         });
}

bool has_defaults(const lysc_node *level)
{
  for (const lysc_node *child = lysc_node_child(level); child != nullptr; child = child->next) {
    bool is_passed =
        child->nodetype == LYS_CONTAINER ? !(child->flags & LYS_PRESENCE) : child->nodetype & (LYS_CHOICE | LYS_CASE);
    if ((child->nodetype == LYS_LEAF && as_leaf(child)->dflt != nullptr) || (is_passed && has_defaults(child))) {
      return true;
    }
  }
  return false;
}

// Conditions are looked at when all else of an edit is done.
enum class conditional { left_out, filled };

void fill_level(node_t *parent, const lysc_node *level, conditional guarded);

void fill_choice(node_t *parent, const lysc_node *choice, conditional guarded)
{
  for (const lysc_node *each = lysc_node_child(choice); each != nullptr; each = each->next) {
    if (has_any(*parent, each)) {
      fill_level(parent, each, guarded);
      return;
    }
  }
  const lysc_node_case *preset = reinterpret_cast<const lysc_node_choice *>(choice)->dflt;
  if (preset != nullptr) {
    fill_level(parent, reinterpret_cast<const lysc_node *>(preset), guarded);
  }
}

void fill_level(node_t *parent, const lysc_node *level, conditional guarded)
{
  for (const lysc_node *child = lysc_node_child(level); child != nullptr; child = child->next) {
    if (child->nodetype == LYS_CHOICE) {
      fill_choice(parent, child, guarded);
    } else if (find_schema(*parent, child) != nullptr || !condition_holds(*parent, child) ||
               (guarded == conditional::left_out && lysc_node_when(child) != nullptr)) {
      continue;
    } else if (child->nodetype == LYS_LEAF && as_leaf(child)->dflt != nullptr) {
      const char *value = lyd_value_get_canonical(child->module->ctx, as_leaf(child)->dflt);
      parent->children.push_back(make_node(child, value));
    } else if (child->nodetype == LYS_CONTAINER && !(child->flags & LYS_PRESENCE) && has_defaults(child)) {
      parent->children.push_back(make_node(child, ""));
    }
  }
}

// Defaults are data wherever their parent is.
void fill(node_t *node, conditional guarded)
{
  if (is_inner(node->schema)) {
    fill_level(node, node->schema, guarded);
    for (node_t &child : node->children) {
      fill(&child, guarded);
    }
  }
}

// --- Edits.

class edit {
public:
  const std::string &refusal() const { return refusal_; }

  bool apply_children(node_t *data, const node_t &config, const std::string &operation)
  {
    if (operation == "replace") {
      std::erase_if(data->children,
                    [&](const node_t &child) { return !is_key(child.schema) && find(&config, child) == nullptr; });
    }
    for (const node_t &child : config.children) {
      if (!apply_node(data, child, operation)) {
        return false;
      }
      if (operation == "replace" && lysc_is_userordered(child.schema) && find(data, child) != nullptr) {
        move_to(data, child, data->children.size()); // the document's order is the new one
      }
    }
    return true;
  }

private:
  bool refuse(const char *tag)
  {
    refusal_ = tag;
    return false;
  }

  static bool is_open(const std::string &operation) { return operation == "none" || operation == "merge"; }

  // The operation that holds for a node; empty when its own and that above it contradict each other.
  static std::string resolve(const node_t &config, const std::string &inherited)
  {
    if (config.operation.empty() || config.operation == inherited) {
      return inherited;
    }
    if (is_open(inherited)) {
      return is_key(config.schema) && config.operation != "merge" ? "" : config.operation;
    }
    return config.operation == "merge" ? inherited : "";
  }

  static bool agrees_below(const node_t &config, const std::string &operation)
  {
    return std::all_of(config.children.begin(), config.children.end(), [&](const node_t &child) {
      std::string own = resolve(child, operation);
      return !own.empty() && agrees_below(child, own);
    });
  }

  bool apply_node(node_t *parent, const node_t &config, const std::string &inherited)
  {
    std::string operation = resolve(config, inherited);
    if (operation.empty()) {
      return refuse("operation-failed");
    }
    if (is_key(config.schema)) {
      return true;
    }
    if (operation == "delete" || operation == "remove") {
      return apply_removal(parent, config, operation);
    }
    if (operation == "none") {
      node_t *found = find(parent, config);
      return found == nullptr ? refuse("data-missing") : apply_below(found, config, operation);
    }
    for (const lysc_node *up = config.schema->parent; up != nullptr && up->nodetype == LYS_CASE;
         up = up->parent->parent) {
      std::erase_if(parent->children, [up](const node_t &child) {
        return is_within(child.schema, up->parent) && !is_within(child.schema, up);
      });
    }
    return find(parent, config) == nullptr ? add(parent, config, operation) : change(parent, config, operation);
  }

  // A node that the document names again meets the defaults of the first time.
  bool apply_below(node_t *node, const node_t &config, const std::string &operation)
  {
    bool is_done = apply_children(node, config, operation);
    fill(node, conditional::left_out);
    return is_done;
  }

  bool apply_removal(node_t *parent, const node_t &config, const std::string &operation)
  {
    if (!agrees_below(config, operation)) {
      return refuse("operation-failed");
    }
    node_t *found = find(parent, config);
    if (found == nullptr) {
      return operation == "remove" || refuse("data-missing");
    }
    parent->children.erase(parent->children.begin() + (found - parent->children.data()));
    return true;
  }

  bool add(node_t *parent, const node_t &config, const std::string &operation)
  {
    node_t made = make_node(config.schema, config.value);
    std::copy_if(config.children.begin(), config.children.end(), std::back_inserter(made.children),
                 [](const node_t &child) { return is_key(child.schema); });
    for (node_t &key : made.children) {
      key = make_node(key.schema, key.value);
    }
    if (!config.reference.empty() && find_reference(parent, config) == nullptr) {
      return refuse("bad-attribute");
    }
    parent->children.push_back(std::move(made));
    return place(parent, config) && apply_below(find(parent, config), config, operation);
  }

  bool change(node_t *parent, const node_t &config, const std::string &operation)
  {
    if (operation == "create") {
      return refuse("data-exists");
    }
    node_t *found = find(parent, config);
    found->value = config.value;
    return apply_below(found, config, operation) && place(parent, config);
  }

  // --- Order: an entry stands where its insert says (RFC 7950, 7.8.6), else where it stood, a new one behind the
  // others.

  static node_t *find_reference(node_t *parent, const node_t &config)
  {
    auto found = std::find_if(parent->children.begin(), parent->children.end(), [&](const node_t &child) {
      return child.schema == config.schema && predicate(child) == config.reference;
    });
    return found == parent->children.end() ? nullptr : &*found;
  }

  static void move_to(node_t *parent, const node_t &config, size_t index)
  {
    auto first = parent->children.begin();
    auto from = first + (find(parent, config) - parent->children.data());
    auto to = first + static_cast<ptrdiff_t>(index);
    if (to > from) {
      std::rotate(from, from + 1, to);
    } else {
      std::rotate(to, from, from + 1);
    }
  }

  bool place(node_t *parent, const node_t &config)
  {
    auto first = std::find_if(parent->children.begin(), parent->children.end(),
                              [&](const node_t &child) { return child.schema == config.schema; });
    if (config.insert == "first") {
      move_to(parent, config, static_cast<size_t>(first - parent->children.begin()));
    } else if (config.insert == "last") {
      move_to(parent, config, parent->children.size());
    } else if (!config.insert.empty()) {
      node_t *reference = find_reference(parent, config);
      if (reference == nullptr) {
        return refuse("bad-attribute");
      }
      if (reference != find(parent, config)) {
        size_t index = static_cast<size_t>(reference - parent->children.data());
        move_to(parent, config, config.insert == "after" ? index + 1 : index);
      }
    }
    return true;
  }

  std::string refusal_;
};

// --- Constraints.

class validation {
public:
  explicit validation(const node_t &root) : root_(root) { check_below(root); }
  const std::set<std::string> &tags() const { return tags_; }

private:
  void check_below(const node_t &parent)
  {
    for (const node_t &child : parent.children) {
      if (!condition_holds(parent, child.schema)) {
        tags_.insert("unknown-element");
      }
      if (child.schema->nodetype == LYS_LEAF && as_leaf(child.schema)->type->basetype == LY_TYPE_LEAFREF) {
        check_reference(child.value);
      }
      if (is_entry(child.schema)) {
        check_entry(parent, child);
      }
      check_below(child);
    }
    for (const lysc_node *each = parent.schema == nullptr ? nullptr : lysc_node_child(parent.schema); each != nullptr;
         each = each->next) {
      if (each->nodetype == LYS_LEAF && (each->flags & LYS_MAND_TRUE) && find_schema(parent, each) == nullptr) {
        tags_.insert("data-missing");
      }
    }
  }

  void check_reference(const std::string &name)
  {
    for (const node_t &top : root_.children) {
      for (const node_t &child : top.children) {
        if (std::string_view(child.schema->name) == "item" && child.children.front().value == name) {
          return;
        }
      }
    }
    tags_.insert("data-missing");
  }

  void check_entry(const node_t &parent, const node_t &entry)
  {
    auto count = std::count_if(parent.children.begin(), parent.children.end(),
                               [&](const node_t &child) { return child.schema == entry.schema; });
    uint32_t most = entry.schema->nodetype == LYS_LIST
                        ? as_list(entry.schema)->max
                        : reinterpret_cast<const lysc_node_leaflist *>(entry.schema)->max;
    bool is_twin = false;
    for (const node_t &other : parent.children) {
      is_twin = is_twin || (other.schema == entry.schema && &other != &entry && shares_unique(entry, other));
    }
    if (is_twin || (most != 0 && count > static_cast<ptrdiff_t>(most))) {
      tags_.insert("operation-failed");
    }
  }

  static bool shares_unique(const node_t &entry, const node_t &other)
  {
    lysc_node_leaf ***uniques = entry.schema->nodetype == LYS_LIST ? as_list(entry.schema)->uniques : nullptr;
    if (uniques == nullptr) {
      return false;
    }
    const auto *leaf = reinterpret_cast<const lysc_node *>(uniques[0][0]); // one unique of one leaf
    const node_t *value = find_schema(entry, leaf);
    const node_t *other_value = find_schema(other, leaf);
    return value != nullptr && other_value != nullptr && value->value == other_value->value;
  }

  const node_t &root_;
  std::set<std::string> tags_;
};

} // namespace

schema::schema(const std::string &dir)
{
  ly_ctx *ctx = nullptr;
  if (ly_ctx_new(dir.c_str(), LY_CTX_NO_YANGLIBRARY, &ctx) != LY_SUCCESS) {
    throw std::runtime_error("no context for " + dir);
  }
  ctx_.reset(ctx);
  module_ = ly_ctx_load_module(ctx, MODULE, nullptr, nullptr);
  if (module_ == nullptr || ly_ctx_load_module(ctx, AUGMENTING_MODULE, nullptr, nullptr) == nullptr) {
    throw std::runtime_error("modules do not load");
  }
}

std::vector<const lysc_node *> schema::children(const lysc_node *parent) const
{
  std::vector<const lysc_node *> nodes;
  const lysc_node *node = nullptr;
  while ((node = lys_getnext(node, parent, parent == nullptr ? module_->compiled : nullptr, 0)) != nullptr) {
    nodes.push_back(node);
  }
  return nodes;
}

bool is_inner(const lysc_node *node)
{
  return node->nodetype & (LYS_CONTAINER | LYS_LIST);
}

bool is_entry(const lysc_node *node)
{
  return node->nodetype & (LYS_LIST | LYS_LEAFLIST);
}

bool is_key(const lysc_node *node)
{
  return lysc_is_key(node);
}

std::string predicate(const node_t &entry)
{
  if (entry.schema->nodetype == LYS_LEAFLIST) {
    return ".=" + quoted(entry.value);
  }
  std::string text;
  for (const node_t &child : entry.children) {
    if (is_key(child.schema)) {
      text += (text.empty() ? "" : ",") + std::string(child.schema->name) + "=" + quoted(child.value);
    }
  }
  return text;
}

bool is_same(const node_t &node, const node_t &other)
{
  bool is_unlike = node.schema != other.schema || (node.schema->nodetype == LYS_LEAFLIST && node.value != other.value);
  for (size_t i = 0; !is_unlike && node.schema->nodetype == LYS_LIST && is_key(node.children[i].schema); i++) {
    is_unlike = node.children[i].value != other.children[i].value;
    if (i + 1 == node.children.size()) {
      break;
    }
  }
  return !is_unlike;
}

const node_t *find(const node_t *parent, const node_t &like)
{
  auto found = std::find_if(parent->children.begin(), parent->children.end(),
                            [&](const node_t &child) { return is_same(child, like); });
  return found == parent->children.end() ? nullptr : &*found;
}

node_t *find(node_t *parent, const node_t &like)
{
  return const_cast<node_t *>(find(static_cast<const node_t *>(parent), like));
}

std::set<std::string> apply(node_t *data, const node_t &config, const std::string &default_operation)
{
  edit one;
  if (!one.apply_children(data, config, default_operation)) {
    return {one.refusal()};
  }
  for (node_t &top : data->children) {
    fill(&top, conditional::filled);
  }
  return validation(*data).tags();
}

} // namespace property
