// kill -9 in a stream of commits that two plugins apply, and in the smooth starts that follow. What runs then, and what
// the plugins hold, is one and the same whole commit.
#include <random>
#include <thread>

#include "kill_fixture.h"

namespace {

// What a commit makes of the configuration, and of the plugins' files.
typedef struct _state {
  std::string edit; // for one of the datastores
  std::map<std::string, std::string> notes;
} state_t;

// Refused by a plugin, when others have taken a part of it.
bool is_bad(int number)
{
  return number % 4 == 2;
}

state_t state_of(int number, const std::string &target)
{
  state_t state;
  std::string content = "<location>" + std::to_string(number) + "</location>";
  auto note = [&](const std::string &path, const std::string &value) {
    state.notes["c_ex-sys:system_" + path] = state.notes["py_ex-sys:system_" + path] = value;
  };
  if (number % 4 != 1) {
    std::string host = (is_bad(number) ? "bad" : "h") + std::to_string(number);
    content += "<hostname>" + host + "</hostname>";
    note("hostname", host);
  }
  for (int user = 0; user < 6; user++) {
    if ((number * 11 >> user & 1) != 0) {
      std::string name = "u" + std::to_string(user);
      std::string uid = std::to_string(number / 3 * 10 + user);
      content += "<user><name>" + name + "</name><uid>" + uid + "</uid></user>";
      note("user[name=\"" + name + "\"]", uid);
    }
  }
  state.edit = support::edit_config(target, "<system xmlns=\"urn:ex-sys\">" + content + "</system>",
                                    "<default-operation>replace</default-operation>");
  return state;
}

class plugins_kill : public kill_fixture {
protected:
  void SetUp() override
  {
    kill_fixture::SetUp();
    ASSERT_TRUE(session->ok(state_of(0, "running").edit));
    setenv("YMGR_RUN_DIR", daemon.run_dir().c_str(), 1);
    setenv("PYTHONPATH", PYTHON_MODULES, 1);
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::create_directory(dir / "notes");
    std::filesystem::current_path(dir / "notes");
    ASSERT_TRUE(c_plugin.start({NOTE_C}, dir / "c.log") && python_plugin.start({"python3", NOTE_PY}, dir / "py.log"));
    std::filesystem::current_path(before);
    await_plugins();
  }
  void await_plugins()
  {
    for (const std::string name : {"c", "py"}) {
      ASSERT_TRUE(daemon.wait_for_log("Plugin " + name + " is ready.")) << support::read_file(dir / (name + ".log"));
    }
  }
  // Commits one state after the other, in the midst of which the daemon is killed. Who refuses must be there for bad
  // ones.
  void work_and_die(bool with_bad)
  {
    connect_anew();
    std::thread stream([this, with_bad] {
      while (true) {
        last += !with_bad && is_bad(last + 1) ? 2 : 1;
        possible.insert(last);
        auto edited = ymgr_rpc(session->client(), state_of(last, "candidate").edit);
        auto reply = ymgr_rpc(session->client(), support::COMMIT);
        if (!edited || !reply) {
          return;
        }
        EXPECT_EQ(support::is_ok(*reply), !is_bad(last)) << *reply;
        if (is_bad(last)) {
          possible.erase(last);
        } else {
          possible = {last};
        }
      }
    });
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 100000));
    daemon.kill_now();
    stream.join();
  }
  void check_state()
  {
    std::map<std::string, std::string> notes;
    for (const auto &file : std::filesystem::directory_iterator(dir / "notes")) {
      notes[file.path().filename()] = support::read_file(file.path());
    }
    connect_anew();
    auto running = [this] {
      return support::reply_data(session->rpc(support::get_config("running")), support::siblings::by_name);
    };
    const std::string runs = running();
    const int number = std::stoi(support::find_text(runs, "location").value_or("-1"));
    EXPECT_TRUE(possible.contains(number) && !is_bad(number)) << runs;
    EXPECT_EQ(notes, state_of(number, "running").notes);
    EXPECT_TRUE(session->ok(state_of(number, "running").edit)); // changes nothing
    EXPECT_EQ(runs, running());
    EXPECT_TRUE(session->ok(LOCK) && session->ok("<unlock><target><candidate/></target></unlock>"));
    check_nothing_left();
    possible = {number};
  }

  std::mt19937 random{1}; // the moments differ from run to run anyway
  support::child_process c_plugin, python_plugin;
  std::set<int> possible = {0}; // states that may run
  int last = 0;                 // that was tried
};

} // namespace

TEST_F(plugins_kill, leaves_plugins_and_running_at_one_whole_commit)
{
  daemon.options().arguments = {"--smooth"};
  for (int round = 0; round < random_rounds() && !HasFailure(); round++) {
    SCOPED_TRACE(round);
    work_and_die(true);
    if (round % 3 == 1) { // the next life ends before it has begun
      ASSERT_TRUE(daemon.launch());
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
      daemon.kill_now();
    } else if (round % 3 == 2) { // or before all plugins have come
      ASSERT_TRUE(daemon.start());
      work_and_die(false);
    }
    ASSERT_TRUE(daemon.start());
    ASSERT_NO_FATAL_FAILURE(await_plugins());
    check_state();
  }
}
