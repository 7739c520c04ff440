#include "netconf/netconf_hello.h"

#include <algorithm>

#include "client/client.h"
#include "netconf/netconf_xml.h"

namespace {

constexpr char BASE_1_0[] = "urn:ietf:params:netconf:base:1.0";
constexpr char BASE_1_1[] = "urn:ietf:params:netconf:base:1.1";

// The daemon names a module's features "feature"; clients look for "features" (RFC 6020 5.6.4).
std::string with_standard_features(std::string capability)
{
  constexpr std::string_view DAEMONS = "&feature=";
  constexpr std::string_view STANDARD = "&features=";
  size_t pos = capability.find(DAEMONS);
  return pos == std::string::npos ? capability : capability.replace(pos, DAEMONS.size(), STANDARD);
}

bool contains(const std::vector<std::string> &capabilities, std::string_view capability)
{
  return std::find(capabilities.begin(), capabilities.end(), capability) != capabilities.end();
}

xmlNode *add(xmlNode *parent, const char *name, const std::string &text)
{
  return xmlNewTextChild(parent, nullptr, reinterpret_cast<const xmlChar *>(name),
                         reinterpret_cast<const xmlChar *>(text.c_str()));
}

int refuse(const char *reason, std::string *ret_reason)
{
  *ret_reason = reason;
  return -1;
}

} // namespace

std::vector<std::string> netconf_hello_capabilities(std::string_view reply)
{
  std::vector<std::string> capabilities;
  netconf_doc_ptr doc = netconf_parse(reply);
  const xmlNode *list = doc == nullptr ? nullptr : netconf_first_element(xmlDocGetRootElement(doc.get()));
  for (const xmlNode *each = list == nullptr ? nullptr : netconf_first_element(list); each != nullptr;
       each = netconf_next_element(each)) {
    if (netconf_name(each) == "capability") {
      capabilities.push_back(with_standard_features(netconf_text(each)));
    }
  }
  return capabilities;
}

std::string netconf_hello(const std::vector<std::string> &capabilities, int session_id)
{
  std::vector<std::string> all = {BASE_1_0, BASE_1_1};
  for (const std::string &capability : capabilities) {
    if (!contains(all, capability)) {
      all.push_back(capability);
    }
  }
  netconf_doc_ptr doc =
      netconf_parse(std::string("<hello xmlns=\"") + YMGR_BASE_NAMESPACE + "\"><capabilities/></hello>");
  if (doc == nullptr) {
    return {};
  }
  xmlNode *hello = xmlDocGetRootElement(doc.get());
  for (const std::string &capability : all) {
    add(netconf_first_element(hello), "capability", capability);
  }
  add(hello, "session-id", std::to_string(session_id));
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + netconf_print(doc.get());
}

int netconf_hello_accept(std::string_view text, bool *ret_is_chunked, std::string *ret_reason)
{
  netconf_doc_ptr doc = netconf_parse(text);
  const xmlNode *hello = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
  if (hello == nullptr || !netconf_is(hello, "hello", YMGR_BASE_NAMESPACE)) {
    return refuse("the client's first message is no hello", ret_reason);
  }
  std::vector<std::string> capabilities;
  for (const xmlNode *child = netconf_first_element(hello); child != nullptr; child = netconf_next_element(child)) {
    if (netconf_name(child) == "session-id") {
      return refuse("the client's hello has a session-id", ret_reason);
    }
    for (const xmlNode *each = netconf_name(child) == "capabilities" ? netconf_first_element(child) : nullptr;
         each != nullptr; each = netconf_next_element(each)) {
      capabilities.push_back(netconf_text(each));
    }
  }
  if (capabilities.empty()) {
    return refuse("the client's hello has no capabilities", ret_reason);
  }
  const bool is_chunked = contains(capabilities, BASE_1_1);
  if (!is_chunked && !contains(capabilities, BASE_1_0)) {
    return refuse("the client has no base capability in common", ret_reason);
  }
  *ret_is_chunked = is_chunked;
  return 0;
}
