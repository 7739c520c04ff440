#include "property_generator.h"

#include <algorithm>
#include <functional>

namespace property {

namespace {

constexpr size_t LARGEST_NUMBER = 9; // of the test module's ranges, which begin at 1

struct text_t {
  std::string canonical;
  std::string spelling;
};

// Values meet again all the time, and hold whatever keys, patterns and XML have a meaning for.
const std::vector<std::string> strings = {
    "a",
    "b",
    "c",
    " two  words ",
    "<&>\"'",
    "back\\slash \"quoted\"",
    "x,y=[z]/w:v",
    "*?[a-z]",
    "tab\tline\nreturn\r",
    "\u00e9\u4e2d",
    "",
    "prop:red",
    "d'e",
    "]",
    "#",
};
const std::vector<text_t> decimals = {{"1.5", "1.50"}, {"-0.25", "-0.25"}, {"3.0", "3"}, {"0.5", "0.5"}};
const std::vector<text_t> flag_sets = {{"a b", "b a"}, {"c", " c "}, {"", ""}, {"a b c", "c a  b"}};
const std::vector<text_t> kinds = {{"prop:red", "red"}, {"prop:red", "p:red"}, {"prop-ext:blue", "e:blue"}};

std::string escaped(const std::string &text)
{
  std::string result;
  for (char c : text) {
    bool is_special = c == '<' || c == '&' || c == '>' || c == '"' || (c > 0 && c < ' ');
    result += is_special ? "&#" + std::to_string(c) + ";" : std::string(1, c);
  }
  return result;
}

void print_children(const node_t &config, std::string *xml)
{
  for (const node_t &child : config.children) {
    const lys_module *module = child.schema->module;
    bool is_changed = config.schema == nullptr || config.schema->module != module;
    std::string ns = is_changed ? " xmlns=\"" + std::string(module->ns) + "\"" : "";
    if (config.schema == nullptr) {
      ns += " xmlns:p=\"urn:prop\" xmlns:e=\"urn:prop-ext\" xmlns:yang=\"urn:ietf:params:xml:ns:yang:1\"";
    }
    auto attribute = [](const std::string &name, const std::string &value) {
      return value.empty() ? "" : " " + name + "=\"" + escaped(value) + "\"";
    };
    *xml += std::string("<") + child.schema->name + ns + attribute("nc:operation", child.operation) +
            attribute("yang:insert", child.insert);
    if (!child.reference.empty()) {
      // An empty value is a value.
      const char *name = child.schema->nodetype == LYS_LIST ? " yang:key=\"" : " yang:value=\"";
      *xml += name + escaped(child.reference_xpath) + "\"";
    }
    *xml += child.extra_attributes + ">" + escaped(child.spelling) + child.extra_content;
    print_children(child, xml);
    *xml += std::string("</") + child.schema->name + ">";
  }
}

const std::string &effective(const std::string &own, const std::string &inherited)
{
  return own.empty() ? inherited : own;
}

std::vector<const node_t *> entries_of(const node_t *parent, const lysc_node *schema)
{
  std::vector<const node_t *> entries;
  if (parent != nullptr) {
    for (const node_t &child : parent->children) {
      if (child.schema == schema) {
        entries.push_back(&child);
      }
    }
  }
  return entries;
}

bool is_removal(const std::string &operation)
{
  return operation == "delete" || operation == "remove";
}

void collect(node_t *parent, const std::function<bool(const node_t &)> &is_wanted, std::vector<node_t *> *nodes)
{
  for (node_t &child : parent->children) {
    if (is_wanted(child)) {
      nodes->push_back(&child);
    }
    collect(&child, is_wanted, nodes);
  }
}

bool refuses_some_text(const node_t &node)
{
  if (is_inner(node.schema)) {
    return false;
  }
  LY_DATA_TYPE type = reinterpret_cast<const lysc_node_leaf *>(node.schema)->type->basetype;
  return type != LY_TYPE_STRING && type != LY_TYPE_LEAFREF;
}

// Ways to make a request invalid before the data is looked at.
struct fault_t {
  const char *tag;
  bool (*fits)(const node_t &node);
  void (*make)(node_t *node);
};
const fault_t faults[] = {
    {"unknown-element", [](const node_t &node) { return is_inner(node.schema); },
     [](node_t *node) { node->extra_content = "<no-such/>"; }},
    {"unknown-namespace", [](const node_t &node) { return is_inner(node.schema); },
     [](node_t *node) { node->extra_content = "<text xmlns=\"urn:no-such\"/>"; }},
    {"invalid-value", refuses_some_text, [](node_t *node) { node->spelling = "no such value"; }},
    {"missing-element", [](const node_t &node) { return node.schema->nodetype == LYS_LIST; },
     [](node_t *node) { node->children.erase(node->children.begin()); }},
    {"bad-attribute", [](const node_t &) { return true; }, [](node_t *node) { node->operation = "destroy"; }},
    {"unknown-attribute", [](const node_t &) { return true; },
     [](node_t *node) { node->extra_attributes = " operation=\"merge\""; }},
};

} // namespace

void generator::draw_value(node_t *leaf, const lysc_type *type)
{
  auto set = [leaf](const text_t &text) {
    leaf->value = text.canonical;
    leaf->spelling = text.spelling;
  };
  std::string number = std::to_string(1 + pick(LARGEST_NUMBER));
  text_t small_number{number, chance(20) ? "+" + number : number};
  switch (type->basetype) {
  case LY_TYPE_UINT8:
    return set(small_number);
  case LY_TYPE_UNION:
    return set(chance(50) ? small_number : text_t{"auto", "auto"});
  case LY_TYPE_DEC64:
    return set(one_of(decimals));
  case LY_TYPE_BITS:
    return set(one_of(flag_sets));
  case LY_TYPE_IDENT:
    // Without prefix a name is of the element's module.
    return set(leaf->schema->module->name == std::string_view(MODULE) ? one_of(kinds) : kinds.back());
  case LY_TYPE_BOOL:
    return chance(50) ? set({"true", "true"}) : set({"false", "false"});
  case LY_TYPE_ENUM: {
    const lysc_type_bitenum_item *enums = reinterpret_cast<const lysc_type_enum *>(type)->enums;
    const char *name = enums[pick(LY_ARRAY_COUNT(enums))].name;
    return set({name, name});
  }
  case LY_TYPE_EMPTY:
    return;
  case LY_TYPE_LEAFREF: {
    std::vector<std::string> names;
    for (const node_t &top : root_->children) {
      for (const node_t &child : top.children) {
        if (std::string_view(child.schema->name) == "item") {
          names.push_back(child.children.front().value);
        }
      }
    }
    const std::string &name = names.empty() || chance(10) ? one_of(strings) : one_of(names);
    return set({name, name});
  }
  default: {
    const std::string &text = one_of(strings);
    return set({text, text});
  }
  }
}

std::string generator::draw_operation(const lysc_node *schema, const std::string &inherited, bool exists, int depth)
{
  static const std::vector<std::string> all = {"merge", "replace", "create", "delete", "remove"};
  static const std::vector<std::string> for_existing = {"merge", "replace", "delete", "remove"};
  static const std::vector<std::string> for_missing = {"merge", "replace", "create", "remove"};
  if (inherited != "none" && inherited != "merge") {
    return chance(96) ? "" : chance(70) ? inherited : one_of(all);
  }
  if (depth == 0 && exists && is_inner(schema) && !chance(1)) {
    return ""; // what much hangs on shall not go with every edit
  }
  if (chance(2)) {
    return one_of(all);
  }
  size_t share = exists && is_inner(schema) ? 15 : 45;
  if (inherited == "none" && !exists) {
    return chance(95) ? one_of(for_missing) : "";
  }
  return chance(share) ? one_of(exists ? for_existing : for_missing) : "";
}

void generator::draw_position(node_t *entry, const context_t &parent)
{
  static const std::vector<std::string> places = {"first", "last", "before", "after"};
  entry->insert = one_of(places);
  if (entry->insert == "first" || entry->insert == "last") {
    return;
  }
  std::vector<const node_t *> others = entries_of(parent.data, entry->schema);
  const node_t &reference = others.empty() || chance(5) ? *entry : *one_of(others);
  entry->reference = predicate(reference);
  entry->reference_xpath = reference.value;
  for (const node_t &key : reference.children) {
    if (is_key(key.schema)) {
      const char *quote = key.value.find('"') == std::string::npos ? "\"" : "'";
      entry->reference_xpath += std::string("[p:") + key.schema->name + "=" + quote + key.value + quote + "]";
      if (key.value.find(quote) != std::string::npos) { // no literal can hold it
        entry->insert = "last";
        entry->reference.clear();
        return;
      }
    }
  }
}

node_t generator::draw_node(const lysc_node *schema, const context_t &parent)
{
  node_t made;
  made.schema = schema;
  std::vector<const node_t *> entries = entries_of(is_entry(schema) ? parent.data : nullptr, schema);
  const node_t *known = entries.empty() || chance(40) ? nullptr : one_of(entries);
  if (schema->nodetype == LYS_LIST) {
    for (const lysc_node *key : yang_.children(schema)) {
      if (is_key(key)) {
        node_t &leaf = made.children.emplace_back();
        leaf.schema = key;
        draw_value(&leaf, reinterpret_cast<const lysc_node_leaf *>(key)->type);
        if (known != nullptr) {
          leaf.value = leaf.spelling = known->children[made.children.size() - 1].value;
        }
        leaf.operation = chance(1) ? "merge" : chance(1) ? "create" : "";
      }
    }
  } else if (!is_inner(schema)) {
    draw_value(&made, reinterpret_cast<const lysc_node_leaf *>(schema)->type); // leaf-lists have it in the same place
    if (known != nullptr) {
      made.value = made.spelling = known->value;
    }
  }
  const node_t *data = parent.data == nullptr ? nullptr : find(parent.data, made);
  made.operation = draw_operation(schema, parent.operation, data != nullptr, parent.depth);
  const std::string operation = effective(made.operation, parent.operation);
  if (schema->nodetype == LYS_LEAF && is_removal(made.operation) && chance(50)) {
    made.spelling.clear(); // clients name a leaf without its value
  }
  bool is_positioned = operation == "create" || operation == "merge" || operation == "replace";
  if (lysc_is_userordered(schema) && is_positioned && parent.operation != "replace" && chance(40)) {
    draw_position(&made, parent);
  }
  if (is_inner(schema)) {
    add_children(&made, {data, operation, parent.depth + 1});
  }
  return made;
}

void generator::add_children(node_t *config, const context_t &here)
{
  std::vector<const lysc_node *> candidates;
  bool is_whole = here.operation == "replace" || here.data == nullptr;
  for (const lysc_node *child : yang_.children(config->schema)) {
    if (is_key(child)) {
      continue;
    }
    if ((child->flags & LYS_MAND_TRUE) && child->nodetype == LYS_LEAF && is_whole && !is_removal(here.operation) &&
        chance(95)) {
      config->children.push_back(draw_node(child, here));
    } else {
      candidates.push_back(child);
    }
  }
  size_t count = is_removal(here.operation) ? (chance(90) ? 0 : 1) : is_whole ? pick(8) : 1 + pick(4);
  for (size_t i = 0; i < count && !candidates.empty(); i++) {
    size_t index = pick(candidates.size());
    if (!is_entry(candidates[index]) && chance(50)) {
      index = pick(candidates.size()); // lists are what makes data large
    }
    const lysc_node *chosen = candidates[index];
    // Levels that the edit only passes are looked for where there is data.
    if (here.operation == "none" && here.data != nullptr && !here.data->children.empty() && chance(70)) {
      chosen = one_of(here.data->children).schema;
      if (is_key(chosen)) {
        continue;
      }
    } else if (!is_entry(chosen) && chance(98)) {
      candidates.erase(candidates.begin() + static_cast<ptrdiff_t>(index));
    }
    config->children.push_back(draw_node(chosen, here));
  }
}

node_t generator::draw_config(const std::string &default_operation)
{
  node_t config;
  const context_t here{root_, default_operation, 0};
  const std::vector<const lysc_node *> tops = yang_.children(nullptr);
  for (size_t i = 1 + pick(2); i > 0; i--) {
    config.children.push_back(draw_node(chance(75) ? tops.back() : one_of(tops), here));
  }
  return config;
}

// Makes the config invalid; the error-tag of the refusal.
std::string generator::spoil(node_t *config)
{
  while (true) {
    const fault_t &fault = faults[pick(std::size(faults))];
    std::vector<node_t *> nodes;
    collect(config, fault.fits, &nodes);
    if (!nodes.empty()) {
      fault.make(one_of(nodes));
      return fault.tag;
    }
  }
}

request_t generator::edit(const node_t &data)
{
  constexpr size_t FAULTY = 5;   // percent
  constexpr size_t REFUSED = 12; // percent of those that turn out to be refused are kept
  root_ = &data;
  while (true) {
    request_t request;
    request.default_operation = chance(85) ? "merge" : chance(97) ? "none" : "replace";
    node_t config = draw_config(request.default_operation);
    if (chance(FAULTY)) {
      request.tags = {spoil(&config)};
    } else {
      request.result = data;
      request.tags = apply(&request.result, config, request.default_operation);
      if (!request.tags.empty() && !chance(REFUSED)) {
        continue;
      }
    }
    print_children(config, &request.config);
    return request;
  }
}

} // namespace property
