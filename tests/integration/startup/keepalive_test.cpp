// What the product's keep-alive library is told by a daemon at rest and by one at work.
#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "support/daemon_test.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

class keepalive : public support::daemon_test {
protected:
  void SetUp() override
  {
    ASSERT_EQ(setenv("KEEPALIVE_RECORD", record_path.c_str(), 1), 0);
    daemon.options().arguments = {KEEPALIVE_LIBRARY};
    ASSERT_TRUE(daemon.start());
  }

  // The calls so far, each as "WARN KILL".
  std::vector<std::string> calls() const
  {
    std::istringstream lines(support::read_file(record_path));
    std::vector<std::string> all;
    for (std::string line; std::getline(lines, line); all.push_back(line)) {
    }
    return all;
  }

  std::string record_path = dir / "keepalive";
};

} // namespace

TEST_F(keepalive, an_idle_daemon_sends_a_heartbeat_every_ten_seconds)
{
  size_t before = calls().size(); // of the start
  auto ready = steady_clock::now();
  ASSERT_TRUE(support::wait_until([&] { return calls().size() > before; }));
  auto waited = steady_clock::now() - ready;
  EXPECT_GT(waited, seconds(8));
  EXPECT_LT(waited, seconds(13));
  std::this_thread::sleep_for(seconds(3));
  EXPECT_EQ(calls().size(), before + 1);
  EXPECT_EQ(calls().back(), "0 0");
}

TEST_F(keepalive, a_long_edit_announces_its_time_by_its_size)
{
  support::netconf_session &session = connect();
  const struct {
    size_t bytes;
    const char *announcement;
  } requests[] = {{659999, "30 60"}, {1319999, "60 120"}, {1320000, "90 180"}};
  for (const auto &request : requests) {
    SCOPED_TRACE(request.bytes);
    auto before = static_cast<std::ptrdiff_t>(calls().size());
    std::string rpc = support::rpc_of(support::edit_config("candidate", "<system xmlns=\"urn:ex-sys\"/>"));
    rpc.append(request.bytes - rpc.size(), ' ');
    ASSERT_TRUE(support::is_ok(ymgr_request(session.client(), rpc).value_or("")));
    std::vector<std::string> made = calls();
    auto announced = std::find_if(made.begin() + before, made.end(), [](const auto &call) { return call != "0 0"; });
    ASSERT_NE(announced, made.end());
    EXPECT_EQ(*announced, request.announcement);
    EXPECT_EQ(made.back(), "0 0"); // and its end
  }
}
