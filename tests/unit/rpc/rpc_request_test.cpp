// What the ways of handlers to fail come to, and what only the inside of the daemon sees of sessions.
#include <cstring>

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/rpc/rpc.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/rpc/session_operations.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr size_t LARGE = 3000000;

std::string rpc_text(const std::string &operation)
{
  return "<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + operation + "</rpc>";
}

std::string own_operation(const std::string &name, const std::string &input)
{
  return rpc_text("<" + name + " xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\">" + input + "</" + name + ">");
}

std::string frame(const std::string &payload, uint16_t seq = 77)
{
  msg_head_t head = {MSG_MAGIC, static_cast<uint32_t>(payload.size()), seq, 0};
  return std::string(reinterpret_cast<const char *>(&head), sizeof(head)) + payload;
}

int answer_ok(int session_id, const char *, lyxml_elem *rpc)
{
  return rpc_answer_ok(session_id, rpc);
}
int answer_much(int session_id, const char *, lyxml_elem *)
{
  session_del_rpc_context(session_id);
  return session_cache_send(session_id, SESSION_MSG_REPLY, std::string(LARGE, 'x').data(), LARGE);
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

class rpc_request : public testing::Test {
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
    log_open(LOG_TO_STDERR, LOG_LEVEL_ERROR);
    ASSERT_EQ(0, context_init(STAGE_RESOURCE) | session_init(STAGE_RESOURCE) | broker_init(STAGE_RESOURCE));
    ASSERT_EQ(0, context_save_int("OPT-ymgrd-epfd", epfd_.get()) | session_reg_operation());
    session_hooks_t hooks = {};
    hooks.receive = rpc_recv_proc;
    session_set_hooks(hooks);
    rpc_set_next_subscriber_hook(broker_publish_operation_next);
    for (unique_fd &agent : agents) { // sessions 1 and 2
      int socks[2];
      ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, socks));
      agent.reset(socks[0]);
      ASSERT_EQ(0, session_inst_init(socks[1]));
    }
  }
  void TearDown() override
  {
    rpc_set_next_subscriber_hook(nullptr);
    for (int session_id = 1; session_id <= context_list_size("LIST-session"); session_id++) {
      session_del_rpc_context(session_id);
      session_inst_exit(session_id);
    }
    session_exit();
    broker_exit();
    context_exit();
  }

  static void handle(oper_handler_fn handler)
  {
    econf_subpub_cb_t callback = {};
    callback.oper = handler;
    ASSERT_EQ(0, broker_reg_oper_subscriber(nullptr, "zentra-ymgrd:get-capability", callback));
  }
  // What the session has to say.
  std::string read(int session_id)
  {
    (void)session_inst_wakeup(session_id, EPOLLOUT);
    std::string bytes(2 * LARGE, ' ');
    ssize_t length = recv(agents[session_id - 1].get(), bytes.data(), bytes.size(), 0);
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return bytes;
  }
  // The one reply to the request; empty when there is none.
  std::string ask(int session_id, const std::string &request)
  {
    std::string bytes = frame(request);
    EXPECT_EQ(send(agents[session_id - 1].get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    (void)session_inst_wakeup(session_id, EPOLLIN);
    std::string reply = read(session_id);
    size_t head = std::min(reply.size(), sizeof(msg_head_t));
    EXPECT_TRUE(reply.empty() || reply == frame(reply.substr(head))) << "more than one, or another number";
    return reply.substr(head);
  }
  void open_session(int session_id)
  {
    EXPECT_TRUE(has(ask(session_id, own_operation("create-session", "<username> admin\n</username>")),
                    ">" + std::to_string(session_id) + "</ymgrd:session-id>"));
  }
  static bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

  // One pass of the event loop, then session 1's agent takes up to so many bytes.
  std::string turn(size_t most)
  {
    epoll_event events[2];
    int count = epoll_wait(epfd_.get(), events, 2, 0);
    for (int i = 0; i < count; i++) {
      (void)session_inst_wakeup(static_cast<int>(events[i].data.u32 & 0xffffU), events[i].events);
    }
    std::string bytes(most, ' ');
    ssize_t length = recv(agents[0].get(), bytes.data(), most, 0);
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return bytes;
  }
  static std::string event_text(size_t number)
  {
    return "event " + std::to_string(number) + std::string(number % 500 == 7 ? 20000 : number % 90, '.');
  }
  // Queues an event for session 1: its frame; empty when it is refused.
  static std::string queue_event(size_t number)
  {
    std::string text = event_text(number);
    bool is_queued = session_cache_send(1, SESSION_MSG_OTHER, text.data(), static_cast<int>(text.size())) == 0;
    return is_queued && session_schedule(1) == 0 ? frame(text, 0) : "";
  }
  static void make_socket_small()
  {
    int size = 4096;
    ASSERT_EQ(0, setsockopt(session_find(1)->sock, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)));
  }

  unique_fd agents[2];

private:
  unique_fd epfd_{epoll_create1(EPOLL_CLOEXEC)};
};

} // namespace

