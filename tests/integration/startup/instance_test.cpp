// One daemon for each run directory.
#include <sys/wait.h>
#include <unistd.h>

#include "support/daemon_test.h"

namespace {

class instance : public support::daemon_test {
protected:
  void SetUp() override { ASSERT_TRUE(daemon.start()); }

  // Its profile, log and, unless told otherwise, run directory are not those of the first.
  support::temp_dir other_dir;
  support::redis_server other_redis{other_dir.path()};
  support::daemon_process other{other_dir.path(), other_redis.socket_path()};
};

std::string set_hostname(const std::string &name)
{
  return support::edit_config("running", "<system xmlns=\"urn:ex-sys\"><hostname>" + name + "</hostname></system>");
}

} // namespace

TEST_F(instance, a_second_one_is_refused_and_the_first_stays_untouched)
{
  support::netconf_session &session = connect();
  ASSERT_TRUE(session.ok(set_hostname("one")));
  other.options().arguments = {"--run-dir", daemon.run_dir()};
  ASSERT_TRUE(other.launch());
  std::optional<int> status = other.wait();
  ASSERT_TRUE(status && WIFEXITED(*status)) << other.log_text();
  EXPECT_EQ(WEXITSTATUS(*status), 255);
  EXPECT_NE(other.log_text().find("[DEBUG] There is another instance in running.\n"), std::string::npos);
  EXPECT_TRUE(session.ok(set_hostname("two")));
  EXPECT_NE(connect().id(), 0); // the sockets are still the first one's
}

TEST_F(instance, a_new_one_follows_one_that_ended_or_was_killed)
{
  ASSERT_TRUE(daemon.restart());
  ASSERT_TRUE(connect().ok(set_hostname("one")));
  daemon.kill_now();
  ASSERT_EQ(access((daemon.run_dir() + "/agent.sock").c_str(), F_OK), 0) << "nothing was left behind to replace";
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(connect().ok(set_hostname("two")));
}

TEST_F(instance, two_run_directories_hold_two_daemons)
{
  ASSERT_TRUE(other.start());
  support::netconf_session there(other.run_dir());
  support::netconf_session &here = connect();
  ASSERT_TRUE(here.ok(set_hostname("here")));
  ASSERT_TRUE(there.ok(set_hostname("there")));
  EXPECT_EQ(support::find_text(here.rpc(support::get_config("running")), "hostname"), "here");
  EXPECT_EQ(support::find_text(there.rpc(support::get_config("running")), "hostname"), "there");
  ASSERT_TRUE(other.stop());
  EXPECT_TRUE(here.ok(set_hostname("alone")));
}
