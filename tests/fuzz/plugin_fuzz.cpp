// What a plugin sends is arbitrary here. The daemon, its own main in a thread, must survive it, go on serving a good
// plugin, and answer the client exactly once. The first byte of an input says when the rest is sent, and as what.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/daemon_process.h"
#include "support/netconf_session.h"
#include "support/plugin_peer.h"
#include "support/redis_server.h"

int ymgrd_main(int argc, char **argv);

namespace {

using support::plugin_peer;

class daemon_in_a_thread {
public:
  // In an orderly way, so that what it did not free is reported.
  ~daemon_in_a_thread()
  {
    EXPECT_TRUE(session.ok("<shutdown xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>"));
    thread_.join();
  }
  std::string run_dir() const { return profile_.run_dir(); }

private:
  std::thread start()
  {
    profile_.write_profile();
    std::vector<std::string> words = {"ymgrd", "--profile", profile_.profile_path(), "--run-dir", run_dir()};
    if (std::getenv("YMGR_FUZZ_LOG") != nullptr) {
      words.insert(words.end(), {"--log-stderr", "--log-level", "debug"});
    }
    std::thread thread([words]() mutable {
      std::vector<char *> argv;
      for (std::string &word : words) {
        argv.push_back(word.data());
      }
      argv.push_back(nullptr);
      (void)ymgrd_main(static_cast<int>(words.size()), argv.data()); // an early end is seen by who connects
    });
    EXPECT_TRUE(support::wait_until([this] { return std::filesystem::exists(run_dir() + "/notify.sock"); }));
    return thread;
  }

  support::temp_dir dir_;
  support::redis_server redis_{dir_.path()};
  support::daemon_process profile_{dir_.path(), redis_.socket_path()};
  std::thread thread_ = start();

public:
  support::netconf_session session{run_dir()};
};

enum moment_t {
  AT_ONCE,
  FRAME_AT_ONCE,
  AS_REGISTRATION,
  WHEN_READY,
  FRAME_WHEN_READY,
  ON_GET,
  ON_OPERATION,
  ON_COMMIT
};
constexpr int MOMENTS = ON_COMMIT + 1;

std::string request_for(moment_t moment)
{
  static int commits = 0;
  switch (moment) {
  case ON_GET:
    return "<get><filter type=\"subtree\"><state xmlns=\"urn:ex-sys\"/></filter></get>";
  case ON_OPERATION:
    return "<restart-service xmlns=\"urn:ex-sys\"><name>ftp</name></restart-service>";
  default:
    return support::edit_config("running", "<system xmlns=\"urn:ex-sys\"><hostname>h" + std::to_string(commits++) +
                                               "</hostname></system>");
  }
}

void send_at(moment_t moment, plugin_peer *peer, const std::string &text)
{
  constexpr int ID = 7;
  if (moment == AT_ONCE || moment == WHEN_READY) {
    peer->send_raw(text);
  } else if (moment == AS_REGISTRATION) {
    peer->send_text("<rpc><method>register</method><params>" + text + "</params><id>7</id></rpc>", ID);
    peer->send_text("<rpc><method>activate</method><params><with-cfgr/></params><id>8</id></rpc>", ID + 1);
  } else {
    peer->send_text(text, ID);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  static daemon_in_a_thread daemon;
  static plugin_peer good(daemon.run_dir(), "good");
  static const bool is_started = (good.start(), true);
  static int tries = 0;
  if (size == 0 || !is_started) {
    return -1;
  }
  auto moment = static_cast<moment_t>(data[0] % MOMENTS);
  std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  plugin_peer bad(daemon.run_dir(), "bad" + std::to_string(tries++));
  if (moment >= WHEN_READY) {
    bad.config("/ex-sys:system", 1).status("/ex-sys:state").operation("/ex-sys:restart-service");
    (void)bad.start();
  }
  if (moment >= ON_GET) {
    EXPECT_TRUE(daemon.session.send(request_for(moment)));
    support::plugin_call_t call = bad.next();
    EXPECT_NE(call.method, "");
    bad.send_text("<reply>" + text + "<id>" + std::to_string(call.id) + "</id></reply>", call.id);
  } else {
    send_at(moment, &bad, text);
  }
  EXPECT_EQ(good.pull("/ex-sys:routes"), "");
  bad.die();
  if (moment >= ON_GET) {
    EXPECT_NE(daemon.session.receive(), "");
  }
  return 0;
}
