#include "ymgrd/rpc/lyxml.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlIO.h>
#include <malloc.h>

#include "libconf/safe_string.h"
#include "libconf/xml_limits.h"
#include "ymgrd/core/wiping_heap.h"

namespace {

// HUGE lifts libxml2's own limits: beyond 10 MB it refuses a document for where its last tags happen to stand. The
// limits of xml_limits.h take their place, and without a DTD there is nothing to expand. Requests are UTF-8: a declared
// encoding is ignored, so that no other one gets past the checks made on the bytes.
constexpr int PARSE_OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NODICT |
                              XML_PARSE_NOCDATA | XML_PARSE_IGNORE_ENC | XML_PARSE_HUGE;
constexpr std::string_view UTF8_BYTE_ORDER_MARK = "\xEF\xBB\xBF";

struct parser_delete_t {
  void operator()(xmlParserCtxt *parser) const
  {
    xmlFreeDoc(parser->myDoc);
    parser->myDoc = nullptr;
    xmlFreeParserCtxt(parser);
  }
};
using parser_ptr = std::unique_ptr<xmlParserCtxt, parser_delete_t>;

const xmlChar *as_xml(const char *text)
{
  return reinterpret_cast<const xmlChar *>(text);
}
const char *as_char(const xmlChar *text)
{
  return reinterpret_cast<const char *>(text);
}

void wiping_free(void *block)
{
  if (block != nullptr && !wiping_heap_is_enabled()) { // else free() does it
    size_t size = malloc_usable_size(block);
    memset_s(block, size, 0, size);
  }
  std::free(block);
}

void *wiping_realloc(void *block, size_t size)
{
  void *grown = std::malloc(size);
  if (grown == nullptr || block == nullptr) {
    return grown;
  }
  std::memcpy(grown, block, std::min(size, malloc_usable_size(block)));
  wiping_free(block);
  return grown;
}

parser_ptr make_parser(std::string_view text)
{
  parser_ptr parser(xmlNewParserCtxt());
  xmlParserInputBuffer *bytes =
      xmlParserInputBufferCreateMem(text.data(), static_cast<int>(text.size()), XML_CHAR_ENCODING_NONE);
  if (parser == nullptr || bytes == nullptr) {
    xmlFreeParserInputBuffer(bytes);
    return nullptr;
  }
  xmlParserInput *input = xmlNewIOInputStream(parser.get(), bytes, XML_CHAR_ENCODING_NONE);
  if (input == nullptr) {
    xmlFreeParserInputBuffer(bytes);
    return nullptr;
  }
  inputPush(parser.get(), input); // the parser owns it now
  xmlCtxtUseOptions(parser.get(), PARSE_OPTIONS);
  parser->encoding = xmlStrdup(as_xml("UTF-8")); // keeps libxml2 from guessing from the first bytes
  xml_limit_parser(parser.get());
  parser->sax->comment = nullptr;
  parser->sax->processingInstruction = nullptr;
  return parser;
}

template <class T>
int append_output(void *context, const char *bytes, int length)
{
  try {
    static_cast<T *>(context)->append(bytes, static_cast<size_t>(length));
    return length;
  } catch (const std::bad_alloc &) {
    return -1;
  }
}

// The siblings from `first` up to `end`. 0 or -1.
template <class T>
int append_markup(const lyxml_elem *first, const lyxml_elem *end, T *text)
{
  xmlOutputBuffer *output = xmlOutputBufferCreateIO(append_output<T>, nullptr, text, nullptr);
  if (output == nullptr) {
    return -1;
  }
  for (const lyxml_elem *elem = first; elem != end; elem = lyxml_next(elem)) {
    // Printing only reads the tree, whatever the parameter type says.
    xmlNodeDumpOutput(output, elem->doc, const_cast<lyxml_elem *>(elem), 0, 0, nullptr);
  }
  return xmlOutputBufferClose(output) < 0 ? -1 : 0;
}

void declare_namespaces_in_scope(lyxml_elem *elem)
{
  xmlNs **in_scope = xmlGetNsList(elem->doc, elem);
  for (xmlNs **ns = in_scope; ns != nullptr && *ns != nullptr; ns++) {
    (void)xmlNewNs(elem, (*ns)->href, (*ns)->prefix); // null when the element declares that prefix itself
  }
  xmlFree(in_scope);
}

} // namespace

void lyxml_root_delete_t::operator()(lyxml_elem *root) const
{
  xmlFreeDoc(root->doc);
}

void lyxml_init_wiping_memory()
{
  xmlMemSetup(wiping_free, std::malloc, wiping_realloc, strdup);
  xmlInitParser();
}

lyxml_ptr lyxml_parse_mem(std::string_view text)
{
  if (text.starts_with(UTF8_BYTE_ORDER_MARK)) {
    text.remove_prefix(UTF8_BYTE_ORDER_MARK.size());
  }
  if (text.empty() || text.size() > INT_MAX || !xml_tags_are_small(text)) {
    return nullptr;
  }
  // The parser takes a zero byte for the end of the document and would accept any bytes behind it.
  if (text.find('\0') != std::string_view::npos) {
    return nullptr;
  }
  parser_ptr parser = make_parser(text);
  if (parser == nullptr) {
    return nullptr;
  }
  xmlResetLastError();
  xmlParseDocument(parser.get());
  if (parser->wellFormed == 0 || parser->nsWellFormed == 0 || !xml_is_complete(parser.get())) {
    xmlResetLastError(); // it may name what was text, taken for markup
    return nullptr;
  }
  lyxml_ptr root(xmlDocGetRootElement(parser->myDoc));
  if (root != nullptr) {
    parser->myDoc = nullptr; // goes with the root
  }
  return root;
}

