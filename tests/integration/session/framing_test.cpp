// Frames as a slow, broken or hostile agent writes them.
#include <sys/socket.h>

#include "session_fixture.h"

namespace {

constexpr uint16_t PIPELINED_REQUESTS = 1000;

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

TEST_F(framing, frames_are_found_behind_garbage_back_to_back_and_in_turns_with_other_sessions)
{
  std::string first = ymgr_frame(rpc("first", support::get_config("running")), 65535);
  std::string second = ymgr_frame(rpc("second", GET_CAPABILITY), 1);
  std::string theirs = ymgr_frame(rpc("theirs", GET_CAPABILITY), 4);
  send("ten bytes!" + first + second + std::string("\xff\xba\xdc\xff\xba\xdc", 6) + first.substr(0, 40));
  ASSERT_TRUE(ymgr_send_raw(other->client(), theirs.substr(0, 7)));
  EXPECT_TRUE(contains(reply_to(agent, 65535), "message-id=\"first\""));
  EXPECT_TRUE(contains(reply_to(agent, 1), "message-id=\"second\""));
  ASSERT_TRUE(ymgr_send_raw(other->client(), theirs.substr(7)));
  EXPECT_TRUE(contains(reply_to(other->client(), 4), "message-id=\"theirs\""));
  send(first.substr(40));
  EXPECT_TRUE(contains(reply_to(agent, 65535), "message-id=\"first\""));
}

TEST_F(framing, an_agent_that_dies_in_a_frame_costs_only_its_session)
{
  std::string frame = ymgr_frame(rpc("1", GET_CAPABILITY), 1);
  int id = 0;
  for (size_t length : {size_t{5}, size_t{12}, frame.size() - 1}) {
    support::netconf_session session(daemon.run_dir());
    EXPECT_TRUE(id == 0 || session.id() == id) << "the one before still has its place";
    id = session.id();
    ASSERT_TRUE(ymgr_send_raw(session.client(), frame.substr(0, length)));
    session.close();
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
  std::vector<ymgr_client_t *> agents = {agent, other->client()};
  while (agents.size() < 16) {
    agents.push_back(connect().client());
  }
  auto message_id = [](size_t index, uint16_t seq) { return std::to_string(index) + "-" + std::to_string(seq); };
  for (uint16_t seq = 1; seq <= PIPELINED_REQUESTS; seq++) {
    std::string operation = seq % 10 == 0 ? support::get_config("running") : GET_CAPABILITY;
    for (size_t index = 0; index < agents.size(); index++) {
      ASSERT_TRUE(ymgr_send_raw(agents[index], ymgr_frame(rpc(message_id(index, seq), operation), seq)));
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
