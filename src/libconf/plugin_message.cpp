#include "libconf/plugin_message.h"

#include <algorithm>
#include <charconv>
#include <climits>

#include <libxml/parser.h>

#include "libconf/xml_limits.h"

namespace {

constexpr size_t LONGEST_CHARACTER = 4; // in UTF-8

const xmlChar *xml_text(const char *text)
{
  return reinterpret_cast<const xmlChar *>(text);
}

std::string_view name_of(const xmlNode *node)
{
  return reinterpret_cast<const char *>(node->name);
}

void wipe(void *text, size_t length)
{
  memset_s(text, length, 0, length);
}

// The node behind `node` in document order, within `root`; null at the end.
xmlNode *next_in_document(xmlNode *node, const xmlNode *root)
{
  if (node->type == XML_ELEMENT_NODE && node->children != nullptr) {
    return node->children;
  }
  while (node != root && node->next == nullptr) {
    node = node->parent;
  }
  return node == root ? nullptr : node->next;
}

void wipe_texts(xmlNode *root)
{
  for (xmlNode *node = root; node != nullptr; node = next_in_document(node, root)) {
    if (node->type != XML_ELEMENT_NODE && xmlNodeIsText(node) && node->content != nullptr) {
      wipe(node->content, static_cast<size_t>(xmlStrlen(node->content)));
    }
  }
}

struct xml_node_delete_t {
  void operator()(xmlNode *node) const
  {
    wipe_texts(node);
    xmlFreeNode(node);
  }
};
using xml_node_ptr = std::unique_ptr<xmlNode, xml_node_delete_t>; // linked to no other node

struct xml_buffer_delete_t {
  void operator()(xmlBuffer *buffer) const
  {
    wipe(const_cast<xmlChar *>(xmlBufferContent(buffer)), static_cast<size_t>(xmlBufferLength(buffer)));
    xmlBufferFree(buffer);
  }
};
using xml_buffer_ptr = std::unique_ptr<xmlBuffer, xml_buffer_delete_t>;

struct parser_delete_t {
  void operator()(xmlParserCtxt *parser) const { xmlFreeParserCtxt(parser); }
};
using parser_ptr = std::unique_ptr<xmlParserCtxt, parser_delete_t>;

// Without a dictionary nodes own their names, so that they can move to another document.
constexpr int PARSE_OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOBLANKS |
                              XML_PARSE_NOCDATA | XML_PARSE_NODICT;
// libxml2 refuses longer texts unless it is told that the document may be huge.
constexpr size_t HUGE_MESSAGE = 10'000'000;

// Null when memory is short.
parser_ptr new_parser()
{
  parser_ptr parser(xmlNewParserCtxt());
  if (parser != nullptr) {
    xml_limit_parser(parser.get());
  }
  return parser;
}

// Making a parser takes longer than parsing a short message, so it is kept. It remembers the names that it has met:
// one that has met too many is replaced. Null when memory is short.
thread_local parser_ptr kept_parser;

xmlParserCtxt *thread_parser()
{
  constexpr int NAMES_MAX = 10000;
  if (kept_parser == nullptr || xmlDictSize(kept_parser->dict) > NAMES_MAX) {
    kept_parser = new_parser();
  }
  return kept_parser.get();
}

// What is no XML may have had its texts taken for names, which the parser and the last error keep.
void forget_failed_message()
{
  kept_parser.reset();
  xmlResetLastError();
}

xmlNode *element_from(xmlNode *node)
{
  while (node != nullptr && node->type != XML_ELEMENT_NODE) {
    node = node->next;
  }
  return node;
}

std::string_view trimmed(std::string_view text)
{
  constexpr std::string_view BLANKS = " \t\r\n";
  size_t begin = text.find_first_not_of(BLANKS);
  return begin == std::string_view::npos ? std::string_view()
                                         : text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

std::string text_of(const xmlNode *node)
{
  xmlChar *content = xmlNodeGetContent(node);
  std::string text(content == nullptr ? "" : reinterpret_cast<const char *>(content));
  xmlFree(content);
  return std::string(trimmed(text));
}

std::optional<int64_t> number_of(const std::string &text, int64_t least, int64_t most)
{
  int64_t number = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < least || number > most) {
    return std::nullopt;
  }
  return number;
}

plugin_doc_ptr new_document(const char *root_name)
{
  plugin_doc_ptr doc(xmlNewDoc(xml_text("1.0")));
  xmlNode *root = doc == nullptr ? nullptr : xmlNewDocNode(doc.get(), nullptr, xml_text(root_name), nullptr);
  if (root == nullptr) {
    return nullptr;
  }
  (void)xmlDocSetRootElement(doc.get(), root); // returns the root before: none
  return doc;
}

bool is_xml_character(uint32_t code)
{
  return code == '\t' || code == '\n' || code == '\r' || (code >= 0x20 && code <= 0xD7FF) ||
         (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
}

// Of the character at its beginning; 0 when XML can not carry it.
size_t length_of_first(std::string_view text)
{
  int length = static_cast<int>(std::min<size_t>(text.size(), LONGEST_CHARACTER));
  int code = xmlGetUTF8Char(reinterpret_cast<const unsigned char *>(text.data()), &length);
  return code >= 0 && length > 0 && is_xml_character(static_cast<uint32_t>(code)) ? static_cast<size_t>(length) : 0;
}

bool can_be_carried(std::string_view text)
{
  while (!text.empty()) {
    size_t length = length_of_first(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

int append_self_contained(const xmlNode *node, wiped_string *text)
{
  // Only read; libxml2 has no const form.
  xml_node_ptr copy(xmlDocCopyNode(const_cast<xmlNode *>(node), node->doc, 1));
  if (copy == nullptr) {
    return -1;
  }
  // A copy brings the namespaces that its names use. Prefixes inside values need those of all ancestors.
  xmlNs **in_scope = xmlGetNsList(node->doc, node);
  for (xmlNs **ns = in_scope; ns != nullptr && *ns != nullptr; ns++) {
    if ((*ns)->prefix != nullptr) {
      (void)xmlNewNs(copy.get(), (*ns)->href, (*ns)->prefix); // null when the prefix is declared there
    }
  }
  xmlFree(in_scope);
  xml_buffer_ptr buffer(xmlBufferCreate());
  int length = buffer == nullptr ? -1 : xmlNodeDump(buffer.get(), node->doc, copy.get(), 0, 0);
  if (length >= 0) {
    text->append(reinterpret_cast<const char *>(xmlBufferContent(buffer.get())), static_cast<size_t>(length));
  }
  return length < 0 ? -1 : 0;
}

} // namespace

void plugin_doc_delete_t::operator()(xmlDoc *doc) const
{
  wipe_texts(xmlDocGetRootElement(doc));
  xmlFreeDoc(doc);
}

plugin_doc_ptr plugin_new_params()
{
  return new_document("params");
}

plugin_doc_ptr plugin_build_rpc_message(const char *method, plugin_doc_ptr params, uint16_t msg_id)
{
  plugin_doc_ptr message = new_document("rpc");
  if (message == nullptr || plugin_add_text(plugin_root_of(message), "method", method) == nullptr) {
    return nullptr;
  }
  xmlNode *root = plugin_root_of(message);
  if (params == nullptr) {
    if (plugin_add_text(root, "params", "") == nullptr) {
      return nullptr;
    }
  } else {
    xmlNode *content = plugin_root_of(params);
    xmlUnlinkNode(content);
    xmlSetTreeDoc(content, message.get());
    if (xmlAddChild(root, content) == nullptr) {
      xmlFreeNode(content);
      return nullptr;
    }
  }
  return plugin_add_int(root, "id", msg_id) == nullptr ? nullptr : std::move(message);
}

plugin_doc_ptr plugin_build_reply_ok(uint16_t msg_id)
{
  plugin_doc_ptr message = new_document("reply");
  if (message == nullptr || plugin_add_text(plugin_root_of(message), "result", "") == nullptr ||
      plugin_add_int(plugin_root_of(message), "id", msg_id) == nullptr) {
    return nullptr;
  }
  return message;
}

plugin_doc_ptr plugin_build_reply_error(int code, const char *message_text, uint16_t msg_id)
{
  plugin_doc_ptr message = new_document("reply");
  xmlNode *error = message == nullptr ? nullptr : plugin_add_text(plugin_root_of(message), "error", "");
  if (error == nullptr || plugin_add_int(error, "code", code) == nullptr ||
      plugin_add_text(error, "message", message_text) == nullptr ||
      plugin_add_int(plugin_root_of(message), "id", msg_id) == nullptr) {
    return nullptr;
  }
  return message;
}

xmlNode *plugin_root_of(const plugin_doc_ptr &doc)
{
  return doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
}

xmlNode *plugin_result_of(const plugin_doc_ptr &reply)
{
  xmlNode *root = plugin_root_of(reply);
  return root == nullptr ? nullptr : plugin_find_element(root, "result");
}

xmlNode *plugin_add_text(xmlNode *parent, const char *name, std::string_view text)
{
  if (text.size() > INT_MAX || !can_be_carried(text)) {
    return nullptr;
  }
  xmlNode *node = xmlNewChild(parent, nullptr, xml_text(name), nullptr);
  if (node != nullptr && !text.empty()) {
    xmlNodeAddContentLen(node, reinterpret_cast<const xmlChar *>(text.data()), static_cast<int>(text.size()));
  }
  return node;
}

std::string plugin_printable(std::string_view text, size_t most)
{
  std::string printable;
  while (!text.empty() && printable.size() < most) {
    size_t length = length_of_first(text);
    if (printable.size() + length > most) {
      break;
    }
    printable.append(length == 0 ? "?" : text.substr(0, length));
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return printable;
}

xmlNode *plugin_add_int(xmlNode *parent, const char *name, long value)
{
  return plugin_add_text(parent, name, std::to_string(value));
}

int plugin_add_markup(xmlNode *parent, std::string_view markup)
{
  wiped_string text;
  text.reserve(markup.size() + 16);
  text.append("<m>").append(markup).append("</m>");
  plugin_doc_ptr parsed = plugin_parse_message(text);
  if (parsed == nullptr) {
    return -1;
  }
  xmlNode *node = plugin_root_of(parsed)->children;
  while (node != nullptr) {
    xmlNode *next = node->next;
    xmlUnlinkNode(node);
    xmlSetTreeDoc(node, parent->doc);
    if (xmlAddChild(parent, node) == nullptr) {
      xmlFreeNode(node);
      return -1;
    }
    node = next;
  }
  return 0;
}

wiped_string plugin_print_message(const plugin_doc_ptr &message)
{
  wiped_string text;
  xml_buffer_ptr buffer(xmlBufferCreate());
  xmlNode *root = plugin_root_of(message);
  if (root != nullptr && buffer != nullptr && xmlNodeDump(buffer.get(), message.get(), root, 0, 0) >= 0) {
    text.assign(reinterpret_cast<const char *>(xmlBufferContent(buffer.get())),
                static_cast<size_t>(xmlBufferLength(buffer.get())));
  }
  return text;
}

wiped_string plugin_frame_message(const plugin_doc_ptr &message, uint16_t msg_id)
{
  wiped_string text = plugin_print_message(message);
  plugin_msg_head_t head = {PLUGIN_MSG_MAGIC, static_cast<uint32_t>(text.size()), msg_id, 0};
  wiped_string frame;
  frame.reserve(sizeof(head) + text.size());
  frame.append(reinterpret_cast<const char *>(&head), sizeof(head)).append(text);
  return frame;
}

plugin_doc_ptr plugin_parse_message(std::string_view text)
{
  if (text.empty() || text.size() > INT_MAX || !xml_tags_are_small(text)) {
    return nullptr;
  }
  // What is granted to a huge message would stay granted to those behind it.
  bool is_huge = text.size() > HUGE_MESSAGE;
  parser_ptr own = is_huge ? new_parser() : nullptr;
  xmlParserCtxt *parser = is_huge ? own.get() : thread_parser();
  if (parser == nullptr) {
    return nullptr;
  }
  xmlResetLastError();
  plugin_doc_ptr doc(xmlCtxtReadMemory(parser, text.data(), static_cast<int>(text.size()), nullptr, "UTF-8",
                                       PARSE_OPTIONS | (is_huge ? XML_PARSE_HUGE : 0)));
  bool is_sound = doc != nullptr && parser->nsWellFormed != 0 && xml_is_complete(parser) &&
                  xmlDocGetRootElement(doc.get()) != nullptr;
  if (is_sound) {
    xmlCtxtReset(parser); // it would hold the message until the next one
  } else {
    forget_failed_message();
  }
  return is_sound ? std::move(doc) : nullptr;
}

bool plugin_is_reply(const xmlNode *message)
{
  return message != nullptr && name_of(message) == "reply";
}

int plugin_parse_rpc(const xmlNode *rpc, std::string *ret_method, xmlNode **ret_params)
{
  if (rpc == nullptr || name_of(rpc) != "rpc") {
    return -1;
  }
  std::optional<std::string> method = plugin_child_text(rpc, "method");
  xmlNode *params = plugin_find_element(rpc, "params");
  if (!method || method->empty() || params == nullptr) {
    return -1;
  }
  *ret_method = std::move(*method);
  *ret_params = params;
  return 0;
}

int plugin_parse_reply(const xmlNode *reply, xmlNode **ret_result, xmlNode **ret_error)
{
  if (!plugin_is_reply(reply)) {
    return -1;
  }
  xmlNode *result = plugin_find_element(reply, "result");
  xmlNode *error = plugin_find_element(reply, "error");
  if ((result == nullptr) == (error == nullptr)) {
    return -1;
  }
  *ret_result = result;
  *ret_error = error;
  return 0;
}

int plugin_get_msgid(const xmlNode *message)
{
  return static_cast<int>(plugin_child_int(message, "id", 1, UINT16_MAX).value_or(0));
}

int plugin_get_reply_errcode(const xmlNode *error)
{
  return static_cast<int>(plugin_child_int(error, "code", INT_MIN, INT_MAX).value_or(-1));
}

std::string plugin_get_reply_errmsg(const xmlNode *error)
{
  return plugin_child_text(error, "message").value_or("");
}

xmlNode *plugin_first_element(const xmlNode *parent)
{
  return parent == nullptr ? nullptr : element_from(parent->children);
}

xmlNode *plugin_next_element(const xmlNode *node)
{
  return element_from(node->next);
}

xmlNode *plugin_find_element(const xmlNode *parent, const char *name)
{
  xmlNode *node = plugin_first_element(parent);
  while (node != nullptr && name_of(node) != name) {
    node = plugin_next_element(node);
  }
  return node;
}

std::optional<std::string> plugin_child_text(const xmlNode *parent, const char *name)
{
  const xmlNode *node = plugin_find_element(parent, name);
  if (node == nullptr) {
    return std::nullopt;
  }
  return text_of(node);
}

std::optional<int64_t> plugin_child_int(const xmlNode *parent, const char *name, int64_t least, int64_t most)
{
  std::optional<std::string> text = plugin_child_text(parent, name);
  return text ? number_of(*text, least, most) : std::nullopt;
}

bool plugin_child_flag(const xmlNode *parent, const char *name)
{
  std::optional<std::string> text = plugin_child_text(parent, name);
  return text && (text->empty() || *text == "1" || *text == "true");
}

int plugin_append_markup(const xmlNode *parent, wiped_string *text)
{
  for (const xmlNode *node = plugin_first_element(parent); node != nullptr; node = plugin_next_element(node)) {
    if (append_self_contained(node, text) != 0) {
      return -1;
    }
  }
  return 0;
}
