// Requests that are no requests: exactly one error each, and the session goes on.
#include "session_fixture.h"

namespace {

class bad_request : public session_fixture {
protected:
  void SetUp() override
  {
    session_fixture::SetUp();
    session = &connect();
  }

  // The error in the reply to one frame, which is to hold just that one. `ret_reply` gets the whole reply.
  support::rpc_error_t error_of(const std::string &payload, uint16_t seq = 42, std::string *ret_reply = nullptr)
  {
    EXPECT_TRUE(ymgr_send_raw(session->client(), ymgr_frame(payload, seq)));
    std::string reply = reply_to(session->client(), seq);
    EXPECT_EQ(count(reply, "<rpc-error>"), 1U) << reply;
    if (ret_reply != nullptr) {
      *ret_reply = reply;
    }
    return support::find_error(reply).value_or(support::rpc_error_t());
  }

  support::netconf_session *session = nullptr;
};

std::string nested(size_t depth)
{
  std::string text;
  for (size_t i = 0; i < depth; i++) {
    text += "<a>";
  }
  for (size_t i = 0; i < depth; i++) {
    text += "</a>";
  }
  return text;
}

} // namespace

TEST_F(bad_request, what_is_no_acceptable_xml_is_an_invalid_value_with_the_frames_number)
{
  const std::string get = rpc("1", support::get_config("running"));
  std::string bomb = "<!DOCTYPE rpc [<!ENTITY a0 \"aaaaaaaaaaaaaaaa\">";
  for (int i = 1; i < 12; i++) {
    std::string inner = "&a" + std::to_string(i - 1) + ";";
    bomb += "<!ENTITY a" + std::to_string(i) + " \"" + inner + inner + inner + inner + inner + inner + "\">";
  }
  const struct {
    const char *what;
    std::string payload;
  } requests[] = {
      {"no xml", "get running, please"},
      {"nothing", ""},
      {"unfinished", get.substr(0, get.size() - 3)},
      {"not utf-8", rpc("1", "<get-config><source><running/></source>\xff\xfe</get-config>")},
      {"zero byte", get + std::string(1, '\0') + get},
      {"dtd", "<!DOCTYPE rpc [<!ELEMENT rpc ANY>]>" + get},
      {"entity bomb", bomb + "]>" + rpc("1", "<x>&a11;</x>")},
      {"external entity", "<!DOCTYPE rpc [<!ENTITY f SYSTEM \"file:///etc/hostname\">]>" + rpc("1", "<x>&f;</x>")},
      {"deep nesting", rpc("1", nested(100000))},
  };
  uint16_t seq = 1000;
  for (const auto &request : requests) {
    SCOPED_TRACE(request.what);
    std::string reply;
    EXPECT_EQ(error_of(request.payload, ++seq, &reply).tag, "invalid-value") << reply;
    EXPECT_TRUE(contains(reply, "message-id=\"" + std::to_string(seq) + "\"")) << reply;
  }
  EXPECT_NE(session->rpc(GET_CAPABILITY), "");
}

TEST_F(bad_request, the_rpc_layer_is_checked)
{
  const std::string in_private_ns = std::string(" xmlns=\"") + PRIVATE_NS + "\"/>";
  const struct {
    const char *what;
    std::string payload;
    const char *tag;
  } requests[] = {
      {"no operation", rpc("1", ""), "unknown-element"},
      {"no namespace", "<rpc message-id=\"1\"><commit/></rpc>", "unknown-element"},
      {"unknown operation", rpc("1", "<paint/>"), "unknown-element"},
      {"unknown parameter", rpc("1", "<commit><colour/></commit>"), "unknown-element"},
      {"unknown own operation", rpc("1", "<paint" + in_private_ns), "operation-not-supported"},
      {"unknown namespace", rpc("1", "<paint xmlns=\"urn:nowhere\"/>"), "operation-not-supported"},
      {"other root", "<hello xmlns=\"" + std::string(BASE_NS) + "\"><commit/></hello>", "missing-attribute"},
  };
  for (const auto &request : requests) {
    SCOPED_TRACE(request.what);
    EXPECT_EQ(error_of(request.payload).tag, request.tag);
  }
  EXPECT_NE(session->rpc(GET_CAPABILITY), "");
}

TEST_F(bad_request, two_operations_in_one_rpc_are_refused_by_name)
{
  support::rpc_error_t error = error_of(rpc("1", "<commit/><discard-changes/>"));
  EXPECT_EQ(error.tag, "missing-attribute");
  EXPECT_EQ(error.message, "Get rpc operation name failed.");
}

TEST_F(bad_request, a_reply_has_the_attributes_of_its_request_and_the_first_base_namespace)
{
  std::string base_1_1 = "urn:ietf:params:xml:ns:netconf:base:1.1";
  std::string request = "<nc:rpc message-id=\"101\" xmlns:nc=\"" + base_1_1 +
                        "\" x:note=\"&lt;&quot;é\" xmlns:x=\"urn:x\">" + GET_CAPABILITY + "</nc:rpc>";
  ASSERT_TRUE(ymgr_send_raw(session->client(), ymgr_frame(request, 1)));
  std::string reply = support::normalize(reply_to(session->client(), 1));
  EXPECT_TRUE(contains(reply, std::string("<rpc-reply xmlns=\"") + BASE_NS + "\"")) << reply;
  EXPECT_TRUE(contains(reply, "message-id=\"101\"")) << reply;
  EXPECT_TRUE(contains(reply, "note=\"<\"é\"")) << reply;
}
