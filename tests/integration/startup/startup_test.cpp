// Starts that succeed, starts that must not, and what they log.
#include <csignal>
#include <cstdlib>
#include <map>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "support/daemon_test.h"

namespace {

class startup : public support::daemon_test {
protected:
  bool logged(const std::string &text) const { return contains(daemon.log_text(), text); }

  // Starts a daemon that ends by itself: its exit status, or -1.
  int exit_status()
  {
    EXPECT_TRUE(daemon.launch());
    std::optional<int> status = daemon.wait();
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
  }
};

} // namespace

TEST_F(startup, reports_its_steps_in_order_and_only_warns_of_unknown_words)
{
  ASSERT_EQ(setenv("KEEPALIVE_RECORD", "/dev/null", 1), 0);
  daemon.options().arguments = {"--smooth", "--colour", "-q", KEEPALIVE_LIBRARY, "one", "two"};
  ASSERT_TRUE(daemon.start());
  std::string log = daemon.log_text();
  size_t at = 0;
  for (const char *line : {"[INFO] Start ymgrd smooth mode.\n", "[WARN] Option parser returned character code 0x3f .\n",
                           "[WARN] Arguments one not parsed.\n[WARN] Arguments two not parsed.\n",
                           "[DEBUG] Schema db use unix redis path.\n", "[INFO] Ymgrd initialized successfully.\n"}) {
    at = log.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << "\n" << log;
  }
  EXPECT_EQ(log.find("[ERROR]"), std::string::npos) << log;
}

TEST_F(startup, without_a_usable_profile_ends_in_order)
{
  support::write_file(dir / "empty", "");
  support::write_file(dir / "broken", "{\"session-spec\": 2,, }");
  const std::map<std::string, std::string> causes = {
      {"missing", "[ERROR] Open file default-ymgrd-profile failed(No such file or directory).\n"},
      {"empty", "[ERROR] Ymgrd's profile is invalid.\n"},
      {"broken", "[ERROR] Read ymgrd's configuration file  failed.\n"},
  };
  for (const auto &[name, cause] : causes) {
    daemon.options().arguments = {"--profile", dir / name};
    EXPECT_EQ(exit_status(), 0) << name;
    EXPECT_TRUE(logged(cause + "[ERROR] Load ymgrd's configuration profile failed.\n"
                               "[ERROR] Ymgrd initialize failed.\n"));
  }
}

TEST_F(startup, invalid_entries_of_the_profile_only_warn)
{
  daemon.options().profile["modules"] = R"([7, {"name": "ex-sys"}, {"revision": "2026-01-01"},
    {"name": "ex-types", "revision": "2026-01-01"}, {"name": "ghost", "revision": "2026-01-01"},
    {"name": "ex-bench", "revision": "2026-01-01", "feature": ["absent", 3]}])";
  daemon.options().profile["plugins"] = R"([{}, {"name": "a"}, {"name": "b", "so-path": "/nowhere/b.so"}, "c"])";
  daemon.options().profile["session-spec"] = "\"1\"";
  daemon.options().profile["never-heard-of"] = "{}";
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(logged("[WARN] Invalid yang-module(name="));
  EXPECT_TRUE(logged("[WARN] Schema add module ghost failed.\n"));
  EXPECT_TRUE(logged("[WARN] Invalid local-plugin(name="));
  support::netconf_session &first = connect();
  support::netconf_session &second = connect(); // the limit of another type was ignored
  EXPECT_TRUE(first.ok(
      support::edit_config("candidate", "<bench xmlns=\"urn:ex-bench\"><entry><name>a</name></entry></bench>")));
  EXPECT_TRUE(second.ok(support::DISCARD_CHANGES));
}