TEST_F(rpc_request, each_request_is_answered_once_however_its_subscribers_fail)
{
  open_session(1);
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
      handle(subscriber);
    }
    std::string reply = ask(1, own_operation("get-capability", ""));
    if (entry.answer == nullptr) {
      EXPECT_EQ("", reply);
      ASSERT_NE(nullptr, session_get_rpc_context(1));
      EXPECT_EQ(0, rpc_answer_ok(1, session_get_rpc_context(1)->rpc.get()));
      EXPECT_TRUE(has(read(1), "<ok/>"));
    } else {
      EXPECT_TRUE(has(reply, entry.answer)) << reply;
    }
    for (size_t i = 0; i < entry.subscribers.size(); i++) {
      broker_unreg_oper_subscriber(nullptr, "/zentra-ymgrd:get-capability");
    }
  }
}

TEST_F(rpc_request, large_messages_pass_through_small_sockets_and_leave_small_buffers)
{
  open_session(1);
  handle(answer_much);
  const session_t *session = session_find(1);
  make_socket_small();
  const std::string request = frame(own_operation("get-capability", std::string(LARGE, ' ')));
  std::string reply;
  for (size_t sent = 0; sent < request.size() || reply.size() < sizeof(msg_head_t) + LARGE;) {
    ssize_t length = send(agents[0].get(), request.data() + sent, request.size() - sent, 0);
    sent += length > 0 ? static_cast<size_t>(length) : 0;
    ASSERT_EQ(0, session_inst_wakeup(1, EPOLLIN));
    reply += read(1);
  }
  EXPECT_TRUE(reply == frame(std::string(LARGE, 'x')));
  EXPECT_LT(session->send_buf->total + session->recv_buf->total, 100000U);
}

TEST_F(rpc_request, a_stream_of_events_without_end_does_not_hold_up_requests)
{
  constexpr size_t EVENTS = 5000;
  open_session(1);
  handle(answer_ok);
  make_socket_small();
  std::string reply = ask(1, own_operation("get-capability", ""));
  std::string queued;   // all events, in order
  std::string received; // what the agent got besides replies
  std::string bytes;
  size_t events = 0;
  size_t replies = 0;
  size_t requests = 0;
  for (size_t turns = 0; replies < requests || events < EVENTS || received.size() < queued.size(); turns++) {
    ASSERT_LT(turns, 50000U) << replies << " replies";
    bool is_full = events == EVENTS; // until then the queue is never empty
    while (!is_full && session_queued(1) < 3000) {
      queued += queue_event(events++);
      is_full = events == EVENTS;
    }
    if (replies == requests && !is_full) {
      std::string request = frame(own_operation("get-capability", ""), requests++ % 3);
      ASSERT_EQ(send(agents[0].get(), request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    }
    bytes += turn(700);
    msg_head_t head = {};
    for (; bytes.size() >= sizeof(head); bytes.erase(0, sizeof(head) + head.length)) {
      std::memcpy(&head, bytes.data(), sizeof(head));
      if (bytes.size() < sizeof(head) + head.length) {
        break;
      }
      std::string whole = bytes.substr(0, sizeof(head) + head.length);
      if (has(whole, "rpc-reply")) {
        ASSERT_LT(replies, requests) << "more replies than requests";
        EXPECT_EQ(frame(reply, replies++ % 3), whole);
      } else {
        received += whole;
      }
    }
  }
  EXPECT_TRUE(received == queued);
  EXPECT_EQ("", bytes);
  EXPECT_GT(requests, EVENTS / 200) << "requests starve";
  EXPECT_LT(session_find(1)->send_buf->total, 100000U);
}

TEST_F(rpc_request, a_session_that_ends_has_its_events_and_reply_first_but_no_new_ones)
{
  open_session(1);
  open_session(2);
  std::string expected = queue_event(1);
  expected += queue_event(2);
  EXPECT_TRUE(read(1) == expected) << "several in one write";
  expected = queue_event(7);
  std::string got = ask(2, rpc_text("<kill-session><session-id>1</session-id></kill-session>"));
  EXPECT_TRUE(has(got, "<ok/>"));
  EXPECT_EQ("", queue_event(3));
  EXPECT_TRUE(turn(LARGE) == expected);
  (void)turn(LARGE);
  EXPECT_EQ(nullptr, session_find(1));
}

TEST_F(rpc_request, a_peer_that_reads_a_little_now_and_then_does_not_keep_a_killed_session_for_ever)
{
  open_session(1);
  make_socket_small();
  for (size_t number = 0; number < 2000; number++) {
    ASSERT_NE("", queue_event(number * 500 + 7));
  }
  session_find(1)->bit_exit = true;
  int passes = 0;
  for (; session_find(1) != nullptr && passes < 200; passes++) {
    (void)turn(10000);
    session_timeout();
  }
  EXPECT_GT(passes, 20) << "it does read";
  EXPECT_LT(passes, 100);
}
