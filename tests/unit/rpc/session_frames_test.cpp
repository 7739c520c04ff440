#include "session_fixture.h"

#include <sys/socket.h>

#include "ymgrd/core/context.h"

namespace {

class session_frames : public session_fixture {
protected:
  void SetUp() override
  {
    session_fixture::SetUp();
    agent = connect();
    ASSERT_GT(agent.session_id, 0);
  }

  test_agent_t agent;
  std::vector<std::string> requests;
};

using texts_t = std::vector<std::string>;

} // namespace

TEST_F(session_frames, garbage_and_urgent_bytes_do_not_keep_the_loop_busy)
{
  on_request = [this](int, const msg_head_t &, std::string_view payload) {
    requests.emplace_back(payload);
    return -1;
  };
  (void)send(agent.sock.get(), "!", 1, MSG_OOB | MSG_NOSIGNAL); // not every kernel has it on local sockets
  run();
  agent.write(std::string(100000, '\xFF'));
  run();
  agent.write(frame_bytes(1, "<a/>"));
  run();
  EXPECT_EQ(texts_t{"<a/>"}, requests);
}

TEST_F(session_frames, next_request_stays_in_the_socket_until_the_reply_is_written)
{
  on_request = [this](int session_id, const msg_head_t &, std::string_view payload) {
    requests.emplace_back(payload);
    return session_save_rpc_context(session_id, std::make_unique<rpc_oper_context_t>()); // answered later
  };
  agent.write(frame_bytes(0, "one") + frame_bytes(2, "two"));
  send_message(agent.session_id, SESSION_MSG_OTHER, "note");
  run();
  send_message(agent.session_id, SESSION_MSG_OTHER, "note"); // numbered like the request
  run();
  EXPECT_EQ(texts_t{"one"}, requests);
  session_del_rpc_context(agent.session_id);
  send_message(agent.session_id, SESSION_MSG_REPLY, "done");
  run();
  EXPECT_EQ((texts_t{"one", "two"}), requests);
  EXPECT_EQ(3U, agent.frames().size());
}

TEST_F(session_frames, large_messages_pass_through_small_sockets_and_leave_small_buffers)
{
  on_request = [](int session_id, const msg_head_t &, std::string_view payload) {
    send_message(session_id, SESSION_MSG_REPLY, std::string(payload));
    return 0;
  };
  int size = 4096;
  ASSERT_EQ(0, setsockopt(session_find(agent.session_id)->sock, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)));
  const std::string request = frame_bytes(3, std::string(3000000, 'x') + "end");
  std::string reply;
  for (size_t sent = 0; sent < request.size() || reply.size() < request.size();) {
    ssize_t length = send(agent.sock.get(), request.data() + sent, request.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    sent += length > 0 ? static_cast<size_t>(length) : 0;
    run();
    reply += agent.read_all();
    ASSERT_FALSE(agent.is_closed());
  }
  EXPECT_TRUE(request == reply);
  EXPECT_LT(session_find(agent.session_id)->send_buf->total, 100000U);
}

TEST_F(session_frames, peer_that_reads_nothing_cannot_fill_the_memory)
{
  int asked = 0;
  on_request = [&asked](int session_id, const msg_head_t &, std::string_view) {
    asked++;
    send_message(session_id, SESSION_MSG_REPLY, std::string(1000000, 'x'));
    return -1;
  };
  for (uint16_t seq = 1; seq <= 100; seq++) {
    agent.write(frame_bytes(seq, "x"));
  }
  run();
  EXPECT_LT(asked, 5);
}
