#include "session_fixture.h"

#include <filesystem>

#include <arpa/inet.h>

#include "libconf/conf_client_area.h"
#include "libconf/conf_service.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/notify/base_notification.h"
#include "ymgrd/rpc/rpc.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session_operations.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/ymgrd.h"

namespace {

const std::string BASE = "urn:ietf:params:xml:ns:netconf:base:1.0";

const std::string long_data = "<top xmlns=\"u:t\">" + std::string(2500, 'x') + "</top>";

std::string rpc_text(const std::string &operation, const std::string &base = BASE)
{
  return "<rpc message-id=\"1\" xmlns=\"" + base + "\">" + operation + "</rpc>";
}

std::string own_operation(const std::string &name, const std::string &input)
{
  return rpc_text("<" + name + " xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\">" + input + "</" + name + ">");
}

// Requests that went through to their handler.
std::vector<std::string> handled;

int answer_ok(int session_id, const char *data, lyxml_elem *rpc)
{
  handled.emplace_back(data);
  return rpc_answer_ok(session_id, rpc);
}
int fail_without_reply(int, const char *, lyxml_elem *)
{
  return -1;
}
int fail_with_reply(int session_id, const char *, lyxml_elem *rpc)
{
  return rpc_answer_error(session_id, rpc, rpc_make_error(REPLY_ERR_IN_USE, "mine"));
}
int wait_for_plugin(int, const char *, lyxml_elem *)
{
  return 0;
}

std::vector<std::pair<notification_kind_t, base_notification_info_t>> notifications;

class rpc_request : public session_fixture {
protected:
  static void SetUpTestSuite()
  {
    ly_log_options(LY_LOSTORE);
    ly_ctx *ctx = nullptr;
    ASSERT_EQ(LY_SUCCESS, ly_ctx_new(YMGR_MODULES_DIR, LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx));
    const char *features[] = {"writable-running", "candidate", nullptr};
    ASSERT_NE(nullptr, ly_ctx_load_module(ctx, "ietf-netconf", nullptr, features));
    ASSERT_NE(nullptr, ly_ctx_load_module(ctx, "zentra-ymgrd", nullptr, nullptr));
    schema_set_ctx(ly_ctx_ptr(ctx));
    schema_build_lookups();
  }
  static void TearDownTestSuite() { schema_set_ctx(nullptr); }

  void SetUp() override
  {
    session_fixture::SetUp();
    handled.clear();
    notifications.clear();
    ASSERT_EQ(0, broker_init(STAGE_RESOURCE));
    ASSERT_EQ(0, session_reg_operation());
    on_request = [](int session_id, const msg_head_t &head, std::string_view payload) {
      return rpc_recv_proc(session_id, &head, payload);
    };
    on_publish = rpc_publish_request;
    rpc_set_next_subscriber_hook(broker_publish_operation_next);
    base_notification_set_sink([](notification_kind_t kind, const base_notification_info_t &info) {
      notifications.emplace_back(kind, info);
      return 0;
    });
    agent = connect();
  }
  void TearDown() override
  {
    rpc_set_next_subscriber_hook(nullptr);
    base_notification_set_sink(nullptr);
    encrypt_set_hooks({});
    session_fixture::TearDown();
    broker_exit();
  }

  static void handle(const char *name, oper_handler_fn handler)
  {
    econf_subpub_cb_t callback = {};
    callback.oper = handler;
    ASSERT_EQ(0, broker_reg_oper_subscriber(nullptr, name, callback));
  }
  // The one reply to the request; empty when there is none.
  std::string ask(const test_agent_t &from, const std::string &request, uint16_t seq = 77)
  {
    from.write(frame_bytes(seq, request));
    run();
    std::vector<frame_t> replies = from.frames();
    EXPECT_LE(replies.size(), 1U);
    EXPECT_TRUE(replies.empty() || replies[0].seq == seq);
    return replies.empty() ? "" : replies[0].payload;
  }
  std::string ask(const std::string &request) { return ask(agent, request); }
  void open_session(const test_agent_t &of)
  {
    std::string reply = ask(of, own_operation("create-session", "<username> admin\n</username>"));
    EXPECT_NE(std::string::npos,
              reply.find("<ymgrd:session-id xmlns:ymgrd=\"com:zentra:netconf:private:opal:device:ymgrd\">" +
                         std::to_string(of.session_id) + "</ymgrd:session-id>"))
        << reply;
  }
  static bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

  test_agent_t agent;
};

} // namespace

