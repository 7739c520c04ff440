#include "broker_fixture.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include "ymgrd/core/context.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/rpc/session_operations.h"

namespace {

plugin_inst_t rpc_plugin = {5};
std::vector<std::string> calls;

int answer_ok(int session_id, const char *data, lyxml_elem *rpc)
{
  calls.push_back(std::string("ok ") + data);
  return rpc_answer_ok(session_id, rpc);
}

int refuse(int session_id, const char *, lyxml_elem *rpc)
{
  calls.push_back("refuse");
  return rpc_answer_error(session_id, rpc, rpc_make_error(REPLY_ERR_OP_FAILED, "refused"));
}

// One session with a request; replies are read from the other end of its socket.
class broker_operation : public broker_fixture {
protected:
  void SetUp() override
  {
    broker_fixture::SetUp();
    calls.clear();
    rpc_set_next_subscriber_hook(broker_publish_operation_next);
    ASSERT_EQ(0, session_init(STAGE_RESOURCE));
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    ASSERT_EQ(0, context_save_int("OPT-ymgrd-epfd", epoll_.get()));
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends));
    agent_.reset(ends[0]);
    ASSERT_EQ(0, session_inst_init(ends[1]));
  }
  void TearDown() override
  {
    session_exit();
    broker_fixture::TearDown();
  }
  static void handle(const char *name, oper_handler_fn handler, plugin_inst_t *plugin = nullptr)
  {
    econf_subpub_cb_t callback = {};
    callback.oper = handler;
    ASSERT_EQ(0, broker_reg_oper_subscriber(plugin, name, callback));
  }
  static int request(const char *oper)
  {
    auto context = std::make_unique<rpc_oper_context_t>();
    context->session_id = SESSION;
    context->oper = oper;
    context->data = "<rpc message-id='1'><do><what>it</what></do></rpc>";
    context->rpc = lyxml_parse_mem(context->data);
    EXPECT_EQ(0, session_save_rpc_context(SESSION, std::move(context)));
    return broker_publish_operation(SESSION);
  }
  std::string reply()
  {
    (void)session_inst_wakeup(SESSION, EPOLLOUT);
    char bytes[4096];
    ssize_t length = recv(agent_.get(), bytes, sizeof(bytes), 0);
    return length <= 0 ? "" : std::string(bytes, static_cast<size_t>(length));
  }
  static bool contains(const std::string &text, const char *part) { return text.find(part) != std::string::npos; }

  static constexpr int SESSION = 1;
  unique_fd epoll_;
  unique_fd agent_;
};

} // namespace

TEST_F(broker_operation, without_handler_is_answered_as_not_supported)
{
  handle("/m:do", answer_ok);
  broker_unreg_oper_subscriber(nullptr, "/m:do");
  EXPECT_EQ(0, request("/m:do"));
  EXPECT_TRUE(contains(reply(), "operation-not-supported"));
  EXPECT_EQ(nullptr, session_get_rpc_context(SESSION));
}

TEST_F(broker_operation, refused_by_one_handler_goes_to_the_next_and_is_answered_once)
{
  handle("/m:do", refuse);
  handle("/m:do", answer_ok);
  (void)request("/m:do");
  EXPECT_EQ(2U, calls.size());
  std::string text = reply();
  EXPECT_TRUE(contains(text, "<ok/>"));
  EXPECT_FALSE(contains(text, "refused"));
}

TEST_F(broker_operation, refused_by_the_last_handler_gets_its_error)
{
  handle("/m:do", refuse);
  EXPECT_EQ(-1, request("/m:do"));
  EXPECT_TRUE(contains(reply(), "refused"));
  EXPECT_EQ(-1, broker_publish_operation_next(SESSION));
}

TEST_F(broker_operation, of_a_plugin_reaches_it_only_when_valid)
{
  handle("/m:do", nullptr, &rpc_plugin);
  static bool is_valid = false;
  broker_hooks_t hooks = {};
  hooks.plugin_id = [](const plugin_inst_t *plugin) { return plugin->id; };
  hooks.parse_rpc = [](const char *, lyxml_elem *) { return is_valid ? 0 : -1; };
  hooks.add_path_and_msg = [](reply_error_t *error) {
    rpc_set_error_field(error, REPLY_ERR_FIELD_MSG, "no such leaf");
  };
  hooks.publish_operate = [](int plugin_id, const plugin_publish_info_t *info, int *status) {
    calls.push_back(std::to_string(plugin_id) + lyxml_print_mem(info->operate.input));
    *status = SUBPUB_WAIT;
    return 0;
  };
  broker_set_hooks(hooks);

  EXPECT_EQ(-1, request("/m:do"));
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(contains(reply(), "no such leaf"));
  is_valid = true;
  EXPECT_EQ(0, request("/m:do"));
  EXPECT_EQ((std::vector<std::string>{"5<do><what>it</what></do>"}), calls);
  EXPECT_EQ("", reply());
}
