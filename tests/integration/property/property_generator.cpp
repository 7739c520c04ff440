#include "property_generator.h"

#include <functional>
#include <map>
#include <string_view>

namespace property {

namespace {

struct text_t {
  std::string canonical;
  std::string spelling = canonical;
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
const std::vector<std::string> without_blanks = {"a",    "b", "<&>\"'",
                                                 "#%#%", "",  std::string(40, 'x')}; // sensitive ones
const std::vector<text_t> numbers = {{"1"}, {"2", "+2"}, {"3"}, {"4", "04"}, {"5"}, {"6"}, {"7"}, {"8", "008"}, {"9"}};
const std::map<LY_DATA_TYPE, std::vector<text_t>> values = {
    {LY_TYPE_UINT8, numbers},
    {LY_TYPE_DEC64, {{"1.5", "1.50"}, {"-0.25"}, {"3.0", "3"}, {"0.5"}}},
    {LY_TYPE_BITS, {{"a b", "b a"}, {"c", " c "}, {""}, {"a b c", "c a  b"}}},
    {LY_TYPE_IDENT, {{"prop:red", "p:red"}, {"prop-ext:blue", "e:blue"}}},
    {LY_TYPE_BOOL, {{"true"}, {"false"}}},
    {LY_TYPE_ENUM, {{"low"}, {"high"}}},
    {LY_TYPE_UNION, {{"low"}, {"9"}}},
    {LY_TYPE_EMPTY, {{""}}},
};

const std::vector<std::string> for_any = {"merge", "replace", "create", "delete", "remove"};
const std::vector<std::string> for_existing = {"merge", "replace", "delete", "remove"};
const std::vector<std::string> for_missing = {"merge", "replace", "create", "remove"};
const std::vector<std::string> places = {"first", "last", "before", "after"};

std::string escaped(const std::string &text)
{
  std::string result;
  for (char c : text) {
    bool is_special = c == '<' || c == '&' || c == '>' || c == '"' || (c > 0 && c < ' ');
    result += is_special ? "&#" + std::to_string(c) + ";" : std::string(1, c);
  }
  return result;
}

void print(const node_t &config, const lys_module *outer, std::string *xml)
{
  const lys_module *module = config.schema->module;
  auto add = [xml](const char *name, bool is_there, const std::string &value) {
    *xml += is_there ? std::string(" ") + name + "=\"" + escaped(value) + "\"" : "";
  };
  *xml += std::string("<") + config.schema->name;
  add("xmlns", module != outer, module->ns);
  add("nc:operation", !config.operation.empty(), config.operation);
  add("yang:insert", !config.insert.empty(), config.insert);
  add(config.schema->nodetype == LYS_LIST ? "yang:key" : "yang:value", !config.reference.empty(),
      config.reference_xpath);
  *xml += config.extra.starts_with(' ') ? config.extra + ">" : ">" + config.extra; // attributes, or content
  *xml += escaped(config.spelling);
  for (const node_t &child : config.children) {
    print(child, module, xml);
  }
  *xml += std::string("</") + config.schema->name + ">";
}

bool is_removal(const std::string &operation)
{
  return operation == "delete" || operation == "remove";
}

// Nodes of two cases exclude each other in one request, unless they are taken away.
bool names_two_cases(const node_t &parent)
{
  std::map<const lysc_node *, const lysc_node *> chosen;
  for (const node_t &child : parent.children) {
    const lysc_node *up = is_removal(child.operation) ? nullptr : child.schema->parent;
    for (; up != nullptr && up->nodetype == LYS_CASE; up = up->parent->parent) {
      if (chosen.emplace(up->parent, up).first->second != up) {
        return true;
      }
    }
    if (names_two_cases(child)) {
      return true;
    }
  }
  return false;
}

// --- Ways to make a request invalid before the data is looked at.

bool refuses_some_text(const node_t &node)
{
  return !is_inner(node.schema) && values.contains(as_leaf(node.schema)->type->basetype);
}

bool is_inner_node(const node_t &node)
{
  return is_inner(node.schema);
}

bool is_any_node(const node_t &)
{
  return true;
}

struct fault_t {
  const char *tag;
  bool (*fits)(const node_t &node);
  void (*make)(node_t *node);
};
const fault_t faults[] = {
    {"unknown-element", is_inner_node, [](node_t *node) { node->extra = "<no-such/>"; }},
    {"unknown-namespace", is_inner_node, [](node_t *node) { node->extra = "<text xmlns=\"urn:no-such\"/>"; }},
    {"invalid-value", refuses_some_text, [](node_t *node) { node->spelling = "no such value"; }},
    {"missing-element", [](const node_t &node) { return node.schema->nodetype == LYS_LIST; },
     [](node_t *node) { node->children.erase(node->children.begin()); }},
    // The value of a sensitive leaf, which need not be one when the leaf is to be deleted, is looked at first.
    {"bad-attribute", [](const node_t &node) { return !SENSITIVE.contains(node.schema->name); },
     [](node_t *node) { node->operation = "destroy"; }},
    {"unknown-attribute", is_any_node, [](node_t *node) { node->extra = " operation=\"merge\""; }},
};

void collect(node_t *parent, const fault_t &fault, std::vector<node_t *> *nodes)
{
  for (node_t &child : parent->children) {
    if (fault.fits(child)) {
      nodes->push_back(&child);
    }
    collect(&child, fault, nodes);
  }
}

} // namespace

void generator::draw_value(node_t *leaf)
{
  LY_DATA_TYPE type = as_leaf(leaf->schema)->type->basetype;
  auto pool = values.find(type);
  if (pool != values.end()) {
    const text_t &text = one_of(pool->second);
    leaf->value = text.canonical;
    leaf->spelling = text.spelling;
  } else {
    bool is_known = type == LY_TYPE_LEAFREF && !items_.empty() && chance(90);
    bool is_sensitive = SENSITIVE.contains(leaf->schema->name);
    leaf->value = leaf->spelling = one_of(is_known ? items_ : is_sensitive ? without_blanks : strings);
  }
}

std::string generator::draw_operation(const lysc_node *schema, bool exists, const place_t &place)
{
  if (place.operation != "none" && place.operation != "merge") {
    return chance(96) ? "" : chance(70) ? place.operation : one_of(for_any);
  }
  if (place.depth == 0 && exists && is_inner(schema) && !chance(1)) {
    return ""; // what much hangs on shall not go with every edit
  }
  if (place.operation == "none" && !exists) {
    return chance(95) ? one_of(for_missing) : "";
  }
  if (!chance(exists && is_inner(schema) ? 15 : 45)) {
    return "";
  }
  return one_of(chance(4) ? for_any : exists ? for_existing : for_missing);
}

void generator::draw_position(node_t *entry, const std::vector<const node_t *> &entries)
{
  entry->insert = one_of(places);
  if (entry->insert == "first" || entry->insert == "last") {
    return;
  }
  const node_t &reference = entries.empty() || chance(5) ? *entry : *one_of(entries); // itself: no new entry has that
  entry->reference = predicate(reference);
  entry->reference_xpath = reference.value;
  for (const node_t &key : reference.children) {
    const char *quote = key.value.find('"') == std::string::npos ? "\"" : "'";
    if (is_key(key.schema) && key.value.find(quote) != std::string::npos) { // no literal can hold it
      entry->insert = "last";
      entry->reference.clear();
    } else if (is_key(key.schema)) {
      entry->reference_xpath += std::string("[p:") + key.schema->name + "=" + quote + key.value + quote + "]";
    }
  }
}

node_t generator::draw_node(const lysc_node *schema, const place_t &place)
{
  node_t made{schema};
  std::vector<const node_t *> entries;
  if (is_entry(schema) && place.data != nullptr) {
    entries = instances(*place.data, schema);
  }
  const node_t *known = entries.empty() || chance(40) ? nullptr : one_of(entries);
  if (known != nullptr) {
    made.value = made.spelling = known->value;
  } else if (!is_inner(schema)) {
    draw_value(&made);
  }
  for (const lysc_node *key = lysc_node_child(schema); key != nullptr && is_key(key); key = key->next) {
    node_t &leaf = made.children.emplace_back(node_t{key});
    draw_value(&leaf);
    if (known != nullptr) {
      leaf.value = leaf.spelling = known->children[made.children.size() - 1].value;
    }
    leaf.operation = chance(1) ? "merge" : chance(1) ? "create" : "";
  }
  const node_t *data = place.data == nullptr ? nullptr : find(*place.data, made);
  made.operation = draw_operation(schema, data != nullptr, place);
  if (schema->nodetype == LYS_LEAF && is_removal(made.operation) && chance(50)) {
    made.spelling.clear(); // clients name a leaf without its value
  }
  const std::string operation = made.operation.empty() ? place.operation : made.operation;
  bool has_place = !is_removal(operation) && operation != "none" && place.operation != "replace";
  if (lysc_is_userordered(schema) && has_place && chance(40)) {
    draw_position(&made, entries);
  }
  if (is_inner(schema)) {
    draw_children(&made, {data, operation, place.depth + 1});
  }
  return made;
}

void generator::draw_children(node_t *config, const place_t &here)
{
  bool is_whole = here.operation == "replace" || here.data == nullptr;
  bool is_gone = is_removal(here.operation);
  std::vector<const lysc_node *> candidates;
  for (const lysc_node *child : yang_.children(config->schema)) {
    bool is_needed = child->nodetype == LYS_LEAF && (child->flags & LYS_MAND_TRUE) && is_whole && !is_gone;
    if (is_needed && !is_key(child) && chance(95)) {
      config->children.push_back(draw_node(child, here));
    } else if (!is_key(child)) {
      candidates.push_back(child);
    }
  }
  for (size_t count = is_gone ? chance(10) : is_whole ? pick(8) : 1 + pick(4); count > 0; count--) {
    if (candidates.empty()) {
      return;
    }
    size_t index = pick(candidates.size());
    if (!is_entry(candidates[index]) && chance(50)) {
      index = pick(candidates.size()); // lists are what makes data large
    }
    const lysc_node *chosen = candidates[index];
    if (here.operation == "none" && here.data != nullptr && !here.data->children.empty() && chance(70)) {
      chosen = one_of(here.data->children).schema; // what an edit only passes must be there
    } else if (!is_entry(chosen) && chance(98)) {
      candidates.erase(candidates.begin() + static_cast<ptrdiff_t>(index)); // seldom twice
    }
    if (!is_key(chosen)) {
      config->children.push_back(draw_node(chosen, here));
    }
  }
}

// Makes the config invalid; the error-tag of the refusal.
std::string generator::spoil(node_t *config)
{
  std::vector<node_t *> nodes;
  const fault_t *fault = nullptr;
  while (nodes.empty()) {
    fault = &faults[pick(std::size(faults))];
    collect(config, *fault, &nodes);
  }
  fault->make(one_of(nodes));
  return fault->tag;
}

request_t generator::edit(const node_t &data)
{
  const std::set<std::string> items = item_names(data);
  const std::vector<const lysc_node *> tops = yang_.children(nullptr);
  items_.assign(items.begin(), items.end());
  while (true) {
    request_t request;
    request.default_operation = chance(85) ? "merge" : chance(97) ? "none" : "replace";
    node_t config;
    for (size_t count = 1 + pick(2); count > 0; count--) {
      config.children.push_back(
          draw_node(chance(75) ? tops.back() : one_of(tops), {&data, request.default_operation, 0}));
    }
    bool is_spoilt = chance(5);
    if (names_two_cases(config)) {
      is_spoilt = false;
      request.tags = {"bad-element"};
    } else if (is_spoilt) {
      request.tags = {spoil(&config)};
    } else {
      request.result = data;
      request.tags = apply(&request.result, config, request.default_operation);
    }
    if (request.tags.empty() || is_spoilt || chance(12)) {
      for (const node_t &top : config.children) {
        print(top, nullptr, &request.config);
      }
      return request;
    }
  }
}

} // namespace property