TEST_F(rpc_request, what_is_no_request_is_answered_with_its_fault)
{
  open_session(agent);
  handle("ietf-netconf:get", answer_ok);
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"no xml", {"message-id=\"77\"", "invalid-value"}},
      {"", {"message-id=\"77\"", "invalid-value"}},
      {"<rpc message-id=\"1\"/>", {"message-id=\"1\"", "unknown-element"}},
      {rpc_text(""), {"unknown-element"}},
      {rpc_text("<nothing/>"), {"unknown-element", "\"nothing\""}},
      {rpc_text("<get>text</get>"), {"unknown-element"}},
      {rpc_text("<get><surplus/></get>"), {"unknown-element", "\"surplus\""}},
      {rpc_text("<get-config/>"), {"unknown-element", "source"}},
      {rpc_text("<get/>", "urn:ietf:params:xml:ns:netconf:base:1.1"), {"xmlns=\"" + BASE + "\"", "unknown-element"}},
      {rpc_text("<get/><get/>"), {"missing-attribute", "Get rpc operation name failed."}},
      {"<hello xmlns=\"" + BASE + "\"><get/></hello>", {"missing-attribute"}},
      {own_operation("create-session", ""), {"operation-failed"}},
      {rpc_text("<x:unheard xmlns:x=\"u:x\"/>"), {"operation-not-supported"}},
      {own_operation("unheard", ""), {"operation-not-supported"}},
  };
  for (const auto &[request, parts] : cases) {
    std::string reply = ask(request);
    for (const std::string &part : parts) {
      EXPECT_TRUE(has(reply, part)) << request << "\n" << reply;
    }
  }
  EXPECT_TRUE(handled.empty());
}

TEST_F(rpc_request, content_of_configurations_and_filters_is_left_to_the_handlers)
{
  open_session(agent);
  handle("ietf-netconf:edit-config", answer_ok);
  handle("ietf-netconf:get", answer_ok);
  const std::string requests[] = {
      rpc_text("<edit-config><target><running/></target><config><unknown xmlns=\"u:x\"/></config></edit-config>"),
      rpc_text("<get><filter type=\"subtree\"><top xmlns=\"u:x\"/></filter></get>"),
      rpc_text("<n:get xmlns:n=\"" + BASE + "\"/>"),
  };
  for (const std::string &request : requests) {
    EXPECT_TRUE(has(ask(request), "<ok/>")) << request;
  }
  EXPECT_EQ(std::vector<std::string>(std::begin(requests), std::end(requests)), handled);
}

TEST_F(rpc_request, each_request_is_answered_once_however_its_subscribers_fail)
{
  open_session(agent);
  const struct {
    std::vector<oper_handler_fn> subscribers;
    const char *answer; // null: not until the plugin replies
  } cases[] = {
      {{fail_without_reply}, "operation-failed"},
      {{fail_with_reply}, "mine"},
      {{fail_with_reply, answer_ok}, "<ok/>"},
      {{fail_without_reply, answer_ok}, "<ok/>"},
      {{fail_with_reply, fail_with_reply}, "mine"},
      {{fail_with_reply, fail_without_reply}, "mine"},
      {{wait_for_plugin}, nullptr},
      {{fail_with_reply, wait_for_plugin}, nullptr},
      {{fail_without_reply, wait_for_plugin}, nullptr},
  };
  for (const auto &entry : cases) {
    for (oper_handler_fn subscriber : entry.subscribers) {
      handle("zentra-ymgrd:get-capability", subscriber);
    }
    std::string reply = ask(own_operation("get-capability", ""));
    if (entry.answer == nullptr) {
      EXPECT_EQ("", reply);
      ASSERT_NE(nullptr, session_get_rpc_context(agent.session_id));
      EXPECT_EQ(0, rpc_answer_ok(agent.session_id, session_get_rpc_context(agent.session_id)->rpc.get()));
      run();
      EXPECT_EQ(1U, agent.frames().size());
    } else {
      EXPECT_TRUE(has(reply, entry.answer)) << reply;
    }
    for (size_t i = 0; i < entry.subscribers.size(); i++) {
      broker_unreg_oper_subscriber(nullptr, "/zentra-ymgrd:get-capability");
    }
  }
}

TEST_F(rpc_request, request_of_a_busy_broker_waits_for_its_turn)
{
  open_session(agent);
  handle("ietf-netconf:get", answer_ok);
  int publication = 1;
  context_save_option("OPT-broker-publish", &publication, sizeof(publication));
  EXPECT_EQ("", ask(rpc_text("<get/>")));
  EXPECT_TRUE(handled.empty());
  context_remove_option("OPT-broker-publish");
  session_timeout();
  run();
  std::vector<frame_t> replies = agent.frames();
  ASSERT_EQ(1U, replies.size());
  EXPECT_TRUE(has(replies[0].payload, "<ok/>"));
}

TEST_F(rpc_request, data_is_spliced_into_the_reply_and_logged_in_slices)
{
  open_session(agent);
  handle("ietf-netconf:get", [](int session_id, const char *, lyxml_elem *rpc) {
    lyxml_ptr reply = rpc_build_reply(rpc);
    lyxml_new_elem(reply.get(), "data", nullptr);
    return rpc_send_data_reply(session_id, reply.get(), long_data);
  });
  log_open(LOG_TO_STDERR, LOG_LEVEL_INFO);
  testing::internal::CaptureStderr();
  std::string reply = ask(rpc_text("<get/>"));
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ("<rpc-reply xmlns=\"" + BASE + "\" message-id=\"1\"><data>" + long_data + "</data></rpc-reply>", reply);
  for (size_t start = 0; start < reply.size(); start += 1000) {
    EXPECT_TRUE(has(log, "Operation information(content=\"" + reply.substr(start, 1000) + "\")")) << log;
  }
}

