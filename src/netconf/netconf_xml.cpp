#include "netconf/netconf_xml.h"

#include <climits>
#include <cstring>

#include <libxml/parser.h>

#include "libconf/xml_limits.h"

namespace {

constexpr int PARSE_OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

struct parser_delete_t {
  void operator()(xmlParserCtxt *parser) const { xmlFreeParserCtxt(parser); }
};
struct buffer_delete_t {
  void operator()(xmlBuffer *buffer) const { xmlBufferFree(buffer); }
};
struct text_delete_t {
  void operator()(xmlChar *text) const { xmlFree(text); }
};

const char *as_char(const xmlChar *text)
{
  return reinterpret_cast<const char *>(text);
}

std::string as_string(xmlChar *text)
{
  std::unique_ptr<xmlChar, text_delete_t> owned(text);
  return text == nullptr ? "" : as_char(text);
}

xmlNode *element_from(xmlNode *node)
{
  while (node != nullptr && node->type != XML_ELEMENT_NODE) {
    node = node->next;
  }
  return node;
}

} // namespace

netconf_doc_ptr netconf_parse(std::string_view text)
{
  if (text.empty() || text.size() > INT_MAX || !xml_tags_are_small(text)) {
    return nullptr;
  }
  std::unique_ptr<xmlParserCtxt, parser_delete_t> parser(xmlNewParserCtxt());
  if (parser == nullptr) {
    return nullptr;
  }
  xml_limit_parser(parser.get());
  xmlResetLastError();
  netconf_doc_ptr doc(
      xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr, "UTF-8", PARSE_OPTIONS));
  bool is_sound = doc != nullptr && xmlDocGetRootElement(doc.get()) != nullptr && parser->nsWellFormed != 0 &&
                  xml_is_complete(parser.get());
  return is_sound ? std::move(doc) : nullptr;
}

std::string netconf_print(xmlDoc *doc)
{
  std::unique_ptr<xmlBuffer, buffer_delete_t> buffer(xmlBufferCreate());
  if (buffer == nullptr || xmlNodeDump(buffer.get(), doc, xmlDocGetRootElement(doc), 0, 0) < 0) {
    return {};
  }
  return as_char(xmlBufferContent(buffer.get()));
}

xmlNode *netconf_first_element(const xmlNode *parent)
{
  return element_from(parent->children);
}

xmlNode *netconf_next_element(const xmlNode *node)
{
  return element_from(node->next);
}

std::string_view netconf_name(const xmlNode *node)
{
  return as_char(node->name);
}

bool netconf_is(const xmlNode *node, std::string_view name, std::string_view name_space)
{
  return netconf_name(node) == name && node->ns != nullptr && node->ns->href != nullptr &&
         as_char(node->ns->href) == name_space;
}

std::string netconf_text(const xmlNode *node)
{
  constexpr char BLANKS[] = " \t\r\n";
  std::string text = as_string(xmlNodeGetContent(node));
  size_t first = text.find_first_not_of(BLANKS);
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::optional<std::string> netconf_attribute(const xmlNode *node, const char *name)
{
  xmlChar *value = xmlGetNoNsProp(node, reinterpret_cast<const xmlChar *>(name));
  return value == nullptr ? std::nullopt : std::optional(as_string(value));
}

std::string netconf_find_text(const xmlNode *node, std::string_view name)
{
  for (const xmlNode *child = netconf_first_element(node); child != nullptr; child = netconf_next_element(child)) {
    std::string text = netconf_name(child) == name ? netconf_text(child) : netconf_find_text(child, name);
    if (!text.empty()) {
      return text;
    }
  }
  return {};
}
