#include "netconf/netconf_request.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <libxml/parser.h>

#include "client/client.h"

namespace {

// A longer start tag is not looked at: no client writes one.
constexpr size_t LONGEST_TAG = 4096;

// --- The request's start tag.

// Position of the first start tag from `pos` on, behind text, comments and declarations; npos when something else comes
// first. Text in front of a root is a fault, which the daemon finds.
size_t find_start_tag(std::string_view text, size_t pos)
{
  static constexpr struct {
    std::string_view begin;
    std::string_view end;
  } passed_over[] = {{"<!--", "-->"}, {"<?", "?>"}};

  while ((pos = text.find('<', pos)) != std::string_view::npos) {
    const auto *section = std::find_if(std::begin(passed_over), std::end(passed_over), [&](const auto &candidate) {
      return text.compare(pos, candidate.begin.size(), candidate.begin) == 0;
    });
    if (section == std::end(passed_over)) {
      bool is_start = pos + 1 < text.size() && text[pos + 1] != '!' && text[pos + 1] != '/';
      return is_start ? pos : std::string_view::npos;
    }
    size_t end = text.find(section->end, pos + section->begin.size());
    if (end == std::string_view::npos) {
      break;
    }
    pos = end + section->end.size();
  }
  return std::string_view::npos;
}

// The tag at `pos` up to its ">"; empty when it is cut off or very long.
std::string_view tag_at(std::string_view text, size_t pos)
{
  text = text.substr(pos, LONGEST_TAG);
  char quote = '\0';
  for (size_t i = 0; i < text.size(); i++) {
    char c = text[i];
    if (quote != '\0') {
      quote = c == quote ? '\0' : quote;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return text.substr(0, i + 1);
    }
  }
  return {};
}

// Empty for an empty tag.
std::string local_name_of(std::string_view tag)
{
  size_t end = tag.find_first_of(" \t\r\n/>");
  std::string_view name = tag.substr(0, end);
  name.remove_prefix(std::min<size_t>(name.size(), 1));
  return std::string(name.substr(name.find(':') + 1)); // npos + 1 is the beginning
}

// --- Own replies.

typedef struct _fault_row {
  netconf_fault fault;
  const char *tag;
  const char *tag_1_0; // for clients that do not know `tag`
  const char *message;
  const char *info; // markup; may be null
} fault_row_t;

const fault_row_t fault_table[] = {
    {netconf_fault::too_big, "too-big", "too-big",
     "The request or response is too large for the implementation to handle.", nullptr},
    {netconf_fault::malformed, "malformed-message", "operation-failed",
     "A message could not be handled because it failed to be parsed correctly.", nullptr},
    {netconf_fault::no_message_id, "missing-attribute", "missing-attribute", "An expected attribute is missing.",
     "<bad-attribute>message-id</bad-attribute><bad-element>rpc</bad-element>"},
};

std::string error_markup(const fault_row_t &row, bool has_base_1_1)
{
  std::string markup = "<error-type>rpc</error-type><error-tag>";
  markup.append(has_base_1_1 ? row.tag : row.tag_1_0)
      .append("</error-tag><error-severity>error</error-severity><error-message xml:lang=\"en\">")
      .append(row.message)
      .append("</error-message>");
  if (row.info != nullptr) {
    markup.append("<error-info>").append(row.info).append("</error-info>");
  }
  return markup;
}

// --- The daemon's replies.

// Puts what the text of `info` says in its place. Nothing is changed when that is no element.
void make_elements(xmlNode *info)
{
  xmlNode *text = info->children;
  if (text == nullptr || text->next != nullptr || text->type != XML_TEXT_NODE || text->content == nullptr) {
    return;
  }
  std::string markup = reinterpret_cast<const char *>(text->content);
  xmlNode *nodes = nullptr;
  xmlParserErrors result = xmlParseInNodeContext(info, markup.data(), static_cast<int>(markup.size()),
                                                 XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING, &nodes);
  bool has_elements = false;
  bool has_text = false;
  for (const xmlNode *node = nodes; node != nullptr; node = node->next) {
    has_elements = has_elements || node->type == XML_ELEMENT_NODE;
    has_text = has_text || (node->type != XML_ELEMENT_NODE && xmlIsBlankNode(node) == 0);
  }
  if (result != XML_ERR_OK || !has_elements || has_text) {
    xmlFreeNodeList(nodes);
    return;
  }
  xmlUnlinkNode(text);
  xmlFreeNode(text);
  xmlAddChildList(info, nodes);
}

} // namespace