TEST_F(startup, capabilities_are_announced_as_configured_and_again_after_a_restart)
{
  daemon.options().modules = {{"ex-types"}, {"ex-sys", {"*"}, {"ex-sys-dev"}}, {"ex-sys-dev"}, {"ex-bench"}};
  daemon.options().profile["capabilities"] =
      R"([{"capid": "urn:extra", "enable": true}, {"capid": "urn:hidden", "enable": false}, {"capid": 7}, "x"])";
  ASSERT_TRUE(daemon.start());
  const std::string get = "<get-capability xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>";
  std::string announced = connect().rpc(get);
  // The deviation is younger than the module, which is announced with its revision.
  size_t begin = announced.find(">urn:ex-sys?revision=2026-03-01&amp;module=ex-sys&amp;feature=");
  ASSERT_NE(begin, std::string::npos) << announced;
  std::string system = announced.substr(begin, announced.find('<', begin) - begin);
  for (const char *feature : {"ftp", "ftp-tls", "multipath"}) {
    EXPECT_TRUE(contains(system, feature)) << system;
  }
  EXPECT_TRUE(system.ends_with("&amp;deviations=ex-sys-dev")) << system;
  EXPECT_TRUE(contains(announced, ">urn:ex-bench?revision=2026-01-01&amp;module=ex-bench<")) << announced;
  EXPECT_TRUE(contains(announced, "<capability>urn:extra</capability>"));
  EXPECT_FALSE(contains(announced, "urn:hidden"));
  ASSERT_TRUE(daemon.restart()); // the schema database holds the modules already
  EXPECT_EQ(support::normalize(connect().rpc(get)), support::normalize(announced));
}

TEST_F(startup, a_second_daemon_of_a_run_directory_is_refused_and_the_first_stays_untouched)
{
  ASSERT_TRUE(daemon.start());
  support::temp_dir other_dir;
  support::daemon_process other(other_dir.path(), redis.socket_path());
  other.options().arguments = {"--run-dir", daemon.run_dir()};
  ASSERT_TRUE(other.launch());
  std::optional<int> status = other.wait();
  ASSERT_TRUE(status && WIFEXITED(*status)) << other.log_text();
  EXPECT_EQ(WEXITSTATUS(*status), 255);
  EXPECT_TRUE(contains(other.log_text(), "[DEBUG] There is another instance in running.\n"));
  EXPECT_TRUE(connect().ok(support::edit_config("running", "<system xmlns=\"urn:ex-sys\"><port>2</port></system>")));
}

TEST_F(startup, schema_database_in_a_file_is_refused)
{
  daemon.options().profile["schema"] = R"({"db-enabled": true, "path": "file://x"})";
  EXPECT_EQ(exit_status(), 0);
  EXPECT_TRUE(logged("[ERROR] file://x for schema.path is NOT supported now.\n"));
  EXPECT_TRUE(logged("[ERROR] Component <schema> init service failed.\n[ERROR] Ymgrd initialize failed.\n"));
}

TEST_F(startup, waits_for_redis_until_it_comes_or_a_stop_signal)
{
  for (bool comes : {true, false}) {
    redis.stop();
    ASSERT_TRUE(daemon.launch());
    ASSERT_TRUE(daemon.wait_for_log("[WARN] Database is NOT ready, and fail to connect.\n"));
    if (comes) {
      redis.start();
      ASSERT_TRUE(daemon.wait_for_log("[INFO] Ymgrd initialized successfully.\n"));
    }
    kill(daemon.pid(), SIGTERM);
    std::optional<int> status = daemon.wait(std::chrono::seconds(5));
    ASSERT_TRUE(status && WIFSIGNALED(*status)) << comes;
    EXPECT_EQ(WTERMSIG(*status), SIGTERM);
  }
}

TEST_F(startup, detaches_unless_the_profile_says_no_and_cleans_up_on_sigterm)
{
  prctl(PR_SET_CHILD_SUBREAPER, 1); // so that the detached daemon becomes this program's child, to be waited for
  daemon.options().profile["daemonize"] = "";
  ASSERT_EQ(exit_status(), 0);
  ASSERT_TRUE(daemon.wait_for_log("[INFO] Ymgrd initialized successfully.\n"));
  support::netconf_session &session = connect();
  ucred peer = {};
  socklen_t size = sizeof(peer);
  ASSERT_EQ(getsockopt(ymgr_descriptor(session.client()), SOL_SOCKET, SO_PEERCRED, &peer, &size), 0);
  ASSERT_GT(peer.pid, 0);
  EXPECT_EQ(getsid(peer.pid), peer.pid);
  kill(peer.pid, SIGTERM);
  int status = 0;
  bool ended = support::wait_until([&] { return waitpid(peer.pid, &status, WNOHANG) == peer.pid; });
  EXPECT_TRUE(ended && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  if (!ended) {
    kill(peer.pid, SIGKILL);
  }
  for (const char *name : {"/agent.sock", "/plugin.sock", "/notify.sock"}) {
    EXPECT_NE(access((daemon.run_dir() + name).c_str(), F_OK), 0) << name;
  }
}
