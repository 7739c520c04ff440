#include <string>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "netconf/client_identity.h"
#include "netconf/netconf_hello.h"
#include "netconf/netconf_replies.h"
#include "netconf/netconf_request.h"

namespace {

#define BASE "urn:ietf:params:netconf:base:"
#define CAPABILITY(version) "<capability>" BASE version "</capability>"
#define RPC_NS "xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\""

TEST(client_identity, address_is_taken_from_the_ssh_server)
{
  const struct {
    const char *words;
    int family;
    const char *address;
  } cases[] = {{"192.0.2.7 50000 192.0.2.1 830", AF_INET, "192.0.2.7"},
               {"2001:db8::7 50000 2001:db8::1 830", AF_INET6, "2001:db8::7"},
               {"fe80::7%eth0 50000 fe80::1%eth0 830", AF_INET6, "fe80::7"}};
  for (const auto &[words, family, address] : cases) {
    conf_client_info_t info = {};
    char text[INET6_ADDRSTRLEN] = "";
    ASSERT_TRUE(client_address(words, &info) && info.family == family && info.pid == getpid()) << words;
    EXPECT_STREQ(inet_ntop(family, info.address, text, sizeof(text)), address);
  }
  for (const char *words :
       {static_cast<const char *>(nullptr), "", "UNKNOWN 65535 UNKNOWN 65535", "192.0.2.256 1 192.0.2.1 830"}) {
    conf_client_info_t info = {};
    EXPECT_FALSE(client_address(words, &info));
  }
}

TEST(netconf_hello, server_names_each_capability_once)
{
#define MODULE(features)                                                                                               \
  "<capability>urn:m?revision=2026-01-01&amp;module=m&amp;" features "=a,b&amp;deviations=d</capability>"
  auto capabilities = netconf_hello_capabilities("<rpc-reply " RPC_NS "><capabilities xmlns=\"urn:d\">" CAPABILITY(
      "1.1") MODULE("feature") "</capabilities></rpc-reply>");
  EXPECT_EQ(netconf_hello(capabilities, 7),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<hello " RPC_NS "><capabilities>" CAPABILITY("1.0")
                CAPABILITY("1.1") MODULE("features") "</capabilities><session-id>7</session-id></hello>");
}

TEST(netconf_hello, client_decides_on_the_framing_or_is_refused)
{
  const std::string cases[][2] = {
      {"<capabilities><capability>\n " BASE "1.1 </capability></capabilities>", "chunks"},
      {"<capabilities>" CAPABILITY("1.0") CAPABILITY("1.1") "</capabilities>", "chunks"},
      {"<capabilities>" CAPABILITY("1.0") "</capabilities>", "end of message"},
      {"<capabilities>" CAPABILITY("1.2") "</capabilities>", "the client has no base capability in common"},
      {"<capabilities/>", "the client's hello has no capabilities"},
      {"<session-id>1</session-id><capabilities>" CAPABILITY("1.0") "</capabilities>",
       "the client's hello has a session-id"},
      {"<capabilities>", "the client's first message is no hello"},
  };
  for (const auto &[content, outcome] : cases) {
    bool is_chunked = false;
    std::string reason;
    int result = netconf_hello_accept("<hello " RPC_NS ">" + content + "</hello>", &is_chunked, &reason);
    EXPECT_EQ(result == 0 ? (is_chunked ? "chunks" : "end of message") : reason, outcome) << content;
  }
}

// The replies that a client gets, when the daemon is sent each request and answers what stands beside it. The daemon's
// frames come byte by byte, a notification in front of each.
std::string say(const std::string &message, const std::string &daemons_reply)
{
  constexpr uint16_t SEQ = 5;
  constexpr std::string_view FIRST = "<notification/>]]>]]>";
  netconf_request_t request = netconf_request_read(message);
  netconf_fault fault = netconf_request_check(request);
  if (fault != netconf_fault::none) {
    return netconf_fault_reply(request, fault, false);
  }
  wiped_string out;
  netconf_replies replies(&out);
  replies.await(SEQ, std::move(request));
  for (char byte : ymgr_frame("<notification/>", 0) + ymgr_frame("nobody asked", 6) + ymgr_frame(daemons_reply, SEQ)) {
    EXPECT_TRUE(replies.take({&byte, 1}));
  }
  EXPECT_TRUE(!replies.is_awaiting() && out.starts_with(FIRST) && out.ends_with("]]>]]>")) << out;
  return std::string(out.substr(FIRST.size(), out.size() - FIRST.size() - 6));
}

#define ERROR(content) "<rpc-reply " RPC_NS " message-id=\"1\"><rpc-error>" content "</rpc-error></rpc-reply>"
#define INFO(content) ERROR("<error-info>" content "</error-info>")

TEST(netconf_conversation, error_info_becomes_elements_where_it_is_xml)
{
  const std::string request = "<rpc message-id=\"1\" " RPC_NS "><commit/></rpc>";
  const std::string cases[][2] = {
      // The daemon's reply, and the client's.
      {INFO("&lt;session-id&gt;4&lt;/session-id&gt;"), INFO("<session-id>4</session-id>")},
      {INFO("&lt;a/&gt; &lt;b c=\"&amp;lt;\"/&gt;"), INFO("<a/> <b c=\"&lt;\"/>")},
      {INFO("&lt;a&gt;"), INFO("&lt;a&gt;")},
      {INFO("see &lt;a/&gt;"), INFO("see &lt;a/&gt;")},
      {ERROR("<error-path/><error-tag>invalid-value</error-tag>"), ERROR("<error-tag>invalid-value</error-tag>")},
  };
  for (const auto &[daemons, clients] : cases) {
    EXPECT_EQ(say(request, daemons), clients);
  }
}

TEST(netconf_conversation, messages_that_are_no_requests_are_answered_with_what_is_known_of_them)
{
  const std::string not_xml =
      "<rpc-reply message-id=\"5\"><rpc-error><error-tag>invalid-value</error-tag></rpc-error></rpc-reply>";
  const std::string cases[][3] = {
      {"no xml", ">", "operation-failed"},
      {"<rpc message-id=\"1\" " RPC_NS "><commit>", " message-id=\"1\">", "operation-failed"},
      {"<?xml version=\"1.0\"?><!-- > --><n:rpc x='&lt;>' message-id=\"6\" xmlns:n=\"urn:x\"><",
       " x=\"&lt;&gt;\" message-id=\"6\">", "operation-failed"},
      {"<hello " RPC_NS "/>", ">", "operation-failed"},
      {"<rpc " RPC_NS "><commit/></rpc>", ">", "missing-attribute"},
  };
  for (const auto &[message, attributes, tag] : cases) {
    const std::string reply = say(message, not_xml);
    EXPECT_NE(reply.find(attributes + "<rpc-error>"), std::string::npos) << message << reply;
    EXPECT_NE(reply.find("<error-tag>" + tag + "<"), std::string::npos) << message << reply;
  }
}

} // namespace
