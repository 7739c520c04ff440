// kill -9 in a stream of commits that two plugins apply, and in the smooth starts that follow. What runs then, and what
// the plugins hold, is one and the same whole commit.
#include <random>
#include <thread>

#include "kill_fixture.h"

namespace {

using notes_t = std::map<std::string, std::string>;

class plugins_kill : public kill_fixture {
protected:
  void SetUp() override
  {
    kill_fixture::SetUp();
    ASSERT_TRUE(session->ok(edit("running", 0)));
    std::filesystem::create_directory(dir / "notes");
    setenv("YMGR_NOTES", (dir / "notes").c_str(), 1);
    setenv("YMGR_RUN_DIR", daemon.run_dir().c_str(), 1);
    setenv("PYTHONPATH", PYTHON_MODULES, 1);
    ASSERT_TRUE(c_plugin.start({NOTE_C}, dir / "c.log"));
    ASSERT_TRUE(python_plugin.start({"python3", NOTE_PY}, dir / "py.log"));
    await_plugins();
  }

  // Refused by a plugin, when others have taken a part of it.
  static bool is_bad(int number) { return number % 4 == 2; }
  static bool has_host(int number) { return number % 4 != 1; }
  static bool has_user(int number, int user) { return ((number * 11) >> user & 1) != 0; }
  static std::string uid(int number, int user) { return std::to_string(number / 3 * 10 + user); }
  static std::string host(int number) { return (is_bad(number) ? "bad" : "h") + std::to_string(number); }

  static std::string config(int number)
  {
    std::string text = "<system xmlns=\"urn:ex-sys\"><location>" + std::to_string(number) + "</location>";
    text += has_host(number) ? "<hostname>" + host(number) + "</hostname>" : "";
    for (int user = 0; user < 6; user++) {
      text += has_user(number, user)
                  ? "<user><name>u" + std::to_string(user) + "</name><uid>" + uid(number, user) + "</uid></user>"
                  : "";
    }
    return text + "</system>";
  }
  static std::string edit(const std::string &target, int number)
  {
    return support::edit_config(target, config(number), "<default-operation>replace</default-operation>");
  }
  static notes_t notes_of(int number)
  {
    notes_t notes;
    for (const std::string plugin : {"c", "py"}) {
      if (has_host(number)) {
        notes[plugin + "_ex-sys:system_hostname"] = host(number);
      }
      for (int user = 0; user < 6; user++) {
        if (has_user(number, user)) {
          notes[plugin + "_ex-sys:system_user[name=\"u" + std::to_string(user) + "\"]"] = uid(number, user);
        }
      }
    }
    return notes;
  }
  notes_t notes_kept()
  {
    notes_t notes;
    for (const auto &file : std::filesystem::directory_iterator(dir / "notes")) {
      notes[file.path().filename()] = support::read_file(file.path());
    }
    return notes;
  }

  void await_plugins()
  {
    for (const char *name : {"c", "py"}) {
      ASSERT_TRUE(daemon.wait_for_log(std::string("Plugin ") + name + " is ready."))
          << support::read_file(dir / "c.log") << support::read_file(dir / "py.log");
    }
  }
  // Commits one state after the other until the daemon has gone.
  void work()
  {
    while (true) {
      attempted++;
      auto edited = ymgr_rpc(session->client(), edit("candidate", attempted));
      auto reply = ymgr_rpc(session->client(), support::COMMIT);
      if (!edited || !reply) {
        return;
      }
      EXPECT_EQ(support::is_ok(*reply), !is_bad(attempted)) << *reply;
      committed = is_bad(attempted) ? committed : attempted;
    }
  }

  support::child_process c_plugin, python_plugin;
  int committed = 0; // what runs
  int attempted = 0; // may run
};

} // namespace

TEST_F(plugins_kill, leaves_plugins_and_running_at_one_whole_commit)
{
  std::mt19937 random(1); // the moments differ from run to run anyway
  daemon.options().arguments = {"--smooth"};
  for (int round = 0; round < random_rounds() && !HasFailure(); round++) {
    SCOPED_TRACE(round);
    std::thread stream([this] { work(); });
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 100000));
    daemon.kill_now();
    stream.join();
    if (random() % 3 == 0) {
      ASSERT_TRUE(daemon.launch());
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
      daemon.kill_now();
    }
    ASSERT_TRUE(daemon.start());
    ASSERT_NO_FATAL_FAILURE(await_plugins());
    notes_t kept = notes_kept();
    connect_anew();
    std::string runs = support::reply_data(session->rpc(support::get_config("running")));
    if (contains(runs, "<location>" + std::to_string(attempted) + "<")) {
      committed = attempted;
    }
    EXPECT_TRUE(session->ok(edit("running", committed))); // changes nothing
    EXPECT_EQ(runs, support::reply_data(session->rpc(support::get_config("running"))));
    EXPECT_EQ(kept, notes_of(committed));
    check_nothing_left();
    EXPECT_TRUE(session->ok(LOCK) && session->ok("<unlock><target><candidate/></target></unlock>"));
  }
}
