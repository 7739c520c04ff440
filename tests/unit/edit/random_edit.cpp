#include "unit/edit/random_edit.h"

#include <algorithm>
#include <map>

namespace {

const char *const operation_names[] = {"", "merge", "replace", "create", "delete", "remove"};

// The predicates of a list entry, as yang:key has them.
std::string predicates(const lysc_node *list, const std::vector<std::string> &values)
{
  std::string text;
  const lysc_node *key = lysc_node_child(list);
  for (const std::string &value : values) {
    text += std::string("[") + key->name + "='" + value + "']";
    key = key->next;
  }
  return text;
}

const lyd_node *find(const lyd_node *siblings, const lysc_node *schema, const std::string &entry)
{
  lyd_node *match = nullptr;
  const char *which = (schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) ? entry.c_str() : nullptr;
  bool is_there = siblings != nullptr && lyd_find_sibling_val(siblings, schema, which, 0, &match) == LY_SUCCESS;
  return is_there ? match : nullptr;
}

bool takes_away(const std::string &element)
{
  std::string tag = element.substr(0, element.find('>'));
  return tag.find("='delete'") != std::string::npos || tag.find("='remove'") != std::string::npos;
}

// Cases by choice. Nodes of two cases exclude each other in one edit. False when `node` does not fit those before it.
bool choose(std::map<const lysc_node *, const lysc_node *> *chosen, const lysc_node *node)
{
  for (const lysc_node *up = node->parent; up != nullptr && up->nodetype == LYS_CASE; up = up->parent->parent) {
    if (chosen->emplace(up->parent, up).first->second != up) {
      return false;
    }
  }
  return true;
}

} // namespace

random_edit_t random_edit_source::next(const lyd_node *current)
{
  random_edit_t edit;
  if (chance(25)) {
    edit.default_operation = chance(75) ? NC_EDIT_OP_REPLACE : NC_EDIT_OP_NONE;
  }
  has_places_ = chance(60);
  edit.content = children(nullptr, current, edit.default_operation);
  return edit;
}

std::string random_edit_source::children(const lysc_node *parent, const lyd_node *siblings, NC_EDIT_OP_TYPE inherited)
{
  std::vector<std::string> elements;
  std::map<const lysc_node *, const lysc_node *> chosen;
  const lysc_node *child = nullptr;
  while ((child = lys_getnext(child, parent, module_->compiled, 0)) != nullptr) {
    if (lysc_is_key(child)) {
      continue;
    }
    bool has_entries = child->nodetype & (LYS_LIST | LYS_LEAFLIST);
    int instances = chance(has_entries ? 40 : 30) ? 1 + (has_entries ? below(4) : 0) : 0;
    for (int i = 0; i < instances; i++) {
      std::string made = element(child, siblings, inherited);
      if (takes_away(made) || choose(&chosen, child)) {
        elements.push_back(std::move(made));
      }
    }
  }
  std::shuffle(elements.begin(), elements.end(), random_);
  std::string text;
  for (const std::string &one : elements) {
    text += one;
  }
  return text;
}

std::string random_edit_source::element(const lysc_node *schema, const lyd_node *siblings, NC_EDIT_OP_TYPE inherited)
{
  std::string body;
  std::string entry;
  if (schema->nodetype == LYS_LIST) {
    std::vector<std::string> values = key_values(schema);
    entry = predicates(schema, values);
    const lysc_node *key = lysc_node_child(schema);
    for (const std::string &value : values) {
      body += std::string("<") + key->name + ">" + value + "</" + key->name + ">";
      key = key->next;
    }
  } else if (schema->nodetype == LYS_LEAFLIST) {
    body = entry = name_of_entry();
  }
  const lyd_node *counterpart = find(siblings, schema, entry);
  NC_EDIT_OP_TYPE op = operation(inherited, counterpart != nullptr);
  bool deletes = op == NC_EDIT_OP_DELETE || op == NC_EDIT_OP_REMOVE;
  std::string start = schema->name;
  if (schema->parent == nullptr) {
    start += std::string(" xmlns='") + schema->module->ns + "'";
  }
  if (op != NC_EDIT_OP_NONE) {
    start += std::string(" nc:operation='") + operation_names[op] + "'";
  }
  if (has_places_ && lysc_is_userordered(schema) && chance(50)) {
    start += place(schema, siblings);
  }
  if (schema->nodetype == LYS_LEAF && !deletes) {
    body = std::to_string(below(3));
  } else if ((schema->nodetype & LYD_NODE_ANY) && !deletes) {
    body = "<m xmlns='urn:m'>" + std::to_string(below(3)) + "</m>";
  } else if ((schema->nodetype & (LYS_CONTAINER | LYS_LIST)) && !deletes) {
    body += children(schema, lyd_child(counterpart), op == NC_EDIT_OP_NONE ? inherited : op);
  }
  return "<" + start + ">" + body + "</" + schema->name + ">";
}

NC_EDIT_OP_TYPE random_edit_source::operation(NC_EDIT_OP_TYPE inherited, bool is_there)
{
  bool parent_leaves_open = inherited == NC_EDIT_OP_NONE || inherited == NC_EDIT_OP_MERGE;
  if (chance(parent_leaves_open ? 60 : 99)) {
    return NC_EDIT_OP_NONE;
  }
  bool fits = chance(97);
  const NC_EDIT_OP_TYPE when_there[] = {NC_EDIT_OP_MERGE, NC_EDIT_OP_REPLACE, NC_EDIT_OP_DELETE, NC_EDIT_OP_REMOVE};
  const NC_EDIT_OP_TYPE when_not[] = {NC_EDIT_OP_MERGE, NC_EDIT_OP_REPLACE, NC_EDIT_OP_CREATE, NC_EDIT_OP_REMOVE};
  return (is_there == fits ? when_there : when_not)[below(4)];
}

std::string random_edit_source::place(const lysc_node *schema, const lyd_node *siblings)
{
  if (chance(40)) {
    return chance(50) ? " yang:insert='first'" : " yang:insert='last'";
  }
  bool is_list = schema->nodetype == LYS_LIST;
  std::string reference;
  for (int tries = 0; tries < 10 && (reference.empty() || find(siblings, schema, reference) == nullptr); tries++) {
    reference = is_list ? predicates(schema, key_values(schema)) : name_of_entry();
  }
  if (find(siblings, schema, reference) == nullptr && chance(80)) {
    return "";
  }
  return std::string(" yang:insert='") + (chance(50) ? "before" : "after") + "' yang:" + (is_list ? "key" : "value") +
         "=\"" + reference + "\"";
}

std::vector<std::string> random_edit_source::key_values(const lysc_node *list)
{
  std::vector<std::string> values;
  for (const lysc_node *key = lysc_node_child(list); key != nullptr && lysc_is_key(key); key = key->next) {
    values.push_back(values.empty() ? name_of_entry() : "n" + std::to_string(below(2)));
  }
  return values;
}

std::string random_edit_source::name_of_entry()
{
  return std::string(1, static_cast<char>('a' + below(4)));
}
