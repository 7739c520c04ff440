#include "support/netconf_session.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <memory>
#include <numeric>
#include <utility>

#include <libxml/parser.h>
#include <libxml/tree.h>

namespace support {

void xml_document_delete::operator()(xmlDoc *document) const
{
  xmlFreeDoc(document);
}

xml_document_ptr parse_xml(const std::string &xml, xml_blanks blanks)
{
  int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE |
                (blanks == xml_blanks::dropped ? XML_PARSE_NOBLANKS : 0);
  int size = xml.size() > INT_MAX ? 0 : static_cast<int>(xml.size());
  return xml_document_ptr(xmlReadMemory(xml.data(), size, nullptr, nullptr, options));
}

std::vector<const xmlNode *> child_elements(const xmlNode *node)
{
  std::vector<const xmlNode *> elements;
  for (const xmlNode *child = node->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) {
      elements.push_back(child);
    }
  }
  return elements;
}

namespace {

constexpr size_t LONGEST_LINE = 4000; // of a frame that is printed

const xmlNode *root_of(const xml_document_ptr &document)
{
  return document == nullptr ? nullptr : xmlDocGetRootElement(document.get());
}

std::string_view view(const xmlChar *text)
{
  return text == nullptr ? "" : reinterpret_cast<const char *>(text);
}

std::string_view namespace_of(const xmlNode *node)
{
  return node->ns == nullptr ? "" : view(node->ns->href);
}

std::string text_of(const xmlNode *node)
{
  std::unique_ptr<xmlChar, void (*)(void *)> content(xmlNodeGetContent(node), xmlFree);
  return std::string(view(content.get()));
}

// The node itself or the first one below it of that name.
const xmlNode *find(const xmlNode *node, std::string_view name)
{
  if (node == nullptr || view(node->name) == name) {
    return node;
  }
  for (const xmlNode *child : child_elements(node)) {
    if (const xmlNode *found = find(child, name); found != nullptr) {
      return found;
    }
  }
  return nullptr;
}

// Each prefix in scope gives way to its namespace: xmlns:a="urn:x" and "/a:b" are "/{urn:x}b".
std::string without_prefixes(const std::string &text, const xmlNode *scope)
{
  std::string result;
  size_t begin = 0; // of the word that may be a prefix
  for (size_t at = 0; at < text.size(); at++) {
    if (text[at] == ':') {
      std::string prefix = text.substr(begin, at - begin);
      const xmlNs *ns = prefix.empty() ? nullptr
                                       : xmlSearchNs(scope->doc, const_cast<xmlNode *>(scope),
                                                     reinterpret_cast<const xmlChar *>(prefix.c_str()));
      result += ns == nullptr ? prefix + ":" : "{" + std::string(view(ns->href)) + "}";
      begin = at + 1;
    } else if (std::isalnum(static_cast<unsigned char>(text[at])) == 0 && text[at] != '-' && text[at] != '_' &&
               text[at] != '.') {
      result += text.substr(begin, at + 1 - begin);
      begin = at + 1;
    }
  }
  return result + text.substr(begin);
}

std::string join(std::vector<std::string> parts, siblings order)
{
  if (order == siblings::sorted) {
    std::sort(parts.begin(), parts.end());
  }
  if (order == siblings::by_name) {
    auto name = [](const std::string &part) { return std::string_view(part).substr(0, part.find('>')); };
    std::stable_sort(parts.begin(), parts.end(), [&](const auto &a, const auto &b) { return name(a) < name(b); });
  }
  return std::accumulate(parts.begin(), parts.end(), std::string());
}

std::string print_children(const xmlNode *node, std::string_view outer_namespace, siblings order);

std::string print(const xmlNode *node, std::string_view outer_namespace, siblings order)
{
  std::string_view own_namespace = namespace_of(node);
  std::string name(view(node->name));
  std::vector<std::string> attributes;
  for (const xmlAttr *attribute = node->properties; attribute != nullptr; attribute = attribute->next) {
    std::string space = attribute->ns == nullptr ? "" : "{" + std::string(view(attribute->ns->href)) + "}";
    attributes.push_back(" " + space + std::string(view(attribute->name)) + "=\"" +
                         text_of(reinterpret_cast<const xmlNode *>(attribute)) + "\"");
  }
  return "<" + name + (own_namespace == outer_namespace ? "" : " xmlns=\"" + std::string(own_namespace) + "\"") +
         join(attributes, siblings::sorted) + ">" + print_children(node, own_namespace, order) + "</" + name + ">\n";
}

std::string print_children(const xmlNode *node, std::string_view outer_namespace, siblings order)
{
  std::vector<std::string> parts;
  for (const xmlNode *child : child_elements(node)) {
    parts.push_back(print(child, outer_namespace, order));
  }
  return parts.empty() ? without_prefixes(text_of(node), node) : join(parts, order);
}

std::string cut(const std::string &line)
{
  return line.size() <= LONGEST_LINE ? line
                                     : line.substr(0, LONGEST_LINE) + "... (" + std::to_string(line.size()) + ")";
}

} // namespace

