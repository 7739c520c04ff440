#include "property_compare.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>

#include <libxml/parser.h>
#include <libxml/tree.h>

namespace property {

namespace {

// The children's names in keys, elements and lines: with their module where it changes.
std::string segment(const node_t &parent, const lysc_node *child)
{
  const lys_module *above = parent.schema == nullptr ? nullptr : parent.schema->module;
  return child->module == above ? child->name : std::string(child->module->name) + ":" + child->name;
}

std::string printable(const std::string &bytes)
{
  std::string text;
  for (unsigned char byte : bytes) {
    char code[5];
    (void)snprintf(code, sizeof(code), "\\x%02x", byte);
    text += byte < 0x20 || byte == 0x7f || byte == '\\' ? code : std::string(1, static_cast<char>(byte));
  }
  return text;
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
    bool is_new =
        lines->insert(printable(name + entry + (is_inner(child.schema) ? "" : " = \"" + child.value + "\""))).second;
    if (!is_new) {
      lines->insert("twice: " + printable(name + entry));
    }
    add_lines(child, name + entry, lines);
  }
  for (const auto &[name, order] : orders) {
    lines->insert(printable(name + " in this order:" + order));
  }
}

// --- Replies.

class reply_reader {
public:
  reply_reader(const schema &yang, lines_t *faults) : yang_(yang), faults_(faults) {}

  void read_children(const xmlNode *element, node_t *parent)
  {
    for (const xmlNode *each = element->children; each != nullptr; each = each->next) {
      if (each->type == XML_ELEMENT_NODE) {
        read(each, parent);
      } else if (is_inner_or_root(*parent)) {
        faults_->insert("text between elements: " + text_of(each));
      }
    }
    std::stable_partition(parent->children.begin(), parent->children.end(),
                          [](const node_t &child) { return is_key(child.schema); });
  }

private:
  static bool is_inner_or_root(const node_t &node) { return node.schema == nullptr || is_inner(node.schema); }

  static std::string text_of(const xmlNode *node)
  {
    std::unique_ptr<xmlChar, void (*)(void *)> content(xmlNodeGetContent(node), xmlFree);
    return content == nullptr ? "" : reinterpret_cast<const char *>(content.get());
  }

  void read(const xmlNode *element, node_t *parent)
  {
    const auto *name = reinterpret_cast<const char *>(element->name);
    const lys_module *module =
        element->ns == nullptr ? nullptr : yang_.find_by_ns(reinterpret_cast<const char *>(element->ns->href));
    const lysc_node *node = module == nullptr ? nullptr : lys_find_child(parent->schema, module, name, 0, 0, 0);
    if (node == nullptr) {
      faults_->insert(std::string("unknown element: ") + name);
      return;
    }
    node_t child;
    child.schema = node;
    if (is_inner(node)) {
      read_children(element, &child);
    } else {
      child.value = text_of(element);
      check_prefix(element, node, child.value);
    }
    parent->children.push_back(std::move(child));
  }

  // The text of an identity names its module by a prefix that must be declared for it.
  void check_prefix(const xmlNode *element, const lysc_node *node, const std::string &value)
  {
    bool is_identity =
        node->nodetype == LYS_LEAF && reinterpret_cast<const lysc_node_leaf *>(node)->type->basetype == LY_TYPE_IDENT;
    if (!is_identity) {
      return;
    }
    std::string prefix = value.substr(0, value.find(':'));
    const xmlNs *ns =
        xmlSearchNs(element->doc, const_cast<xmlNode *>(element), reinterpret_cast<const xmlChar *>(prefix.c_str()));
    const lys_module *module = ns == nullptr ? nullptr : yang_.find_by_ns(reinterpret_cast<const char *>(ns->href));
    if (module == nullptr || module->name != prefix) {
      faults_->insert("prefix of no module: " + value);
    }
  }

