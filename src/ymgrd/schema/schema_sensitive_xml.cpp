#include "ymgrd/schema/schema_sensitive_xml.h"

#include <libyang/libyang.h>

#include "ymgrd/schema/schema_sensitive.h"

namespace {

std::string quoted(const std::string &value)
{
  const char *quote = value.find('\'') == std::string::npos ? "'" : "\"";
  return quote + value + quote;
}

std::string predicates_of(const lysc_node *node, const lyxml_elem *elem)
{
  std::string predicates;
  for (const lysc_node *child = lysc_node_child(node); child != nullptr && lysc_is_key(child); child = child->next) {
    const lyxml_elem *key = lyxml_find_child(elem, child->name);
    if (key != nullptr) {
      predicates += std::string("[") + child->name + "=" + quoted(lyxml_text(key)) + "]";
    }
  }
  return predicates;
}

} // namespace

bool schema_check_sensitive_value(const sensitive_config_t &leaf, std::string_view value, wiped_string *ret_canonical)
{
  const lysc_node *node = schema_find_sensitive(leaf.path);
  if (node != nullptr) {
    return schema_check_sensitive(node, value, ret_canonical);
  }
  ret_canonical->assign(value);
  return true;
}

std::string schema_sensitive_instance(const sensitive_config_t &leaf, const lyxml_elem *elem)
{
  const lysc_node *node = schema_find_sensitive(leaf.path);
  if (node == nullptr) {
    return leaf.path;
  }
  std::string path;
  for (; node != nullptr && elem != nullptr; node = lysc_data_parent(node), elem = elem->parent) {
    const lysc_node *parent = lysc_data_parent(node);
    std::string step =
        parent != nullptr && parent->module == node->module ? "/" : std::string("/") + node->module->name + ":";
    path.insert(0, step + node->name + predicates_of(node, elem));
  }
  return path;
}