lyxml_ptr lyxml_new_root(const char *name)
{
  xmlDoc *doc = xmlNewDoc(as_xml("1.0"));
  if (doc == nullptr) {
    return nullptr;
  }
  xmlNode *root = xmlNewDocNode(doc, nullptr, as_xml(name), nullptr);
  if (root == nullptr) {
    xmlFreeDoc(doc);
    return nullptr;
  }
  xmlDocSetRootElement(doc, root);
  return lyxml_ptr(root);
}

lyxml_elem *lyxml_new_elem(lyxml_elem *parent, const char *name, const char *text)
{
  return xmlNewTextChild(parent, nullptr, as_xml(name), as_xml(text));
}

int lyxml_set_elem_ns(lyxml_elem *elem, const char *ns, const char *prefix)
{
  xmlNs *declared = xmlNewNs(elem, as_xml(ns), as_xml(prefix));
  if (declared == nullptr) {
    return -1;
  }
  xmlSetNs(elem, declared);
  return 0;
}

int lyxml_set_elem_attr(lyxml_elem *elem, const char *name, const char *value)
{
  return xmlSetProp(elem, as_xml(name), as_xml(value)) == nullptr ? -1 : 0;
}

int lyxml_set_text(lyxml_elem *elem, std::string_view text)
{
  xmlNode *node =
      xmlNewDocTextLen(elem->doc, reinterpret_cast<const xmlChar *>(text.data()), static_cast<int>(text.size()));
  if (node == nullptr) {
    return -1;
  }
  while (elem->children != nullptr) {
    lyxml_free_elem(elem->children);
  }
  xmlAddChild(elem, node);
  return 0;
}

lyxml_ptr lyxml_copy(lyxml_elem *elem)
{
  enum { COPY_DEEP = 1 };
  declare_namespaces_in_scope(elem);
  xmlDoc *doc = xmlNewDoc(as_xml("1.0"));
  xmlNode *copy = doc == nullptr ? nullptr : xmlDocCopyNode(elem, doc, COPY_DEEP);
  if (copy == nullptr) {
    xmlFreeDoc(doc);
    return nullptr;
  }
  xmlDocSetRootElement(doc, copy);
  return lyxml_ptr(copy);
}

void lyxml_free_elem(lyxml_elem *elem)
{
  if (elem != nullptr) {
    xmlUnlinkNode(elem);
    xmlFreeNode(elem);
  }
}

std::string lyxml_print_mem(const lyxml_elem *elem)
{
  std::string text;
  return append_markup(elem, lyxml_next(elem), &text) == 0 ? text : std::string();
}

int lyxml_append_children(const lyxml_elem *elem, wiped_string *text)
{
  return append_markup<wiped_string>(lyxml_first_child(elem), nullptr, text);
}

std::string lyxml_print_self_contained(lyxml_elem *elem)
{
  declare_namespaces_in_scope(elem);
  return lyxml_print_mem(elem);
}

std::string_view lyxml_name(const lyxml_elem *elem)
{
  return as_char(elem->name);
}

std::string_view lyxml_ns(const lyxml_elem *elem)
{
  return elem->ns == nullptr || elem->ns->href == nullptr ? std::string_view() : as_char(elem->ns->href);
}

std::string lyxml_text(const lyxml_elem *elem)
{
  std::string text;
  for (const xmlNode *node = elem->children; node != nullptr; node = node->next) {
    if ((node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) && node->content != nullptr) {
      text += as_char(node->content);
    }
  }
  return text;
}

bool lyxml_is_blank(std::string_view text)
{
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

lyxml_elem *lyxml_first_child(const lyxml_elem *parent)
{
  xmlNode *node = parent->children;
  while (node != nullptr && node->type != XML_ELEMENT_NODE) {
    node = node->next;
  }
  return node;
}

lyxml_elem *lyxml_next(const lyxml_elem *elem)
{
  xmlNode *node = elem->next;
  while (node != nullptr && node->type != XML_ELEMENT_NODE) {
    node = node->next;
  }
  return node;
}

lyxml_elem *lyxml_find_child(const lyxml_elem *parent, const char *name)
{
  lyxml_elem *child = lyxml_first_child(parent);
  while (child != nullptr && lyxml_name(child) != name) {
    child = lyxml_next(child);
  }
  return child;
}

lyxml_elem *lyxml_rpc_get_elem(lyxml_elem *root, const char *const *path)
{
  if (root == nullptr || *path == nullptr || lyxml_name(root) != *path) {
    return nullptr;
  }
  lyxml_elem *elem = root;
  for (path++; elem != nullptr && *path != nullptr; path++) {
    elem = lyxml_find_child(elem, *path);
  }
  return elem;
}

bool lyxml_get_attr(const lyxml_elem *elem, const char *name, std::string *ret_value)
{
  for (xmlAttr *attr = elem->properties; attr != nullptr; attr = attr->next) {
    if (std::strcmp(as_char(attr->name), name) == 0) {
      xmlChar *value = xmlNodeListGetString(elem->doc, attr->children, 1);
      *ret_value = value == nullptr ? "" : as_char(value);
      xmlFree(value);
      return true;
    }
  }
  return false;
}
