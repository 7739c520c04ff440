// Sessions from create-session to their end.
#include <sys/wait.h>

#include "session_fixture.h"

namespace {

class session_life : public session_fixture {
protected:
  static std::string kill_session(int id)
  {
    return "<kill-session><session-id>" + std::to_string(id) + "</session-id></kill-session>";
  }
};

} // namespace

TEST_F(session_life, create_session_comes_first_and_once)
{
  ymgr_client_ptr agent = connect_raw();
  auto refused = [&agent](const std::string &operation) {
    std::string reply = ymgr_rpc(agent.get(), operation).value_or("");
    return support::find_error(reply).value_or(support::rpc_error_t()).tag == "operation-failed";
  };
  EXPECT_TRUE(refused(support::get_config("running")));
  EXPECT_TRUE(refused(SHUTDOWN));
  ASSERT_TRUE(ymgr_create_session(agent.get(), "tester"));
  EXPECT_TRUE(refused(CREATE_SESSION));
  EXPECT_TRUE(contains(ymgr_rpc(agent.get(), GET_CAPABILITY).value_or(""), "<capability>"));
}

TEST_F(session_life, a_connection_beyond_the_limit_is_closed_and_a_freed_place_is_taken_again)
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

TEST_F(session_life, ends_by_close_session_or_by_kill_session_of_another)
{
  support::netconf_session &killer = connect("killer");
  for (int id : {killer.id(), 0, 999}) {
    EXPECT_EQ(killer.error(kill_session(id)).tag, "invalid-value") << id;
  }
  // close-session frees a place, kill-session that of another.
  support::netconf_session &leaving = connect("leaving");
  ASSERT_TRUE(leaving.ok("<close-session/>"));
  EXPECT_TRUE(is_closed_by_daemon(leaving.client()));
  support::netconf_session &victim = connect("victim");
  EXPECT_EQ(victim.id(), leaving.id());
  ASSERT_TRUE(killer.ok(kill_session(victim.id())));
  EXPECT_TRUE(is_closed_by_daemon(victim.client()));
  EXPECT_EQ(connect("heir").id(), victim.id());
}

TEST_F(session_life, shutdown_closes_the_idle_rest_answers_and_ends_with_status_one)
{
  support::netconf_session &asking = connect("asking");
  support::netconf_session &idle = connect("idle");
  ASSERT_TRUE(asking.ok(SHUTDOWN));
  EXPECT_TRUE(is_closed_by_daemon(idle.client()));
  EXPECT_TRUE(is_closed_by_daemon(asking.client()));
  std::optional<int> status = daemon.wait();
  ASSERT_TRUE(status && WIFEXITED(*status)) << daemon.log_tail();
  EXPECT_EQ(WEXITSTATUS(*status), 1) << daemon.log_tail();
  EXPECT_FALSE(contains(daemon.log_text(), "happened(callstack"));
}
