#include "session_fixture.h"

#include "ymgrd/core/context.h"

namespace {

class session_life : public session_fixture {
protected:
  // The session holds a request; `is_publishing` as when its subscriber has it.
  void give_request(const test_agent_t &agent, int is_publishing)
  {
    on_request = [is_publishing](int session_id, const msg_head_t &, std::string_view) {
      auto context = std::make_unique<rpc_oper_context_t>();
      context->oper = "/ex:op";
      context->is_publishing = is_publishing;
      return session_save_rpc_context(session_id, std::move(context));
    };
    agent.write(frame_bytes(4, "<rpc/>"));
    run();
    ASSERT_NE(nullptr, session_get_rpc_context(agent.session_id));
  }

  static void end_request(int session_id, const std::string &reply)
  {
    session_del_rpc_context(session_id);
    (void)session_cache_send(session_id, SESSION_MSG_REPLY, reply.data(), static_cast<int>(reply.size()));
    (void)session_schedule(session_id);
  }

  static void mark_for_exit(int session_id)
  {
    session_find(session_id)->bit_exit = true;
    ASSERT_EQ(0, session_schedule(session_id));
  }
};

} // namespace

TEST_F(session_life, killed_session_closes_although_its_peer_reads_nothing)
{
  test_agent_t agent = connect();
  give_request(agent, 1);
  end_request(agent.session_id, std::string(1000000, 'x'));
  mark_for_exit(agent.session_id);
  run();
  ASSERT_NE(nullptr, session_find(agent.session_id));
  for (int second = 0; second < 10; second++) {
    session_timeout();
  }
  EXPECT_EQ(nullptr, session_find(agent.session_id));
}

TEST_F(session_life, killed_session_drops_a_waiting_request_but_ends_a_running_one)
{
  test_agent_t waiting = connect();
  test_agent_t running = connect();
  is_broker_busy = true;
  give_request(waiting, 0);
  give_request(running, 1);
  mark_for_exit(waiting.session_id);
  mark_for_exit(running.session_id);
  run();
  session_timeout();
  EXPECT_TRUE(waiting.is_closed());
  EXPECT_FALSE(running.is_closed());
  end_request(running.session_id, "done");
  run();
  EXPECT_EQ(1U, running.frames().size());
  EXPECT_TRUE(running.is_closed());
}

TEST_F(session_life, request_of_a_lost_session_keeps_its_id_until_it_ends)
{
  test_agent_t lost = connect();
  test_agent_t waiting = connect();
  is_broker_busy = true;
  give_request(lost, 1);
  give_request(waiting, 0);
  lost.sock.reset();
  run();
  EXPECT_EQ(std::vector<int>{lost.session_id}, closed);
  test_agent_t next = connect();
  EXPECT_NE(lost.session_id, next.session_id);
  is_broker_busy = false;
  end_request(lost.session_id, "late");
  session_timeout(); // with nobody to write to, only this starts the request that waits
  run();
  EXPECT_EQ(1, session_get_rpc_context(waiting.session_id)->is_publishing);
  EXPECT_EQ("", next.read_all());
  EXPECT_EQ(lost.session_id, connect().session_id);
}

TEST_F(session_life, waiting_requests_start_in_turn)
{
  std::vector<test_agent_t> agents;
  is_broker_busy = true;
  for (int i = 0; i < 3; i++) {
    agents.push_back(connect());
    give_request(agents.back(), i == 1 ? 1 : 0);
  }
  std::vector<int> started;
  on_publish = [&](int session_id) {
    EXPECT_EQ(1, session_get_rpc_context(session_id)->is_publishing);
    started.push_back(session_id);
    end_request(session_id, "done");
    return session_id == 3 ? -1 : 0; // a failed one was answered and leaves its session idle
  };
  session_timeout();
  run();
  EXPECT_TRUE(started.empty());
  is_broker_busy = false;
  end_request(agents[1].session_id, "done");
  run();
  EXPECT_EQ((std::vector<int>{3, 1}), started);
  for (const test_agent_t &agent : agents) {
    EXPECT_EQ(1U, agent.frames().size());
    EXPECT_TRUE(session_find(agent.session_id)->bit_rpc);
    EXPECT_EQ(nullptr, session_get_rpc_context(agent.session_id));
  }
}