std::optional<rpc_error_t> find_error(const std::string &reply)
{
  xml_document_ptr document = parse_xml(reply);
  const xmlNode *element = find(root_of(document), "rpc-error");
  if (element == nullptr) {
    return std::nullopt;
  }
  rpc_error_t error;
  const std::pair<std::string_view, std::string *> fields[] = {{"error-tag", &error.tag},
                                                               {"error-app-tag", &error.app_tag},
                                                               {"error-path", &error.path},
                                                               {"error-message", &error.message}};
  for (const xmlNode *child : child_elements(element)) {
    for (const auto &[name, field] : fields) {
      if (view(child->name) == name) {
        *field = text_of(child);
      }
    }
  }
  return error;
}

bool is_ok(const std::string &reply)
{
  xml_document_ptr document = parse_xml(reply);
  const xmlNode *root = root_of(document);
  if (root == nullptr || view(root->name) != "rpc-reply") {
    return false;
  }
  std::vector<const xmlNode *> children = child_elements(root);
  return children.size() == 1 && view(children.front()->name) == "ok";
}

std::optional<std::string> find_text(const std::string &xml, std::string_view name)
{
  xml_document_ptr document = parse_xml(xml);
  const xmlNode *found = find(root_of(document), name);
  return found == nullptr ? std::nullopt : std::optional(text_of(found));
}

std::string normalize(const std::string &xml, siblings order)
{
  xml_document_ptr document = parse_xml(xml);
  const xmlNode *root = root_of(document);
  return root == nullptr ? xml : print(root, "", order);
}

std::string normalize(const xmlNode *element, std::string_view outer_namespace, siblings order)
{
  return print(element, outer_namespace, order);
}

std::string reply_data(const std::string &reply, siblings order)
{
  xml_document_ptr document = parse_xml(reply);
  const xmlNode *data = find(root_of(document), "data");
  return data == nullptr ? normalize(reply, order) : print_children(data, "", order);
}

std::string edit_config(const std::string &target, const std::string &config, const std::string &options)
{
  return "<edit-config><target><" + target + "/></target>" + options +
         "<config xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + config + "</config></edit-config>";
}

std::string get_config(const std::string &source)
{
  return "<get-config><source><" + source + "/></source></get-config>";
}

std::string copy_config(const std::string &target, const std::string &source)
{
  return "<copy-config><target><" + target + "/></target><source>" + source + "</source></copy-config>";
}

std::string rpc_of(const std::string &operation, const std::string &message_id)
{
  return "<rpc message-id=\"" + message_id + "\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + operation +
         "</rpc>";
}

bool is_closed_by_daemon(ymgr_client_t *client)
{
  return !ymgr_receive(client) && ymgr_last_error(client).find("closed") != std::string::npos;
}

netconf_session::netconf_session(const std::string &run_dir, const std::string &username)
{
  std::string reason;
  client_ = ymgr_connect(run_dir, &reason);
  std::optional<int> id = client_ == nullptr ? std::nullopt : ymgr_create_session(client_.get(), username);
  EXPECT_TRUE(id) << "no session: " << (client_ == nullptr ? reason : ymgr_last_error(client_.get()));
  id_ = id.value_or(0);
}

std::string netconf_session::rpc(const std::string &operation, std::chrono::milliseconds timeout)
{
  lines_.push_back("> " + cut(operation) + "\n");
  std::optional<std::string> reply = client_ == nullptr ? std::nullopt : ymgr_rpc(client_.get(), operation, timeout);
  std::string reason = client_ == nullptr ? "not connected" : ymgr_last_error(client_.get());
  lines_.push_back("< " + (reply ? cut(*reply) : "(" + reason + ")") + "\n");
  EXPECT_TRUE(reply) << "no reply (" << reason << "), request: " << cut(operation);
  return reply.value_or("");
}

testing::AssertionResult netconf_session::ok(const std::string &operation)
{
  std::string reply = rpc(operation);
  if (is_ok(reply)) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "request: " << cut(operation) << "\nreply:   " << cut(reply);
}

rpc_error_t netconf_session::error(const std::string &operation)
{
  std::string reply = rpc(operation);
  std::optional<rpc_error_t> error = find_error(reply);
  if (!error) {
    ADD_FAILURE() << "an error was expected, request: " << cut(operation) << "\nreply: " << cut(reply);
  }
  return error.value_or(rpc_error_t());
}

bool netconf_session::send(const std::string &operation)
{
  return ymgr_send(client(), rpc_of(operation)).has_value();
}

std::string netconf_session::receive()
{
  return ymgr_receive(client(), DEADLINE).value_or(ymgr_frame_t()).payload;
}

std::string netconf_session::next_notification(std::chrono::milliseconds timeout)
{
  std::string notification = ymgr_receive_notification(client(), timeout).value_or(ymgr_frame_t()).payload;
  lines_.push_back("< " + (notification.empty() ? "(no notification)" : cut(notification)) + "\n");
  return notification;
}

std::string netconf_session::conversation() const
{
  return std::accumulate(lines_.begin(), lines_.end(), std::string());
}

} // namespace support
