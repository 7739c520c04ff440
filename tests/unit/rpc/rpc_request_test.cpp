#include "session_fixture.h"

#include <filesystem>

#include <arpa/inet.h>

#include "libconf/conf_client_area.h"
#include "libconf/conf_service.h"
#include "ymgrd/broker/broker_plugin.h"
#include "ymgrd/core/context.h"
#include "ymgrd/notify/base_notification.h"
#include "ymgrd/rpc/rpc.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session_operations.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/ymgrd.h"

namespace {

std::string rpc_text(const std::string &operation)
{
  return "<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + operation + "</rpc>";
}

std::string own_operation(const std::string &name, const std::string &input)
{
  return rpc_text("<" + name + " xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\">" + input + "</" + name + ">");
}

int answer_ok(int session_id, const char *, lyxml_elem *rpc)
{
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
    EXPECT_TRUE(has(ask(of, own_operation("create-session", "<username> admin\n</username>")),
                    ">" + std::to_string(of.session_id) + "</ymgrd:session-id>"));
  }
  static bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

  test_agent_t agent;
};

} // namespace

TEST_F(rpc_request, each_request_is_answered_once_however_its_subscribers_fail)
{
  open_session(agent);
  const struct {
    std::vector<oper_handler_fn> subscribers;
    const char *answer; // null: not until the plugin replies
  } cases[] = {
      {{fail_without_reply}, "operation-failed"},       {{fail_with_reply}, "mine"},
      {{fail_with_reply, answer_ok}, "<ok/>"},          {{fail_without_reply, answer_ok}, "<ok/>"},
      {{fail_with_reply, fail_with_reply}, "mine"},     {{fail_with_reply, wait_for_plugin}, nullptr},
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

TEST_F(rpc_request, session_operations_tell_who_came_and_went_and_why)
{
  std::string dir = (std::filesystem::temp_directory_path() / "rpc-XXXXXX").string();
  ASSERT_NE(nullptr, mkdtemp(dir.data()));
  conf_set_run_dir(dir.c_str());
  ASSERT_EQ(0, session_init(STAGE_RESTORE));
  conf_client_info_t client = {getpid(), AF_INET6, {}};
  inet_pton(AF_INET6, "2001:db8::7", client.address);
  ASSERT_EQ(0, conf_register_client(dir, client));
  std::string input = "<username>admin</username><agent-ppid>" + std::to_string(getpid()) + "</agent-ppid>";
  EXPECT_TRUE(has(ask(own_operation("create-session", "<agent-ppid>one</agent-ppid>")), "invalid-value"));
  EXPECT_TRUE(has(ask(own_operation("create-session", input)), ">1</ymgrd:session-id>"));
  ASSERT_EQ(1U, notifications.size());
  EXPECT_EQ(NCNTF_BASE_SESSION_START, notifications[0].first);
  EXPECT_EQ("admin", notifications[0].second.username);
  EXPECT_EQ("2001:db8::7", notifications[0].second.ipaddr);

  test_agent_t victim = connect();
  open_session(victim);
  EXPECT_TRUE(has(ask(rpc_text("<kill-session><session-id>2</session-id></kill-session>")), "<ok/>"));
  EXPECT_TRUE(victim.is_closed());
  EXPECT_TRUE(has(ask(rpc_text("<close-session/>")), "<ok/>"));
  ASSERT_EQ(4U, notifications.size());
  for (int reason : {1, 0}) { // killed, closed
    const auto &[kind, info] = notifications[3U - static_cast<size_t>(reason)];
    EXPECT_EQ(NCNTF_BASE_SESSION_END, kind);
    EXPECT_EQ(reason, info.termination_reason);
    EXPECT_EQ(1 + reason, info.session_id);
    EXPECT_EQ(reason, info.killed_by);
  }
  std::filesystem::remove_all(dir);
}

TEST_F(rpc_request, operation_of_a_plugin_reaches_it_only_when_valid)
{
  static bool is_valid;
  static bool is_reached;
  static std::string published;
  is_valid = is_reached = false;
  static plugin_inst_t plugin;
  plugin.plugin_id = 5;
  broker_hooks_t hooks = {};
  hooks.plugin_id = [](const plugin_inst_t *of) { return of->plugin_id; };
  hooks.parse_rpc = [](const char *, lyxml_elem *) { return is_valid ? 0 : -1; };
  hooks.add_path_and_msg = [](reply_error_t *error) { rpc_set_error_field(error, REPLY_ERR_FIELD_MSG, "no leaf"); };
  hooks.error_kind = [](int data_kind, int) { return data_kind; };
  hooks.publish_operate = [](int plugin_id, const plugin_publish_info_t *info, int *status) {
    if (!is_reached) { // it has answered the agent itself
      const rpc_oper_context_t *context = session_get_rpc_context(info->session_id);
      return rpc_answer_error(info->session_id, context->rpc.get(), rpc_make_error(REPLY_ERR_IN_USE, "busy"));
    }
    published = std::to_string(plugin_id) + reinterpret_cast<const char *>(info->operate.input->name);
    *status = SUBPUB_WAIT;
    return 0;
  };
  broker_set_hooks(hooks);
  open_session(agent);
  ASSERT_EQ(0, broker_reg_oper_subscriber(&plugin, "ietf-netconf:get", {}));
  EXPECT_TRUE(has(ask(rpc_text("<get/>")), "<error-tag>invalid-value</error-tag>"));
  is_valid = true;
  EXPECT_TRUE(has(ask(rpc_text("<get/>")), "busy"));
  EXPECT_EQ("", published);
  is_reached = true;
  EXPECT_EQ("", ask(rpc_text("<get/>")));
  EXPECT_EQ("5get", published);
}
