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
    // Every request is answered at once with its own text.
    on_request = [this](int session_id, const msg_head_t &head, std::string_view payload) {
      requests.push_back({head.seq, std::string(payload)});
      EXPECT_EQ(0, session_cache_send(session_id, SESSION_MSG_REPLY, payload.data(), static_cast<int>(payload.size())));
      EXPECT_EQ(0, session_schedule(session_id));
      return 0;
    };
  }

  std::vector<std::string> texts() const
  {
    std::vector<std::string> result;
    for (const frame_t &request : requests) {
      result.push_back(request.payload);
    }
    return result;
  }

  test_agent_t agent;
  std::vector<frame_t> requests;
};

using texts_t = std::vector<std::string>;

} // namespace

TEST_F(session_frames, frames_may_arrive_in_any_pieces_with_garbage_between)
{
  const std::string bytes =
      "garbage \xFF\xBA" + frame_bytes(7, "<a/>") + frame_bytes(8, "") + "\xFF\xBA\xDC\xFF" + frame_bytes(9, "<b/>");
  for (size_t size = 1; size <= bytes.size(); size++) {
    requests.clear();
    for (size_t start = 0; start < bytes.size(); start += size) {
      agent.write(bytes.substr(start, size));
      run();
    }
    ASSERT_EQ((texts_t{"<a/>", "", "<b/>"}), texts()) << "in pieces of " << size;
    std::vector<frame_t> replies = agent.frames();
    ASSERT_EQ(3U, replies.size());
    EXPECT_EQ(9, replies[2].seq);
  }
}

TEST_F(session_frames, garbage_and_urgent_bytes_do_not_keep_the_loop_busy)
{
  (void)send(agent.sock.get(), "!", 1, MSG_OOB | MSG_NOSIGNAL); // not every kernel has it on local sockets
  run();
  agent.write(std::string(100000, '\xFF'));
  run();
  agent.write(frame_bytes(1, "<a/>"));
  run();
  EXPECT_EQ(texts_t{"<a/>"}, texts());
}

TEST_F(session_frames, next_request_stays_in_the_socket_until_the_reply_is_written)
{
  on_request = [this](int session_id, const msg_head_t &head, std::string_view payload) {
    requests.push_back({head.seq, std::string(payload)});
    return session_save_rpc_context(session_id, std::make_unique<rpc_oper_context_t>()); // answered later
  };
  agent.write(frame_bytes(0, "one") + frame_bytes(2, "two"));
  EXPECT_EQ(0, session_cache_send(agent.session_id, SESSION_MSG_OTHER, "note", 4));
  EXPECT_EQ(0, session_schedule(agent.session_id));
  run();
  EXPECT_EQ(0, session_cache_send(agent.session_id, SESSION_MSG_OTHER, "note", 4)); // numbered like the request
  EXPECT_EQ(0, session_schedule(agent.session_id));
  run();
  EXPECT_EQ(texts_t{"one"}, texts());
  session_del_rpc_context(agent.session_id);
  EXPECT_EQ(0, session_cache_send(agent.session_id, SESSION_MSG_REPLY, "done", 4));
  EXPECT_EQ(0, session_schedule(agent.session_id));
  run();
  EXPECT_EQ((texts_t{"one", "two"}), texts());
  EXPECT_EQ(3U, agent.frames().size());
}

TEST_F(session_frames, large_messages_pass_through_small_sockets)
{
  const std::string large = std::string(3000000, 'x') + "end";
  int size = 4096;
  ASSERT_EQ(0, setsockopt(session_find(agent.session_id)->sock, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)));
  std::string request = frame_bytes(3, large);
  std::string reply;
  for (size_t sent = 0; sent < request.size() || reply.size() < request.size();) {
    ssize_t length = send(agent.sock.get(), request.data() + sent, request.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    sent += length > 0 ? static_cast<size_t>(length) : 0;
    run();
    reply += agent.read_all();
    ASSERT_FALSE(agent.is_closed());
  }
  EXPECT_TRUE(request == reply);
  run();
  EXPECT_TRUE(session_find(agent.session_id)->bit_rpc);
  EXPECT_LT(session_find(agent.session_id)->send_buf->total, 100000U);
}

TEST_F(session_frames, peer_that_reads_nothing_cannot_fill_the_memory)
{
  on_request = [this](int session_id, const msg_head_t &, std::string_view) {
    requests.emplace_back();
    std::string reply(1000000, 'x');
    EXPECT_EQ(0, session_cache_send(session_id, SESSION_MSG_REPLY, reply.data(), static_cast<int>(reply.size())));
    return -1;
  };
  for (uint16_t seq = 1; seq <= 100; seq++) {
    agent.write(frame_bytes(seq, "x"));
  }
  run();
  EXPECT_LT(requests.size(), 5U);
}
