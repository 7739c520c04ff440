// Frames as a slow, broken or hostile agent writes them.
#include <sys/socket.h>

#include "session_fixture.h"

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr int PIPELINED_REQUESTS = 250; // each costs several times as much
#else
constexpr int PIPELINED_REQUESTS = 1000;
#endif

class framing : public session_fixture {
protected:
  void SetUp() override
  {
    session_fixture::SetUp();
    agent = connect().client();
    other = &connect();
  }

  void send(const std::string &bytes) { ASSERT_TRUE(ymgr_send_raw(agent, bytes)) << ymgr_last_error(agent); }
  // Its reply shows that the daemon has seen all that was sent before.
  void pass_barrier() { ASSERT_NE(other->rpc(GET_CAPABILITY), ""); }

  ymgr_client_t *agent = nullptr;
  support::netconf_session *other = nullptr;
};

} // namespace

TEST_F(framing, a_request_may_be_split_at_any_byte)
{
  std::string frame = ymgr_frame(rpc("split", GET_CAPABILITY), 77);
  for (size_t split = 1; split < frame.size(); split++) {
    send(frame.substr(0, split));
    pass_barrier();
    send(frame.substr(split));
    std::string reply = reply_to(agent, 77);
    ASSERT_TRUE(contains(reply, "message-id=\"split\"") && contains(reply, "<capability>")) << split << "\n" << reply;
  }
}

TEST_F(framing, garbage_before_a_frame_is_skipped)
{
  for (const std::string &garbage : {std::string("ten bytes!"), std::string("\xff\xba\xdc\xff\xba\xdc", 6)}) {
    send(garbage + ymgr_frame(rpc("1", GET_CAPABILITY), 5));
    EXPECT_TRUE(contains(reply_to(agent, 5), "<capability>"));
  }
}

TEST_F(framing, two_requests_in_one_write_are_answered_in_order)
{
  send(ymgr_frame(rpc("first", support::get_config("running")), 65535) + ymgr_frame(rpc("second", GET_CAPABILITY), 1));
  EXPECT_TRUE(contains(reply_to(agent, 65535), "message-id=\"first\""));
  EXPECT_TRUE(contains(reply_to(agent, 1), "message-id=\"second\""));
}

TEST_F(framing, half_frames_of_two_sessions_do_not_mix)
{
  std::string mine = ymgr_frame(rpc("mine", GET_CAPABILITY), 3);
  std::string theirs = ymgr_frame(rpc("theirs", GET_CAPABILITY), 4);
  send(mine.substr(0, 40));
  ASSERT_TRUE(ymgr_send_raw(other->client(), theirs.substr(0, 7)));
  send(mine.substr(40, 30));
  ASSERT_TRUE(ymgr_send_raw(other->client(), theirs.substr(7)));
  EXPECT_TRUE(contains(reply_to(other->client(), 4), "message-id=\"theirs\""));
  send(mine.substr(70));
  EXPECT_TRUE(contains(reply_to(agent, 3), "message-id=\"mine\""));
}

TEST_F(framing, an_agent_that_dies_in_a_frame_costs_only_its_session)
{
  std::string frame = ymgr_frame(rpc("1", GET_CAPABILITY), 1);
  size_t ended = 0;
  for (size_t length : {size_t{5}, size_t{12}, frame.size() - 1}) {
    support::netconf_session session(daemon.run_dir());
    ASSERT_TRUE(ymgr_send_raw(session.client(), frame.substr(0, length)));
    session.close();
    ended++;
    std::string line = "Session " + std::to_string(session.id()) + " exit.";
    EXPECT_TRUE(support::wait_until([&] { return count(daemon.log_text(), line) == ended; }));
    pass_barrier();
  }
}

TEST_F(framing, an_oversized_frame_ends_its_session_only)
{
  daemon.options().profile["max-message-size"] = "1000";
  ASSERT_TRUE(daemon.restart());
  agent = connect().client();
  other = &connect();
  std::string longest = rpc("1", GET_CAPABILITY);
  longest.insert(longest.size() - 6, 1000 - longest.size(), ' ');
  send(ymgr_frame(longest, 1));
  EXPECT_TRUE(contains(reply_to(agent, 1), "<capability>"));
  // Only the head: its claim is enough.
  send(ymgr_frame(longest + " ", 2).substr(0, 12));
  EXPECT_TRUE(is_closed_by_daemon(agent));
  EXPECT_TRUE(daemon.wait_for_log("is too long(1001 bytes, 1000 allowed)."));
  pass_barrier();
}

TEST_F(framing, a_half_closed_agent_gets_its_reply)
{
  send(ymgr_frame(rpc("last", support::get_config("running")), 9));
  ASSERT_EQ(shutdown(ymgr_descriptor(agent), SHUT_WR), 0);
  EXPECT_TRUE(contains(reply_to(agent, 9), "message-id=\"last\""));
  EXPECT_TRUE(is_closed_by_daemon(agent));
}

TEST_F(framing, pipelined_requests_of_many_sessions_each_get_their_own_reply)
{
  const std::string get_hostname = support::get_config("running", "<system xmlns=\"urn:ex-sys\"><hostname/></system>");
  std::vector<ymgr_client_t *> agents = {agent, other->client()};
  while (agents.size() < 16) {
    agents.push_back(connect().client());
  }
  auto message_id = [](size_t index, uint16_t seq) { return std::to_string(index) + "-" + std::to_string(seq); };
  std::vector<std::vector<uint16_t>> sent(agents.size());
  for (int n = 0; n < PIPELINED_REQUESTS; n++) {
    for (size_t index = 0; index < agents.size(); index++) {
      auto seq = static_cast<uint16_t>(sent[index].size() + 1);
      std::string operation = n % 10 == 0 ? get_hostname : GET_CAPABILITY;
      ASSERT_TRUE(ymgr_send_raw(agents[index], ymgr_frame(rpc(message_id(index, seq), operation), seq)));
      sent[index].push_back(seq);
    }
  }
  for (size_t index = 0; index < agents.size(); index++) {
    for (uint16_t seq : sent[index]) {
      std::string reply = reply_to(agents[index], seq);
      ASSERT_TRUE(contains(reply, "message-id=\"" + message_id(index, seq) + "\"")) << reply;
      ASSERT_FALSE(contains(reply, "<rpc-error>")) << reply;
    }
  }
}
