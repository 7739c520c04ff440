#include "ctl/ctl_xml.h"

#include <climits>
#include <cstring>

#include <libxml/parser.h>

namespace {

struct xml_text_delete_t {
  void operator()(xmlChar *text) const { xmlFree(text); }
};

} // namespace

ctl_xml_ptr ctl_parse_xml(const std::string &text)
{
  if (text.size() > INT_MAX) {
    return nullptr;
  }
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE;
  return ctl_xml_ptr(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, options));
}

bool ctl_xml_is(const xmlNode *node, const char *name)
{
  return node->type == XML_ELEMENT_NODE && strcmp(reinterpret_cast<const char *>(node->name), name) == 0;
}

const xmlNode *ctl_xml_child(const xmlNode *parent, const char *name)
{
  const xmlNode *child = parent == nullptr ? nullptr : parent->children;
  while (child != nullptr && !ctl_xml_is(child, name)) {
    child = child->next;
  }
  return child;
}

std::string ctl_xml_text(const xmlNode *node)
{
  std::unique_ptr<xmlChar, xml_text_delete_t> text(xmlNodeGetContent(node));
  return text == nullptr ? "" : reinterpret_cast<const char *>(text.get());
}

std::string ctl_xml_escape(std::string_view text)
{
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    switch (c) {
    case '&':
      escaped += "&amp;";
      break;
    case '<':
      escaped += "&lt;";
      break;
    case '>':
      escaped += "&gt;";
      break;
    case '"':
      escaped += "&quot;";
      break;
    case '\r': // a parser would make a line feed of it
      escaped += "&#13;";
      break;
    default:
      escaped += c;
    }
  }
  return escaped;
}

std::string ctl_xml_keep_returns(std::string_view printed)
{
  std::string text;
  text.reserve(printed.size());
  for (char c : printed) {
    c == '\r' ? (void)text.append("&#13;") : text.push_back(c);
  }
  return text;
}