netconf_request_t netconf_request_read(std::string_view message)
{
  netconf_request_t request;
  const size_t begin = find_start_tag(message, 0);
  const std::string_view tag = begin == std::string_view::npos ? std::string_view() : tag_at(message, begin);
  if (tag.size() < std::string_view("<a>").size()) {
    return request;
  }
  const bool is_empty = tag[tag.size() - 2] == '/';
  request.tag = netconf_parse(std::string(tag.substr(0, tag.size() - (is_empty ? 2 : 1))) + "/>");
  if (request.tag == nullptr) {
    return request;
  }
  request.message_id = netconf_attribute(xmlDocGetRootElement(request.tag.get()), "message-id").value_or("");
  const size_t child = is_empty ? std::string_view::npos : find_start_tag(message, begin + tag.size());
  if (child != std::string_view::npos) {
    request.operation = local_name_of(tag_at(message, child));
  }
  return request;
}

netconf_fault netconf_request_check(const netconf_request_t &request)
{
  if (request.tag == nullptr) {
    return netconf_fault::none; // the daemon knows what is wrong with it, if anything
  }
  const xmlNode *root = xmlDocGetRootElement(request.tag.get());
  if (netconf_name(root) != "rpc") {
    return netconf_fault::malformed;
  }
  return netconf_attribute(root, "message-id").has_value() ? netconf_fault::none : netconf_fault::no_message_id;
}

std::string netconf_fault_reply(const netconf_request_t &request, netconf_fault fault, bool has_base_1_1)
{
  const auto *row = std::find_if(std::begin(fault_table), std::end(fault_table),
                                 [fault](const fault_row_t &candidate) { return candidate.fault == fault; });
  netconf_doc_ptr doc = netconf_parse(std::string("<rpc-reply xmlns=\"") + YMGR_BASE_NAMESPACE + "\"><rpc-error>" +
                                      error_markup(*row, has_base_1_1) + "</rpc-error></rpc-reply>");
  xmlNode *reply = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
  if (reply != nullptr && request.tag != nullptr) {
    reply->properties = xmlCopyPropList(reply, xmlDocGetRootElement(request.tag.get())->properties);
  }
  return reply == nullptr ? std::string() : netconf_print(doc.get());
}

bool netconf_reply_is_to_no_xml(std::string_view reply, uint16_t seq, const netconf_request_t &request)
{
  const std::string number = std::to_string(seq);
  if (request.message_id == number || reply.find("invalid-value") == std::string_view::npos) {
    return false;
  }
  netconf_doc_ptr doc = netconf_parse(reply);
  return doc != nullptr && netconf_attribute(xmlDocGetRootElement(doc.get()), "message-id") == number;
}

std::string netconf_standard_errors(std::string_view reply)
{
  netconf_doc_ptr doc = netconf_parse(reply);
  if (doc == nullptr) {
    return std::string(reply);
  }
  const xmlNode *root = xmlDocGetRootElement(doc.get());
  for (const xmlNode *error = netconf_first_element(root); error != nullptr; error = netconf_next_element(error)) {
    xmlNode *next = netconf_name(error) == "rpc-error" ? netconf_first_element(error) : nullptr;
    while (next != nullptr) {
      xmlNode *part = std::exchange(next, netconf_next_element(next));
      if (netconf_name(part) == "error-info") {
        make_elements(part);
      } else if (netconf_name(part) == "error-path" && part->children == nullptr) {
        xmlUnlinkNode(part);
        xmlFreeNode(part);
      }
    }
  }
  std::string text = netconf_print(doc.get());
  return text.empty() ? std::string(reply) : text;
}
