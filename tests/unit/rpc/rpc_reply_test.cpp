#include "session_fixture.h"

#include "ymgrd/core/log.h"
#include "ymgrd/rpc/rpc_reply.h"

namespace {

const char BASE_1_1_REQUEST[] = "<rpc message-id=\"101\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.1\" "
                                "xmlns:e=\"u:e\" e:user=\"a&amp;b\"><get/></rpc>";
const std::string REPLY_START = "<rpc-reply xmlns:e=\"u:e\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
                                "message-id=\"101\" e:user=\"a&amp;b\">";

class rpc_reply : public session_fixture {
protected:
  void SetUp() override
  {
    session_fixture::SetUp();
    rpc_set_next_subscriber_hook([](int session_id) { return next_subscriber(session_id); });
    agent = connect();
    on_request = [this](int session_id, const msg_head_t &, std::string_view payload) {
      auto context = std::make_unique<rpc_oper_context_t>();
      context->session_id = session_id;
      context->is_publishing = 1;
      context->need_reply_ok = 1;
      context->rpc = lyxml_parse_mem(payload);
      EXPECT_EQ(0, session_save_rpc_context(session_id, std::move(context)));
      handler(session_id);
      return 0;
    };
  }
  void TearDown() override
  {
    rpc_set_next_subscriber_hook(nullptr);
    session_fixture::TearDown();
  }

  std::vector<frame_t> ask()
  {
    agent.write(frame_bytes(9, BASE_1_1_REQUEST));
    run();
    return agent.frames();
  }
  static const lyxml_elem *request(int session_id) { return session_get_rpc_context(session_id)->rpc.get(); }
  static void fail(int session_id, const char *message)
  {
    EXPECT_EQ(-1, rpc_answer_error(session_id, request(session_id), rpc_make_error(REPLY_ERR_OP_FAILED, message)));
  }

  test_agent_t agent;
  std::function<void(int)> handler;
  static std::function<int(int)> next_subscriber;
};

std::function<int(int)> rpc_reply::next_subscriber;

} // namespace

TEST(rpc_error_record, kind_decides_texts)
{
  reply_error_ptr error(rpc_create_error(REPLY_ERR_DATA_EXISTS));
  ASSERT_NE(nullptr, error);
  EXPECT_STREQ("data-exists", error->tag);
  EXPECT_STREQ("Request could not be completed because the relevant data model content already exists.",
               error->message);
  EXPECT_EQ(nullptr, error->app_tag);
  EXPECT_STREQ("protocol", reply_error_ptr(rpc_create_error(REPLY_ERR_LOCK_DENIED))->type);
  EXPECT_STREQ("rpc", reply_error_ptr(rpc_create_error(REPLY_ERR_MALFORMED_MSG))->type);
  EXPECT_STREQ("application", reply_error_ptr(rpc_create_error(REPLY_ERR_ACCESS_DENIED))->type);
  EXPECT_EQ(nullptr, reply_error_ptr(rpc_create_error(REPLY_ERR_NULL))->tag);

  EXPECT_EQ(0, rpc_set_error_field(error.get(), REPLY_ERR_FIELD_TAG, error->tag)); // its own text
  EXPECT_STREQ("data-exists", error->tag);
  EXPECT_EQ(-1, rpc_set_error_field(error.get(), REPLY_ERR_FIELD_COUNT, "x"));
  EXPECT_EQ(-1, rpc_set_error_field(error.get(), -1, "x"));
  EXPECT_EQ(-1, rpc_set_error_field(error.get(), REPLY_ERR_FIELD_TAG, nullptr));
  EXPECT_EQ(-1, rpc_set_error_field(nullptr, REPLY_ERR_FIELD_TAG, "x"));
}

