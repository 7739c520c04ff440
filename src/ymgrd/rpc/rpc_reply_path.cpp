#include "ymgrd/rpc/rpc_reply_path.h"

#include <cctype>

#include "ymgrd/schema/schema.h"

namespace {

std::string_view leading_name(std::string_view text)
{
  auto is_name_character = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_' || c == '-' || c == '.'; };
  size_t length = 0;
  while (length < text.size() && is_name_character(static_cast<unsigned char>(text[length]))) {
    length++;
  }
  return text.substr(0, length);
}

// Of predicates, "." and positions are no names.
bool is_node_name(std::string_view name)
{
  return !name.empty() && name != "." && std::isdigit(static_cast<unsigned char>(name.front())) == 0;
}

} // namespace

bool rpc_qualify_path(std::string_view path, qualified_path_t *ret_qualified)
{
  std::string module; // of the step
  char quote = '\0';
  for (size_t at = 0; at < path.size(); at++) {
    char c = path[at];
    ret_qualified->text += c;
    if (quote != '\0' || c == '\'' || c == '"') {
      quote = quote == '\0' ? c : (c == quote ? '\0' : quote);
      continue;
    }
    std::string_view name = c == '/' || c == '[' ? leading_name(path.substr(at + 1)) : std::string_view();
    if (!is_node_name(name)) {
      continue;
    }
    size_t end = at + 1 + name.size();
    bool has_prefix = end < path.size() && path[end] == ':';
    std::string own = has_prefix ? std::string(name) : module;
    module = c == '/' ? own : module;
    std::string &ns = ret_qualified->namespaces[own];
    ns = ns.empty() ? schema_get_module_ns(own) : ns;
    if (ns.empty()) {
      return false;
    }
    ret_qualified->text += has_prefix ? "" : own + ":";
  }
  return true;
}

int rpc_declare_prefixes(lyxml_elem *elem, const std::map<std::string, std::string> &namespaces)
{
  for (const auto &[prefix, ns] : namespaces) {
    auto text = [](const std::string &chars) { return reinterpret_cast<const xmlChar *>(chars.c_str()); };
    if (xmlNewNs(elem, text(ns), text(prefix)) == nullptr) {
      return -1;
    }
  }
  return 0;
}

int rpc_add_error_path(lyxml_elem *rpc_error, const char *path)
{
  qualified_path_t qualified;
  if (!rpc_qualify_path(path, &qualified)) {
    return lyxml_new_elem(rpc_error, "error-path", path) == nullptr ? -1 : 0;
  }
  lyxml_elem *elem = lyxml_new_elem(rpc_error, "error-path", qualified.text.c_str());
  return elem == nullptr ? -1 : rpc_declare_prefixes(elem, qualified.namespaces);
}
