// What a plugin sends is arbitrary here, and so are the filters of subscriptions and sensitive values. The daemon, its
// own main in a thread, must survive it, go on serving a good plugin, and answer the client once. The first byte of an
// input says when the rest is sent, and as what.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <openssl/crypto.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "libconf/unique_fd.h"
#include "support/daemon_process.h"
#include "support/netconf_session.h"
#include "support/plugin_peer.h"
#include "support/redis_server.h"
#include "support/working_key.h"
#include "ymgrd/core/context.h"

int ymgrd_main(int argc, char **argv);

namespace {

using support::plugin_peer;

std::string system_with(const std::string &content)
{
  return support::edit_config("running", "<system xmlns=\"urn:ex-sys\">" + content + "</system>");
}

class daemon_in_a_thread {
public:
  // In an orderly way, so that what it did not free is reported. Asked to shut down it would end the process.
  ~daemon_in_a_thread()
  {
    (void)context_save_int("OPT-quit-flag", 1); // seen within a second
    thread_.join();
  }
  std::string run_dir() const { return profile_.run_dir(); }

private:
  std::thread start()
  {
    for (const char *module : {"notifications", "nc-notifications"}) {
      profile_.options().modules.push_back({module});
    }
    profile_.options().profile = {
        {"notification", R"({"db-enabled": true, "streams": [{"name": "NETCONF", "replay": true}]})"},
        {"sensitive-key", R"(["/ex-sys:system/user/password"])"}};
    profile_.options().working_key = support::provision_key(dir_.path());
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
      (void)ymgrd_main(static_cast<int>(words.size()), argv.data()); // who connects sees an early end
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
  ON_CHANGE,
  AS_EVENT,
  AS_SUBSCRIPTION,
  AS_SECRET,
  MOMENTS
};
constexpr int MOMENT_DIGITS = 16; // "0" is the first moment

void send_unasked(moment_t moment, plugin_peer *peer, const std::string &text)
{
  if (moment == AT_ONCE || moment == WHEN_READY) {
    peer->send_raw(text);
  } else if (moment == AS_REGISTRATION) {
    peer->send_text("<rpc><method>register</method><params>" + text + "</params><id>7</id></rpc>", 7);
    peer->send_text("<rpc><method>activate</method><params><with-cfgr/></params><id>8</id></rpc>", 8);
  } else {
    peer->send_text(text, 7);
  }
}

void send_event(const std::string &run_dir, const std::string &text)
{
  unique_fd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  (void)(run_dir + "/notify.sock").copy(address.sun_path, sizeof(address.sun_path) - 1);
  (void)sendto(sender.get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&address), sizeof(address));
}

constexpr std::chrono::seconds ASKED_BY_NOW{5};

// As the answer to what the daemon asks on behalf of the session, or, when it is a request, before an answer that never
// comes.
void answer(moment_t moment, int number, plugin_peer *peer, support::netconf_session *session, const std::string &text)
{
  const std::string change = system_with("<hostname>h" + std::to_string(number) + "</hostname>");
  EXPECT_TRUE(
      session->send(moment == ON_GET ? "<get><filter type=\"subtree\"><state xmlns=\"urn:ex-sys\"/></filter></get>"
                    : moment == ON_OPERATION ? "<restart-service xmlns=\"urn:ex-sys\"><name>a</name></restart-service>"
                                             : change));
  support::plugin_call_t call = peer->next(ASKED_BY_NOW);
  if (call.method.empty()) {
    return; // what an earlier input registered, and is just going, may have refused: the session has its answer then
  }
  bool is_request = text.starts_with("<rpc>");
  peer->send_text(is_request ? text : "<reply>" + text + "<id>" + std::to_string(call.id) + "</id></reply>", call.id);
}

} // namespace

// What fails ends the fuzzer, which then keeps the input.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
  GTEST_FLAG_SET(throw_on_failure, true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
  // OpenSSL's own end at the exit must come behind that of the daemon's thread: what begins first ends last.
  static const int openssl = OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
  static daemon_in_a_thread daemon;
  (void)openssl;
  static plugin_peer good(daemon.run_dir(), "good");
  static int tries = 0;
  if (size == 0) {
    return -1;
  }
  if (tries++ == 0) {
    (void)good.start();
    EXPECT_TRUE(daemon.session.ok(system_with("<user><name>a</name></user><dns>10.0.0.1</dns><dns>10.0.0.2</dns>"
                                              "<rule><id>a</id></rule><rule><id>b</id></rule>")));
  }
  auto moment = static_cast<moment_t>(data[0] % MOMENT_DIGITS % MOMENTS);
  std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  if (moment >= AS_EVENT) {
    support::netconf_session client(daemon.run_dir());
    if (moment == AS_EVENT) {
      EXPECT_TRUE(client.ok("<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\"/>"));
      send_event(daemon.run_dir(), text);
    }
    EXPECT_NE(client.rpc(moment == AS_SECRET ? system_with("<user><name>a</name>" + text + "</user>") : text), "");
    return 0;
  }
  plugin_peer bad(daemon.run_dir(), "bad" + std::to_string(tries));
  if (moment >= WHEN_READY) {
    (void)bad.config("/ex-sys:system", 1).status("/ex-sys:state").operation("/ex-sys:restart-service").start();
  }
  if (moment >= ON_GET) {
    answer(moment, tries, &bad, &daemon.session, text);
  } else {
    send_unasked(moment, &bad, text);
  }
  EXPECT_EQ(good.pull("/ex-sys:routes"), "");
  bad.die();
  if (moment >= ON_GET) {
    EXPECT_NE(daemon.session.receive(), "");
  }
  return 0;
}
