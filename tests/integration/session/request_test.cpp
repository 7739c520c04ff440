// Requests that are no requests: exactly one error each, and the session goes on.
#include "session_fixture.h"

namespace {

class request_check : public session_fixture {
protected:
  void SetUp() override
  {
    session_fixture::SetUp();
    session = &connect();
  }

  std::string reply_of(const std::string &payload, uint16_t seq = 1)
  {
    EXPECT_TRUE(ymgr_send_raw(session->client(), ymgr_frame(payload, seq)));
    return reply_to(session->client(), seq);
  }
  static void expect_one_error(const std::string &reply, const std::string &tag)
  {
    EXPECT_EQ(reply.find("<rpc-error>"), reply.rfind("<rpc-error>")) << reply;
    EXPECT_EQ(support::find_error(reply).value_or(support::rpc_error_t()).tag, tag) << reply;
  }

  support::netconf_session *session = nullptr;
};

} // namespace

TEST_F(request_check, what_is_no_acceptable_xml_is_an_invalid_value_with_the_frames_number)
{
  const std::string get = rpc("1", support::get_config("running"));
  std::string bomb = "<!DOCTYPE rpc [<!ENTITY a0 \"aaaaaaaaaa\">";
  for (int i = 1; i < 20; i++) {
    std::string inner = "&a" + std::to_string(i - 1) + ";";
    bomb += "<!ENTITY a" + std::to_string(i) + " \"" + inner + inner + inner + inner + "\">";
  }
  std::string opened, closed;
  for (int i = 0; i < 100000; i++) {
    opened += "<a>";
    closed += "</a>";
  }
  const struct {
    const char *what;
    std::string payload;
  } requests[] = {
      {"no xml", "get running, please"},
      {"nothing", ""},
      {"unfinished", get.substr(0, get.size() - 3)},
      {"not utf-8", rpc("1", "<get-config>\xff\xfe</get-config>")},
      {"text behind a zero byte", get + std::string(1, '\0') + get},
      {"dtd", "<!DOCTYPE rpc [<!ELEMENT rpc ANY>]>" + get},
      {"entity bomb", bomb + "]>" + rpc("1", "<x>&a19;</x>")},
      {"external entity", "<!DOCTYPE rpc [<!ENTITY f SYSTEM \"file:///etc/hostname\">]>" + rpc("1", "<x>&f;</x>")},
      {"deep nesting", rpc("1", opened + closed)},
  };
  uint16_t seq = 1000;
  for (const auto &request : requests) {
    SCOPED_TRACE(request.what);
    std::string reply = reply_of(request.payload, ++seq);
    expect_one_error(reply, "invalid-value");
    EXPECT_TRUE(contains(reply, "message-id=\"" + std::to_string(seq) + "\"")) << reply;
  }
  EXPECT_TRUE(contains(reply_of(get), "<data"));
}