TEST(rpc_build_reply, errors_stand_newest_first_with_their_fields_in_order)
{
  lyxml_ptr rpc = lyxml_parse_mem(BASE_1_1_REQUEST);
  reply_error_t *chain = rpc_append_error(nullptr, REPLY_ERR_NULL);
  rpc_set_error_field(chain, REPLY_ERR_FIELD_INFO, "<b/>");
  rpc_set_error_field(chain, REPLY_ERR_FIELD_APPTAG, "too-few");
  chain = rpc_append_error(chain, REPLY_ERR_NULL);
  rpc_set_error_field(chain, REPLY_ERR_FIELD_MSG, "second");
  chain = rpc_append_error(chain, REPLY_ERR_IN_USE);
  lyxml_ptr reply = rpc_build_reply_error(rpc.get(), reply_error_ptr(chain));
  ASSERT_NE(nullptr, reply);
  EXPECT_TRUE(rpc_reply_is_error(reply.get()));
  EXPECT_FALSE(rpc_reply_is_ok(reply.get()));
  EXPECT_EQ(REPLY_START +
                "<rpc-error><error-type>application</error-type><error-tag>in-use</error-tag>"
                "<error-severity>error</error-severity><error-path></error-path>"
                "<error-message>The request requires a resource that is already in use.</error-message></rpc-error>"
                "<rpc-error><error-message>second</error-message></rpc-error>"
                "<rpc-error><error-app-tag>too-few</error-app-tag><error-info>&lt;b/&gt;</error-info></rpc-error>"
                "</rpc-reply>",
            lyxml_print_mem(reply.get()));
}

TEST_F(rpc_reply, ok_ends_the_request)
{
  next_subscriber = [](int) { return ADD_FAILURE() << "an ok goes to the agent", -1; };
  handler = [](int session_id) { EXPECT_EQ(0, rpc_answer_ok(session_id, request(session_id))); };
  std::vector<frame_t> replies = ask();
  ASSERT_EQ(1U, replies.size());
  EXPECT_EQ(9, replies[0].seq);
  EXPECT_EQ(REPLY_START + "<ok/></rpc-reply>", replies[0].payload);
  EXPECT_EQ(nullptr, session_get_rpc_context(agent.session_id));
}

TEST_F(rpc_reply, failing_subscribers_give_one_reply_for_all)
{
  enum { NONE_LEFT, REPLIES_AT_ONCE, REPLIES_LATER, FAILS_AT_ONCE, FAILS_UNANSWERED };
  const std::pair<int, const char *> cases[] = {{NONE_LEFT, "first"},
                                                {REPLIES_AT_ONCE, "<ok/>"},
                                                {REPLIES_LATER, "<ok/>"},
                                                {FAILS_AT_ONCE, "second"},
                                                {FAILS_UNANSWERED, "first"}};
  for (const auto &[next, expected] : cases) {
    int calls = 0;
    next_subscriber = [&calls, behaviour = next](int session_id) {
      if (calls++ > 0 || behaviour == NONE_LEFT) {
        return 0;
      }
      session_get_rpc_context(session_id)->need_reply_ok++;
      switch (behaviour) {
      case REPLIES_AT_ONCE:
        return rpc_answer_ok(session_id, request(session_id));
      case FAILS_AT_ONCE:
        fail(session_id, "second");
        return -1;
      default:
        return behaviour == FAILS_UNANSWERED ? -1 : 0;
      }
    };
    handler = [behaviour = next](int session_id) {
      fail(session_id, "first");
      if (behaviour == REPLIES_LATER) {
        ASSERT_NE(nullptr, session_get_rpc_context(session_id));
        EXPECT_EQ(0, rpc_answer_ok(session_id, request(session_id)));
      }
    };
    std::vector<frame_t> replies = ask();
    ASSERT_EQ(1U, replies.size()) << "case " << next;
    EXPECT_NE(std::string::npos, replies[0].payload.find(expected)) << replies[0].payload;
  }
}

TEST_F(rpc_reply, data_is_spliced_in_and_logged_in_slices)
{
  const std::string data = "<top xmlns=\"u:t\">" + std::string(2500, 'x') + "</top>";
  for (const std::string &content : {data, std::string()}) {
    handler = [&content](int session_id) {
      lyxml_ptr reply = rpc_build_reply(request(session_id));
      lyxml_new_elem(reply.get(), "data", nullptr);
      EXPECT_EQ(0, rpc_send_data_reply(session_id, reply.get(), content));
    };
    log_open(LOG_TO_STDERR, LOG_LEVEL_INFO);
    testing::internal::CaptureStderr();
    std::vector<frame_t> replies = ask();
    std::string log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(1U, replies.size());
    EXPECT_EQ(REPLY_START + (content.empty() ? "<data/>" : "<data>" + content + "</data>") + "</rpc-reply>",
              replies[0].payload);
    for (size_t start = 0; start < replies[0].payload.size(); start += 1000) {
      std::string slice = "Operation information(content=\"" + replies[0].payload.substr(start, 1000) + "\")";
      EXPECT_NE(std::string::npos, log.find(slice)) << log;
    }
  }
}