  const schema &yang_;
  lines_t *faults_;
};

const xmlNode *find_data(const xmlDoc *document)
{
  const xmlNode *reply = document == nullptr ? nullptr : xmlDocGetRootElement(document);
  const xmlNode *data = reply == nullptr ? nullptr : reply->children;
  while (data != nullptr && std::strcmp(reinterpret_cast<const char *>(data->name), "data") != 0) {
    data = data->next;
  }
  return data;
}

// --- The database.

enum value_type_t : int32_t { VALUE_SINGLE = 1, VALUE_LIST = 2 };

std::string stored_value(value_type_t type, const std::string &text)
{
  std::string bytes(sizeof(type), '\0');
  std::memcpy(bytes.data(), &type, sizeof(type));
  return bytes + text + std::string(4, '\0');
}

std::string field_line(const std::string &key, const std::string &field, const std::string &value)
{
  return printable("hash " + key + " " + field + " = " + value);
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
  return printable(text);
}

// "/module:top/x" is the key "/module/top/x"; the module's own key is "/module".
void add_stored(const node_t &parent, const std::string &key, lines_t *lines)
{
  std::map<std::string, std::pair<std::vector<std::string>, bool>> lists;
  for (const node_t &child : parent.children) {
    if (is_key(child.schema)) {
      continue;
    }
    std::string own_key = key;
    std::string name = segment(parent, child.schema);
    if (parent.schema == nullptr) {
      own_key = std::string("/") + child.schema->module->name;
      name = child.schema->name;
      lines->insert(field_line("/", child.schema->module->name, stored_value(VALUE_SINGLE, "")));
    }
    std::string child_key = own_key + "/" + name;
    if (is_entry(child.schema)) {
      lines->insert(field_line(own_key, name, stored_value(VALUE_LIST, "")));
      auto &[entries, is_ordered] = lists[child_key];
      entries.push_back(predicate(child));
      is_ordered = lysc_is_userordered(child.schema);
      child_key += "[" + predicate(child) + "]";
    } else {
      lines->insert(field_line(own_key, name, stored_value(VALUE_SINGLE, child.value)));
    }
    add_stored(child, child_key, lines);
  }
  for (const auto &[list_key, list] : lists) {
    lines->insert(list_line(list_key, list.first, list.second));
  }
}

// All keys in one answer: key, type, number of texts, texts.
constexpr char DUMP_SCRIPT[] = "local all = {} "
                               "for _, key in ipairs(redis.call('KEYS', '*')) do "
                               "  local type = redis.call('TYPE', key).ok "
                               "  local texts = type == 'hash' and redis.call('HGETALL', key) "
                               "                or redis.call('LRANGE', key, 0, -1) "
                               "  table.insert(all, key) table.insert(all, type) table.insert(all, tostring(#texts)) "
                               "  for _, text in ipairs(texts) do table.insert(all, text) end "
                               "end "
                               "return all";

} // namespace

lines_t lines_of(const node_t &root)
{
  lines_t lines;
  add_lines(root, "", &lines);
  return lines;
}

lines_t lines_of_reply(const schema &yang, const std::string &reply)
{
  lines_t lines;
  std::unique_ptr<xmlDoc, void (*)(xmlDoc *)> document(
      xmlReadMemory(reply.data(), static_cast<int>(reply.size()), nullptr, nullptr, XML_PARSE_NOERROR), xmlFreeDoc);
  const xmlNode *data = find_data(document.get());
  if (data == nullptr) {
    return {"no data: " + reply};
  }
  node_t root;
  reply_reader(yang, &lines).read_children(data, &root);
  add_lines(root, "", &lines);
  return lines;
}

lines_t stored_lines(const node_t &root)
{
  lines_t lines;
  add_stored(root, "", &lines);
  return lines;
}

lines_t stored_lines(const schema *yang, support::redis_server *redis, int db)
{
  // A name stands for one kind of list throughout the test's modules.
  std::set<std::string> ordered;
  std::function<void(const lysc_node *)> collect = [&](const lysc_node *parent) {
    for (const lysc_node *child : yang->children(parent)) {
      if (lysc_is_userordered(child)) {
        ordered.insert(child->name);
      }
      collect(child);
    }
  };
  if (yang != nullptr) {
    collect(nullptr);
  }

  lines_t lines;
  std::vector<std::string> modules;
  std::set<std::string> keys;
  std::vector<std::string> dump = redis->command(db, {"EVAL", DUMP_SCRIPT, "0"});
  for (auto at = dump.begin(); at != dump.end();) {
    std::string key = *at++;
    std::string type = *at++;
    auto end = at + 1 + std::stol(*at);
    std::vector<std::string> texts(at + 1, end);
    at = end;
    if (key == "ymgrd-info") {
      continue;
    }
    keys.insert(key);
    if (type == "list") {
      lines.insert(list_line(key, texts, yang == nullptr || ordered.contains(key.substr(key.rfind('/') + 1))));
      continue;
    }
    for (size_t i = 0; i + 1 < texts.size(); i += 2) {
      lines.insert(field_line(key, texts[i], texts[i + 1]));
      if (key == "/") {
        modules.push_back(texts[i]);
      }
    }
  }
  for (const std::string &module : modules) { // one whose data is gone may keep its field
    if (!keys.contains("/" + module)) {
      lines.erase(field_line("/", module, stored_value(VALUE_SINGLE, "")));
    }
  }
  return lines;
}

std::string difference(const lines_t &expected, const lines_t &found)
{
  std::string text;
  auto append_missing = [&text](const lines_t &lines, const lines_t &others, const char *mark) {
    for (const std::string &line : lines) {
      if (!others.contains(line)) {
        text += mark + line + "\n";
      }
    }
  };
  append_missing(expected, found, "- ");
  append_missing(found, expected, "+ ");
  return text;
}

} // namespace property
