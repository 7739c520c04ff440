// Sessions from create-session to their end, with frames and requests as a slow, broken or hostile agent writes them.
#include <algorithm>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "support/daemon_test.h"

using support::is_closed_by_daemon;
using support::rpc_of;

namespace {

constexpr uint16_t PIPELINED_REQUESTS = 1000;
constexpr char GET_CAPABILITY[] = "<get-capability xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>";
constexpr char CREATE_SESSION[] = "<create-session xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>";
constexpr char SHUTDOWN[] = "<shutdown xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>";

class daemon_session : public support::daemon_test {
protected:
  void SetUp() override
  {
    ASSERT_TRUE(daemon.start());
    open_sessions();
  }
  void open_sessions()
  {
    other = &connect();
    session = &connect();
    agent = session->client();
  }

  void send(const std::string &bytes) { ASSERT_TRUE(ymgr_send_raw(agent, bytes)) << ymgr_last_error(agent); }
  // Its reply shows that the daemon has seen all that was sent before.
  void pass_barrier() { ASSERT_NE(other->rpc(GET_CAPABILITY), ""); }
  std::string reply_of(const std::string &payload, uint16_t seq)
  {
    send(ymgr_frame(payload, seq));
    return reply_to(agent, seq);
  }

  // A connection without create-session.
  ymgr_client_ptr connect_raw()
  {
    std::string reason;
    ymgr_client_ptr client = ymgr_connect(daemon.run_dir(), &reason);
    EXPECT_NE(client, nullptr) << reason;
    return client;
  }
  // Waits until the next frame, which is to be the reply to request `seq`; its payload.
  static std::string reply_to(ymgr_client_t *client, uint16_t seq)
  {
    std::optional<ymgr_frame_t> frame = ymgr_receive(client);
    if (!frame) {
      ADD_FAILURE() << "no reply to " << seq << ": " << ymgr_last_error(client);
      return "";
    }
    EXPECT_EQ(frame->seq, seq);
    return frame->payload;
  }

  support::netconf_session *session = nullptr;
  ymgr_client_t *agent = nullptr; // its connection
  support::netconf_session *other = nullptr;
};

} // namespace

TEST_F(daemon_session, a_request_may_be_split_at_any_byte)
{
  std::string frame = ymgr_frame(rpc_of(GET_CAPABILITY, "split"), 77);
  for (size_t split = 1; split < frame.size(); split++) {
    send(frame.substr(0, split));
    pass_barrier();
    send(frame.substr(split));
    std::string reply = reply_to(agent, 77);
    ASSERT_TRUE(contains(reply, "message-id=\"split\"") && contains(reply, "<capability>")) << split << "\n" << reply;
  }
}

TEST_F(daemon_session, frames_are_found_behind_garbage_back_to_back_and_in_turns_with_other_sessions)
{
  std::string first = ymgr_frame(rpc_of(support::get_config("running"), "first"), 65535);
  std::string second = ymgr_frame(rpc_of(GET_CAPABILITY, "second"), 1);
  std::string theirs = ymgr_frame(rpc_of(GET_CAPABILITY, "theirs"), 4);
  (void)::send(ymgr_descriptor(agent), "!", 1, MSG_OOB | MSG_NOSIGNAL); // not every kernel has it on local sockets
  send("ten bytes!" + std::string(100000, '\xFF') + first + second + std::string("\xff\xba\xdc\xff\xba\xdc", 6) +
       first.substr(0, 40));
  ASSERT_TRUE(ymgr_send_raw(other->client(), theirs.substr(0, 7)));
  EXPECT_TRUE(contains(reply_to(agent, 65535), "message-id=\"first\""));
  EXPECT_TRUE(contains(reply_to(agent, 1), "message-id=\"second\""));
  ASSERT_TRUE(ymgr_send_raw(other->client(), theirs.substr(7)));
  EXPECT_TRUE(contains(reply_to(other->client(), 4), "message-id=\"theirs\""));
  send(first.substr(40));
  EXPECT_TRUE(contains(reply_to(agent, 65535), "message-id=\"first\""));
  const std::string status = "/proc/" + std::to_string(daemon.pid()) + "/status";
  EXPECT_TRUE(support::wait_until([&] { return contains(support::read_file(status), "State:\tS"); })) << "at rest";
}

TEST_F(daemon_session, a_peer_that_reads_nothing_fills_no_memory_and_can_be_killed)
{
  // Refused, and answered with its message-id.
  const std::string frame = ymgr_frame(rpc_of("<kill-session/>", std::string(100000, 'x')), 1);
  size_t taken = 0;
  for (int round = 0; round < 200; round++) {
    size_t sent = taken % frame.size();
    taken += static_cast<size_t>(std::max<ssize_t>(
        0, ::send(ymgr_descriptor(agent), frame.data() + sent, frame.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL)));
    pass_barrier();
  }
  EXPECT_LT(taken, 5000000U);
  ASSERT_TRUE(other->ok("<kill-session><session-id>" + std::to_string(session->id()) + "</session-id></kill-session>"));
  EXPECT_TRUE(daemon.wait_for_log("Session " + std::to_string(session->id()) + " exit."));
}

TEST_F(daemon_session, an_agent_that_dies_in_a_frame_costs_only_its_session)
{
  std::string frame = ymgr_frame(rpc_of(GET_CAPABILITY), 1);
  int id = 0;
  for (size_t length : {size_t{5}, size_t{12}, frame.size() - 1}) {
    support::netconf_session dying(daemon.run_dir());
    EXPECT_TRUE(id == 0 || dying.id() == id) << "the one before still has its place";
    id = dying.id();
    ASSERT_TRUE(ymgr_send_raw(dying.client(), frame.substr(0, length)));
    dying.close();
    pass_barrier();
  }
}