TEST_F(rpc_request, request_whose_secrets_cannot_be_hidden_is_not_logged)
{
  encrypt_hooks_t hooks = {};
  hooks.find_in_rpc = [](const char *, lyxml_elem *) { return -1; };
  handle("ietf-netconf:get", answer_ok);
  log_open(LOG_TO_STDERR, LOG_LEVEL_INFO);
  testing::internal::CaptureStderr();
  open_session(agent);
  EXPECT_TRUE(has(ask(rpc_text("<get><filter>shown</filter></get>")), "<ok/>"));
  encrypt_set_hooks(hooks);
  EXPECT_TRUE(has(ask(rpc_text("<get><filter>hidden</filter></get>")), "operation-failed"));
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(has(log, "Operation information(user=\"admin\", from=\"\", message-id=\"1\", content=\"<rpc "));
  EXPECT_TRUE(has(log, "shown"));
  EXPECT_FALSE(has(log, "hidden"));
  EXPECT_FALSE(has(log, "<create-session"));
}

TEST_F(rpc_request, session_operations_tell_who_came_and_went)
{
  std::string dir = (std::filesystem::temp_directory_path() / "rpc-XXXXXX").string();
  ASSERT_NE(nullptr, mkdtemp(dir.data()));
  conf_set_run_dir(dir.c_str());
  ASSERT_EQ(0, session_init(STAGE_RESTORE));
  conf_client_info_t client = {getpid(), AF_INET6, {}};
  inet_pton(AF_INET6, "2001:db8::7", client.address);
  ASSERT_EQ(0, conf_register_client(dir, client));

  EXPECT_TRUE(has(ask(rpc_text("<get/>")), "operation-failed"));
  std::string input = "<username>admin</username><agent-ppid>" + std::to_string(getpid()) + "</agent-ppid>";
  EXPECT_TRUE(has(ask(own_operation("create-session", "<agent-ppid>one</agent-ppid>")), "invalid-value"));
  EXPECT_TRUE(has(ask(own_operation("create-session", input)), ">1</ymgrd:session-id>"));
  ASSERT_EQ(1U, notifications.size());
  EXPECT_EQ(NCNTF_BASE_SESSION_START, notifications[0].first);
  EXPECT_EQ("admin", notifications[0].second.username);
  EXPECT_EQ("2001:db8::7", notifications[0].second.ipaddr);

  EXPECT_TRUE(has(ask(rpc_text("<close-session/>")), "<ok/>"));
  EXPECT_TRUE(agent.is_closed());
  ASSERT_EQ(2U, notifications.size());
  EXPECT_EQ(NCNTF_BASE_SESSION_END, notifications[1].first);
  EXPECT_EQ(0, notifications[1].second.termination_reason);
  std::filesystem::remove_all(dir);
}

TEST_F(rpc_request, kill_session_ends_another_session_only)
{
  test_agent_t victim = connect();
  open_session(agent);
  open_session(victim);
  notifications.clear();
  auto kill = [](const std::string &id) {
    return rpc_text("<kill-session><session-id>" + id + "</session-id></kill-session>");
  };
  EXPECT_TRUE(has(ask(kill("1")), "invalid-value"));
  EXPECT_TRUE(has(ask(kill("9")), "invalid-value"));
  EXPECT_TRUE(has(ask(kill("0")), "rpc-error"));
  EXPECT_FALSE(victim.is_closed());
  EXPECT_TRUE(has(ask(kill("2")), "<ok/>"));
  EXPECT_TRUE(victim.is_closed());
  ASSERT_EQ(1U, notifications.size());
  EXPECT_EQ(2, notifications[0].second.session_id);
  EXPECT_EQ(1, notifications[0].second.termination_reason);
  EXPECT_EQ(1, notifications[0].second.killed_by);
  EXPECT_TRUE(has(ask(kill("2")), "invalid-value"));
}

TEST_F(rpc_request, shutdown_is_answered_when_the_other_sessions_have_gone)
{
  test_agent_t other = connect();
  open_session(agent);
  open_session(other);
  EXPECT_EQ("", ask(own_operation("shutdown", "")));
  EXPECT_TRUE(has(ask(other, own_operation("shutdown", "")), "<ok/>")); // only one reply can be kept
  std::vector<frame_t> replies;
  for (int second = 0; second < 10 && replies.empty(); second++) {
    session_timeout();
    run();
    replies = agent.frames();
  }
  ASSERT_EQ(1U, replies.size());
  EXPECT_EQ(77, replies[0].seq);
  EXPECT_TRUE(other.is_closed());
  for (int second = 0; second < 10 && shut_downs == 0; second++) {
    session_timeout();
    run();
  }
  EXPECT_EQ(1, shut_downs);
  EXPECT_TRUE(agent.is_closed());
}
