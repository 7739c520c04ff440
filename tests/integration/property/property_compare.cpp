#include "property_compare.h"

#include <algorithm>
#include <cstring>
#include <map>

#include <libxml/tree.h>

#include "support/netconf_session.h"

namespace property {

namespace {

using support::escaped;

// The name of a child in keys and lines: with its module where that changes.
std::string segment(const node_t &parent, const lysc_node *child)
{
  bool is_changed = parent.schema == nullptr || parent.schema->module != child->module;
  return is_changed ? std::string(child->module->name) + ":" + child->name : child->name;
}

void add_lines(const node_t &parent, const std::string &path, lines_t *lines)
{
  std::map<std::string, std::string> orders;
  for (const node_t &child : parent.children) {
    std::string name = path + "/" + segment(parent, child.schema);
    std::string entry = is_entry(child.schema) ? "[" + predicate(child) + "]" : "";
    if (lysc_is_userordered(child.schema)) {
      orders[name] += " " + entry;
    }
    std::string line = escaped(name + entry + (is_inner(child.schema) ? "" : " = \"" + child.value + "\""));
    lines->insert(lines->contains(line) ? "twice: " + line : line);
    add_lines(child, name + entry, lines);
  }
  for (const auto &[name, order] : orders) {
    lines->insert(escaped(name + " in this order:" + order));
  }
}

// --- Replies.

std::string text_of(const xmlNode *node)
{
  std::unique_ptr<xmlChar, void (*)(void *)> content(xmlNodeGetContent(node), xmlFree);
  return content == nullptr ? "" : reinterpret_cast<const char *>(content.get());
}

void read_children(const schema &yang, const xmlNode *parent_element, node_t *parent, lines_t *faults)
{
  for (const xmlNode *element = parent_element->children; element != nullptr; element = element->next) {
    const auto *name = reinterpret_cast<const char *>(element->name);
    const lys_module *module = element->type != XML_ELEMENT_NODE || element->ns == nullptr
                                   ? nullptr
                                   : yang.find_by_ns(reinterpret_cast<const char *>(element->ns->href));
    node_t child;
    child.schema = module == nullptr ? nullptr : lys_find_child(parent->schema, module, name, 0, 0, 0);
    if (child.schema == nullptr) {
      faults->insert(std::string("unknown: ") + name + text_of(element));
      continue;
    }
    if (is_inner(child.schema)) {
      read_children(yang, element, &child, faults);
    } else {
      child.value = text_of(element);
    }
    parent->children.push_back(std::move(child));
  }
}

// --- The database.

enum value_type_t : int32_t { VALUE_SINGLE = 1, VALUE_LIST = 2 };

std::string field_line(const std::string &key, const std::string &field, const std::string &value)
{
  return escaped("hash " + key + " " + field + " = " + value);
}

std::string field_line(const std::string &key, const std::string &field, value_type_t type, const std::string &text)
{
  std::string bytes(sizeof(type), '\0');
  std::memcpy(bytes.data(), &type, sizeof(type));
  return field_line(key, field, bytes + text + std::string(4, '\0'));
}

std::string list_line(const std::string &key, std::vector<std::string> entries, bool is_ordered)
{
  if (!is_ordered) {
    std::sort(entries.begin(), entries.end());
  }
  std::string text = "list " + key + ":";
  for (const std::string &entry : entries) {
    text += " [" + entry + "]";
  }
  return escaped(text);
}

constexpr char SEALED[] = "cipher text";

// A stored value as the model can tell it, too.
std::string without_cipher_text(const std::string &field, const std::string &value)
{
  auto leaf = SENSITIVE.find(field.substr(field.find(':') + 1));
  if (leaf == SENSITIVE.end() || value.size() <= 8) {
    return value;
  }
  const std::string text = value.substr(4, value.size() - 8);
  bool is_sealed = text == leaf->second || (text.size() > 40 && text.starts_with("#%") && text.ends_with("#%"));
  return is_sealed ? value.substr(0, 4) + SEALED + value.substr(value.size() - 4) : value;
}

// "/module:top/x" is the key "/module/top/x"; the module's own key is "/module".
void add_stored(const node_t &parent, const std::string &parent_key, lines_t *lines)
{
  std::map<std::string, std::pair<std::vector<std::string>, bool>> lists;
  for (const node_t &child : parent.children) {
    if (is_key(child.schema)) {
      continue;
    }
    bool is_top = parent.schema == nullptr;
    const std::string key = is_top ? std::string("/") + child.schema->module->name : parent_key;
    const std::string name = is_top ? child.schema->name : segment(parent, child.schema);
    if (is_top) {
      lines->insert(field_line("/", child.schema->module->name, VALUE_SINGLE, ""));
    }
    std::string entry;
    if (is_entry(child.schema)) {
      auto &[entries, is_ordered] = lists[key + "/" + name];
      entries.push_back(predicate(child));
      is_ordered = lysc_is_userordered(child.schema);
      entry = "[" + predicate(child) + "]";
    }
    bool is_sealed = SENSITIVE.contains(child.schema->name) && !child.value.empty();
    lines->insert(field_line(key, name, entry.empty() ? VALUE_SINGLE : VALUE_LIST,
                             entry.empty() ? (is_sealed ? SEALED : child.value) : ""));
    add_stored(child, key + "/" + name + entry, lines);
  }
  for (const auto &[key, list] : lists) {
    lines->insert(list_line(key, list.first, list.second));
  }
}

} // namespace

lines_t lines_of(const node_t &root)
{
  lines_t lines;
  add_lines(root, "", &lines);
  return lines;
}

lines_t lines_of_reply(const schema &yang, const std::string &reply)
{
  support::xml_document_ptr document = support::parse_xml(reply, support::xml_blanks::kept);
  const xmlNode *root = document == nullptr ? nullptr : xmlDocGetRootElement(document.get());
  const xmlNode *data = root == nullptr ? nullptr : root->children;
  if (data == nullptr || std::strcmp(reinterpret_cast<const char *>(data->name), "data") != 0) {
    return {"no data: " + reply};
  }
  lines_t lines;
  node_t tree;
  read_children(yang, data, &tree, &lines);
  add_lines(tree, "", &lines);
  return lines;
}

lines_t stored_lines(const node_t &root)
{
  lines_t lines;
  add_stored(root, "", &lines);
  return lines;
}

lines_t stored_lines(const schema &yang, support::redis_server *redis, int db)
{
  lines_t lines;
  const std::map<std::string, support::redis_value_t> content = redis->content(db);
  for (const auto &[key, value] : content) {
    if (value.type == "list") {
      lines.insert(list_line(key, value.texts, yang.is_ordered(key.substr(key.rfind('/') + 1))));
    }
    for (size_t i = 0; value.type == "hash" && key != "ymgrd-info" && i < value.texts.size(); i += 2) {
      lines.insert(field_line(key, value.texts[i], without_cipher_text(value.texts[i], value.texts[i + 1])));
    }
  }
  if (!content.contains(std::string("/") + MODULE)) { // a module whose data is gone may keep its field
    lines.erase(field_line("/", MODULE, VALUE_SINGLE, ""));
  }
  return lines;
}

std::string difference(const lines_t &expected, const lines_t &found)
{
  std::string text;
  auto append_missing = [&text](const lines_t &lines, const lines_t &others, const char *mark) {
    for (const std::string &line : lines) {
      text += others.contains(line) ? "" : mark + line + "\n";
    }
  };
  append_missing(expected, found, "- ");
  append_missing(found, expected, "+ ");
  return text;
}

} // namespace property
