// Redis dies at any moment of an edit or a commit.
#include <random>
#include <thread>

#include "support/daemon_test.h"

namespace {

constexpr int ROUNDS = 30;

// Its Redis keeps its data over a crash, unlike that of the base.
class redis_loss : public support::daemon_test {
protected:
  void SetUp() override
  {
    redis.stop();
    const std::string address = "\"unix:/" + kept_redis.socket_path() + "\"";
    daemon.options().profile["schema"] = "{\"db-enabled\": true, \"path\": " + address + "}";
    daemon.options().profile["database"] =
        "{\"type\": \"default\", \"driver\": {\"path\": " + address + ", \"api-version\": \"1.0\"}}";
    ASSERT_TRUE(daemon.start());
    session = &connect();
  }

  // Two leafs of one module that only ever change together.
  static std::string edit_pair(const std::string &target, const std::string &value)
  {
    return support::edit_config(target, "<system xmlns=\"urn:ex-sys\"><hostname>" + value + "</hostname><location>" +
                                            value + "</location></system>");
  }

  // Sends them all, ends Redis `delay` later and gives the replies, of which there must be one for each.
  std::vector<std::string> replies_without_redis(const std::vector<std::string> &operations,
                                                 std::chrono::microseconds delay)
  {
    for (const std::string &operation : operations) {
      EXPECT_TRUE(
          ymgr_send(session->client(),
                    "<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + operation + "</rpc>"));
    }
    std::this_thread::sleep_for(delay);
    kept_redis.kill_now();
    std::vector<std::string> replies;
    for (const std::string &operation : operations) {
      std::optional<ymgr_frame_t> frame = ymgr_receive(session->client());
      replies.push_back(frame ? frame->payload : "");
      EXPECT_TRUE(support::is_ok(replies.back()) || support::find_error(replies.back())) << operation << replies.back();
    }
    return replies;
  }

  std::string running_hostname()
  {
    std::string reply = session->rpc(support::get_config("running"));
    std::optional<std::string> hostname = support::find_text(reply, "hostname");
    EXPECT_TRUE(hostname.has_value()) << reply;
    EXPECT_EQ(hostname, support::find_text(reply, "location")) << "half an edit";
    return hostname.value_or("");
  }

  support::temp_dir kept_dir;
  support::redis_server kept_redis{kept_dir.path(), support::redis_data::kept};
  support::netconf_session *session = nullptr;
};

} // namespace

TEST_F(redis_loss, never_leaves_half_an_edit_in_running)
{
  std::mt19937 random(1); // the moments differ from run to run anyway
  std::string committed = "start";
  ASSERT_TRUE(session->ok(edit_pair("running", committed)));
  int lost = 0;
  for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::string value = "round-" + std::to_string(round);
    const bool direct = round % 3 == 0;
    std::vector<std::string> operations = {edit_pair("candidate", value), support::COMMIT};
    if (direct) {
      operations = {edit_pair("running", value)};
    }
    std::vector<std::string> replies = replies_without_redis(operations, std::chrono::microseconds(random() % 15000));
    ASSERT_TRUE(daemon.running());
    kept_redis.start();
    std::string hostname = running_hostname();
    bool all_ok = std::all_of(replies.begin(), replies.end(), support::is_ok);
    EXPECT_TRUE(all_ok ? hostname == value : hostname == value || hostname == committed) << hostname;
    lost += all_ok ? 0 : 1;
    // Requests work again, on what is there.
    ASSERT_TRUE(session->ok(support::DISCARD_CHANGES));
    committed = value + "-after";
    ASSERT_TRUE(session->ok(edit_pair("candidate", committed)));
    ASSERT_TRUE(session->ok(support::COMMIT));
    ASSERT_EQ(running_hostname(), committed);
  }
  std::cout << lost << " of " << ROUNDS << " rounds lost a request\n";
  EXPECT_GT(lost, 0) << "Redis was never lost in time";
}
