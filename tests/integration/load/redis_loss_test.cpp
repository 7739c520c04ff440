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
    daemon.use_redis(kept_redis.socket_path());
    ASSERT_TRUE(daemon.start());
    session = &connect();
  }

  // Two leafs that only ever change together.
  static std::string edit_pair(const std::string &target, const std::string &value)
  {
    return support::edit_config(target, "<system xmlns=\"urn:ex-sys\"><hostname>" + value + "</hostname><location>" +
                                            value + "</location></system>");
  }

  // Sends all, ends Redis `delay` later and takes the replies: each request must get one. Whether all are <ok/>.
  bool run_while_redis_dies(const std::vector<std::string> &operations, std::chrono::microseconds delay)
  {
    for (const std::string &operation : operations) {
      EXPECT_TRUE(session->send(operation));
    }
    std::this_thread::sleep_for(delay);
    kept_redis.kill_now();
    bool all_ok = true;
    for (const std::string &operation : operations) {
      std::string reply = session->receive();
      EXPECT_TRUE(support::is_ok(reply) || support::find_error(reply)) << operation << "\n" << reply;
      all_ok = all_ok && support::is_ok(reply);
    }
    EXPECT_FALSE(session->error(support::get_config("running")).tag.empty());
    return all_ok;
  }

  std::string running_hostname()
  {
    std::string reply = session->rpc(support::get_config("running"));
    std::string hostname = support::find_text(reply, "hostname").value_or("nothing");
    EXPECT_EQ(hostname, support::find_text(reply, "location").value_or("")) << "half an edit: " << reply;
    return hostname;
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
    const std::string value = "round-" + std::to_string(round);
    SCOPED_TRACE(value);
    std::vector<std::string> operations = {edit_pair("candidate", value), support::COMMIT};
    if (round % 3 == 0) {
      operations = {edit_pair("running", value)};
    }
    bool all_ok = run_while_redis_dies(operations, std::chrono::microseconds(random() % 8000));
    ASSERT_TRUE(daemon.running());
    kept_redis.start();
    std::string hostname = running_hostname();
    EXPECT_TRUE(hostname == value || (!all_ok && hostname == committed)) << hostname;
    lost += all_ok ? 0 : 1;
    // Requests work again, on what is there.
    committed = value + "-after";
    ASSERT_TRUE(session->ok(support::DISCARD_CHANGES));
    ASSERT_TRUE(session->ok(edit_pair("candidate", committed)));
    ASSERT_TRUE(session->ok(support::COMMIT));
    ASSERT_EQ(running_hostname(), committed);
  }
  std::cout << lost << " of " << ROUNDS << " rounds lost a request\n";
  EXPECT_GT(lost, 0) << "Redis was never lost in time";
}
