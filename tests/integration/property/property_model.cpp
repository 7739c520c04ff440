#include "property_model.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace property {

namespace {

// Whether the choice or case `above` stands between the node and its data parent.
bool is_within(const lysc_node *node, const lysc_node *above)
{
  const lysc_node *up = node->parent;
  while (up != nullptr && up != above && (up->nodetype & (LYS_CHOICE | LYS_CASE))) {
    up = up->parent;
  }
  return up == above;
}

bool has_any(const node_t &parent, const lysc_node *choice_case)
{
  return std::any_of(parent.children.begin(), parent.children.end(),
                     [&](const node_t &child) { return is_within(child.schema, choice_case); });
}

size_t position(const node_t &parent, const node_t &child)
{
  return static_cast<size_t>(find(parent, child) - parent.children.data());
}

// --- Conditions and defaults.

bool condition_holds(const node_t &parent, const lysc_node *schema)
{
  return lysc_node_when(schema) == nullptr ||
         std::any_of(parent.children.begin(), parent.children.end(), [](const node_t &child) {
           return std::string_view(child.schema->name) == "banner" && child.value == "true";
         });
}

bool is_transparent(const lysc_node *node) // a container that is there for what is in it
{
  return node->nodetype == LYS_CONTAINER && !(node->flags & LYS_PRESENCE);
}

bool has_defaults(const lysc_node *level)
{
  for (const lysc_node *child = lysc_node_child(level); child != nullptr; child = child->next) {
    bool is_passed = is_transparent(child) || (child->nodetype & (LYS_CHOICE | LYS_CASE));
    if (child->nodetype == LYS_LEAF ? as_leaf(child)->dflt != nullptr : is_passed && has_defaults(child)) {
      return true;
    }
  }
  return false;
}

// Conditions are looked at when all else of an edit is done.
enum class conditional { left_out, filled };

void fill_level(node_t *parent, const lysc_node *level, conditional guarded)
{
  for (const lysc_node *child = lysc_node_child(level); child != nullptr; child = child->next) {
    if (child->nodetype == LYS_CHOICE) {
      const auto *chosen = reinterpret_cast<const lysc_node *>(reinterpret_cast<const lysc_node_choice *>(child)->dflt);
      for (const lysc_node *each = lysc_node_child(child); each != nullptr; each = each->next) {
        chosen = has_any(*parent, each) ? each : chosen;
      }
      if (chosen != nullptr) {
        fill_level(parent, chosen, guarded);
      }
    } else if (!instances(*parent, child).empty() || !condition_holds(*parent, child) ||
               (guarded == conditional::left_out && lysc_node_when(child) != nullptr)) {
      continue;
    } else if (child->nodetype == LYS_LEAF && as_leaf(child)->dflt != nullptr) {
      parent->children.push_back({child, lyd_value_get_canonical(child->module->ctx, as_leaf(child)->dflt)});
    } else if (is_transparent(child) && has_defaults(child)) {
      parent->children.push_back({child});
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
                    [&](const node_t &child) { return !is_key(child.schema) && find(config, child) == nullptr; });
    }
    for (const node_t &child : config.children) {
      if (!apply_node(data, child, operation)) {
        return false;
      }
      if (operation == "replace" && lysc_is_userordered(child.schema) && find(*data, child) != nullptr) {
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

  // The operation that holds for a node; empty when its own and that above it contradict each other.
  static std::string resolve(const node_t &config, const std::string &inherited)
  {
    if (config.operation.empty() || config.operation == inherited) {
      return inherited;
    }
    if (inherited == "none" || inherited == "merge") {
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
    const std::string operation = resolve(config, inherited);
    if (is_key(config.schema) && !operation.empty()) {
      return true;
    }
    bool is_removal = operation == "delete" || operation == "remove";
    if (operation.empty() || (is_removal && !agrees_below(config, operation))) {
      return refuse("operation-failed");
    }
    if (!is_removal && operation != "none") {
      clear_other_cases(parent, config.schema);
    }
    bool exists = find(*parent, config) != nullptr;
    if (!exists && (operation == "delete" || operation == "none")) {
      return refuse("data-missing");
    }
    if (exists && operation == "create") {
      return refuse("data-exists");
    }
    if (is_removal) {
      std::erase_if(parent->children, [found = find(*parent, config)](const node_t &child) { return &child == found; });
      return true;
    }
    return exists ? change(parent, config, operation) : add(parent, config, operation);
  }

  static void clear_other_cases(node_t *parent, const lysc_node *schema)
  {
    for (const lysc_node *own = schema->parent; own != nullptr && own->nodetype == LYS_CASE;
         own = own->parent->parent) {
      std::erase_if(parent->children, [own](const node_t &child) {
        return is_within(child.schema, own->parent) && !is_within(child.schema, own);
      });
    }
  }

  bool add(node_t *parent, const node_t &config, const std::string &operation)
  {
    if (!config.reference.empty() && find_reference(*parent, config) == nullptr) {
      return refuse("bad-attribute");
    }
    node_t &made = parent->children.emplace_back(node_t{config.schema, config.value});
    for (const node_t &key : config.children) {
      if (is_key(key.schema)) {
        made.children.push_back({key.schema, key.value});
      }
    }
    return place(parent, config) && apply_below(parent, config, operation);
  }

  bool change(node_t *parent, const node_t &config, const std::string &operation)
  {
    if (operation == "none") {
      return apply_below(parent, config, operation);
    }
    parent->children[position(*parent, config)].value = config.value;
    return apply_below(parent, config, operation) && place(parent, config);
  }

  // A node that the document names again meets the defaults of the first time.
  bool apply_below(node_t *parent, const node_t &config, const std::string &operation)
  {
    node_t *node = &parent->children[position(*parent, config)];
    bool is_done = apply_children(node, config, operation);
    fill(node, conditional::left_out);
    return is_done;
  }

  // --- Order: an entry stands where its insert says (RFC 7950, 7.8.6), else where it stood, a new one behind the
  // others.

  static const node_t *find_reference(const node_t &parent, const node_t &config)
  {
    for (const node_t *entry : instances(parent, config.schema)) {
      if (predicate(*entry) == config.reference) {
        return entry;
      }
    }
    return nullptr;
  }

  static void move_to(node_t *parent, const node_t &config, size_t index)
  {
    auto from = parent->children.begin() + static_cast<ptrdiff_t>(position(*parent, config));
    auto to = parent->children.begin() + static_cast<ptrdiff_t>(index);
    to > from ? std::rotate(from, from + 1, to) : std::rotate(to, from, from + 1);
  }

  bool place(node_t *parent, const node_t &config)
  {
    if (config.insert == "first") {
      move_to(parent, config, position(*parent, *instances(*parent, config.schema).front()));
    } else if (config.insert == "last") {
      move_to(parent, config, parent->children.size());
    } else if (!config.insert.empty()) {
      const node_t *reference = find_reference(*parent, config);
      if (reference == nullptr) {
        return refuse("bad-attribute");
      }
      if (reference != find(*parent, config)) {
        move_to(parent, config, position(*parent, *reference) + (config.insert == "after" ? 1 : 0));
      }
    }
    return true;
  }

  std::string refusal_;
};

// --- Constraints.

bool has_twin(const node_t &entry, const std::vector<const node_t *> &all)
{
  if (entry.schema->nodetype != LYS_LIST ||
      reinterpret_cast<const lysc_node_list *>(entry.schema)->uniques == nullptr) {
    return false;
  }
  const lysc_node_leaf *unique = reinterpret_cast<const lysc_node_list *>(entry.schema)->uniques[0][0]; // the only one
  auto value_of = [unique](const node_t &each) {
    std::vector<const node_t *> leafs = instances(each, reinterpret_cast<const lysc_node *>(unique));
    return leafs.empty() ? "" : leafs.front()->value;
  };
  return std::any_of(all.begin(), all.end(), [&](const node_t *other) {
    return other != &entry && !value_of(entry).empty() && value_of(*other) == value_of(entry);
  });
}

void check_below(const node_t &parent, const std::set<std::string> &items, std::set<std::string> *tags)
{
  for (const node_t &child : parent.children) {
    const lysc_node *schema = child.schema;
    if (!condition_holds(parent, schema)) {
      tags->insert("unknown-element");
    }
    if (schema->nodetype == LYS_LEAF && as_leaf(schema)->type->basetype == LY_TYPE_LEAFREF &&
        !items.contains(child.value)) {
      tags->insert("data-missing");
    }
    uint32_t most = schema->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(schema)->max : 0;
    const std::vector<const node_t *> all = instances(parent, schema);
    if (has_twin(child, all) || (most != 0 && all.size() > most)) {
      tags->insert("operation-failed");
    }
    for (const lysc_node *each = lysc_node_child(schema); each != nullptr; each = each->next) {
      if (each->nodetype == LYS_LEAF && (each->flags & LYS_MAND_TRUE) && instances(child, each).empty()) {
        tags->insert("data-missing");
      }
    }
    check_below(child, items, tags);
  }
}

} // namespace

schema::schema(const std::string &dir)
{
  ly_ctx *ctx = nullptr;
  if (ly_ctx_new(dir.c_str(), LY_CTX_NO_YANGLIBRARY, &ctx) == LY_SUCCESS) {
    ctx_.reset(ctx);
    module_ = ly_ctx_load_module(ctx, MODULE, nullptr, nullptr);
  }
  if (module_ == nullptr || ly_ctx_load_module(ctx, AUGMENTING_MODULE, nullptr, nullptr) == nullptr) {
    throw std::runtime_error("modules of " + dir + " do not load");
  }
  collect_ordered(nullptr);
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

void schema::collect_ordered(const lysc_node *parent)
{
  for (const lysc_node *child : children(parent)) {
    if (lysc_is_userordered(child)) {
      ordered_.insert(child->name);
    }
    collect_ordered(child);
  }
}

std::string predicate(const node_t &entry)
{
  auto quoted = [](const std::string &value) {
    std::string text;
    for (char c : value) {
      text.append(c == '"' || c == '\\' ? "\\" : "").append(1, c);
    }
    return "\"" + text + "\"";
  };
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

const node_t *find(const node_t &parent, const node_t &like)
{
  for (const node_t &child : parent.children) {
    bool is_it = child.schema == like.schema && (like.schema->nodetype != LYS_LEAFLIST || child.value == like.value);
    for (size_t i = 0; is_it && i < like.children.size() && is_key(like.children[i].schema); i++) {
      is_it = child.children[i].value == like.children[i].value;
    }
    if (is_it) {
      return &child;
    }
  }
  return nullptr;
}

std::vector<const node_t *> instances(const node_t &parent, const lysc_node *schema)
{
  std::vector<const node_t *> all;
  for (const node_t &child : parent.children) {
    if (child.schema == schema) {
      all.push_back(&child);
    }
  }
  return all;
}

std::set<std::string> item_names(const node_t &root)
{
  std::set<std::string> names;
  for (const node_t &top : root.children) {
    for (const node_t &child : top.children) {
      if (std::string_view(child.schema->name) == "item") {
        names.insert(child.children.front().value);
      }
    }
  }
  return names;
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
  std::set<std::string> tags;
  check_below(*data, item_names(*data), &tags);
  return tags;
}

} // namespace property