TEST_F(daemon_session, an_oversized_frame_ends_its_session_only)
{
  daemon.options().profile["max-message-size"] = "1000";
  ASSERT_TRUE(daemon.restart());
  open_sessions();
  std::string longest = rpc_of(GET_CAPABILITY);
  longest.insert(longest.size() - 6, 1000 - longest.size(), ' ');
  send(ymgr_frame(longest, 1));
  EXPECT_TRUE(contains(reply_to(agent, 1), "<capability>"));
  // Only the head: its claim is enough.
  send(ymgr_frame(longest + " ", 2).substr(0, 12));
  EXPECT_TRUE(is_closed_by_daemon(agent));
  EXPECT_TRUE(daemon.wait_for_log("is too long(1001 bytes, 1000 allowed)."));
  pass_barrier();
}

TEST_F(daemon_session, a_half_closed_agent_gets_its_reply)
{
  send(ymgr_frame(rpc_of(support::get_config("running"), "last"), 9));
  ASSERT_EQ(shutdown(ymgr_descriptor(agent), SHUT_WR), 0);
  EXPECT_TRUE(contains(reply_to(agent, 9), "message-id=\"last\""));
  EXPECT_TRUE(is_closed_by_daemon(agent));
}

TEST_F(daemon_session, pipelined_requests_of_many_sessions_each_get_their_own_reply)
{
  std::vector<ymgr_client_t *> agents = {agent, other->client()};
  while (agents.size() < 16) {
    agents.push_back(connect().client());
  }
  auto message_id = [](size_t index, uint16_t seq) { return std::to_string(index) + "-" + std::to_string(seq); };
  for (uint16_t seq = 1; seq <= PIPELINED_REQUESTS; seq++) {
    std::string operation = seq % 10 == 0 ? support::get_config("running") : GET_CAPABILITY;
    for (size_t index = 0; index < agents.size(); index++) {
      ASSERT_TRUE(ymgr_send_raw(agents[index], ymgr_frame(rpc_of(operation, message_id(index, seq)), seq)));
    }
  }
  for (size_t index = 0; index < agents.size(); index++) {
    for (uint16_t seq = 1; seq <= PIPELINED_REQUESTS; seq++) {
      std::string reply = reply_to(agents[index], seq);
      ASSERT_TRUE(contains(reply, "message-id=\"" + message_id(index, seq) + "\"")) << reply;
      ASSERT_TRUE(contains(reply, seq % 10 == 0 ? "<data" : "<capability>")) << reply;
    }
  }
}

TEST_F(daemon_session, what_is_no_acceptable_xml_is_an_invalid_value_with_the_frames_number)
{
  const std::string get = rpc_of(support::get_config("running"));
  uint16_t seq = 1000;
  for (const std::string &payload : {std::string(), get + std::string(1, '\0') + get}) {
    std::string reply = reply_of(payload, ++seq);
    EXPECT_EQ(reply.find("<rpc-error>"), reply.rfind("<rpc-error>")) << reply;
    EXPECT_EQ(support::find_error(reply).value_or(support::rpc_error_t()).tag, "invalid-value") << reply;
    EXPECT_TRUE(contains(reply, "message-id=\"" + std::to_string(seq) + "\"")) << reply;
  }
  EXPECT_TRUE(contains(reply_of(get, 1), "<data"));
}

TEST_F(daemon_session, create_session_comes_first_and_once)
{
  ymgr_client_ptr early = connect_raw();
  auto refusal = [&early](const std::string &operation) {
    std::string reply = ymgr_rpc(early.get(), operation).value_or("");
    return support::find_error(reply).value_or(support::rpc_error_t()).tag;
  };
  EXPECT_EQ(refusal(support::get_config("running")), "operation-failed");
  EXPECT_EQ(refusal(SHUTDOWN), "operation-failed");
  EXPECT_EQ(
      refusal("<create-session xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"><agent-ppid>one</agent-ppid>"
              "</create-session>"),
      "invalid-value");
  ASSERT_TRUE(ymgr_create_session(early.get(), "tester"));
  EXPECT_EQ(refusal(CREATE_SESSION), "operation-failed");
  EXPECT_TRUE(contains(ymgr_rpc(early.get(), GET_CAPABILITY).value_or(""), "<capability>"));
}

TEST_F(daemon_session, a_connection_beyond_the_limit_is_closed_and_a_freed_place_is_taken_again)
{
  daemon.options().profile["session-spec"] = "2";
  ASSERT_TRUE(daemon.restart());
  ymgr_client_ptr second = connect_raw(); // without create-session it counts as well
  support::netconf_session &first = connect();
  EXPECT_TRUE(is_closed_by_daemon(connect_raw().get()));
  EXPECT_NE(first.rpc(GET_CAPABILITY), "");
  second.reset();
  EXPECT_TRUE(support::wait_until([this] {
    ymgr_client_ptr third = connect_raw();
    return ymgr_create_session(third.get(), "tester").has_value();
  }));
}

TEST_F(daemon_session, shutdown_closes_the_idle_rest_answers_and_ends_with_status_one)
{
  std::jthread events([this](const std::stop_token &stop) { // leave the daemon no idle second
    for (; !stop.stop_requested(); std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
      (void)emit("<event/>");
    }
  });
  ASSERT_TRUE(session->ok(SHUTDOWN));
  EXPECT_TRUE(is_closed_by_daemon(other->client()));
  EXPECT_TRUE(is_closed_by_daemon(agent));
  std::optional<int> status = daemon.wait();
  ASSERT_TRUE(status && WIFEXITED(*status)) << daemon.log_tail();
  EXPECT_EQ(WEXITSTATUS(*status), 1) << daemon.log_tail();
  EXPECT_FALSE(contains(daemon.log_text(), "happened(callstack"));
}
