// Many small requests and sessions leave nothing behind.
#include <utility>

#include "support/daemon_test.h"

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr int REQUESTS = 1000;
#else
constexpr int REQUESTS = 10000;
#endif
constexpr int REQUESTS_PER_ROUND = 50;
constexpr int ROUNDS = REQUESTS / REQUESTS_PER_ROUND;
constexpr long MOST_GROWTH_KB = 4096;

class soak : public support::daemon_test {
protected:
  // What agents commonly do, failing requests included, on three sessions that come and go.
  void run_round(int round)
  {
    const std::string name = "box-" + std::to_string(round);
    const std::string requests[] = {
        support::edit_config("candidate", "<system xmlns=\"urn:ex-sys\"><hostname>" + name + "</hostname></system>"),
        support::COMMIT,
        support::get_config("candidate"),
        support::edit_config("running", "<system xmlns=\"urn:ex-sys\"><port>many</port></system>"),
        support::DISCARD_CHANGES,
        "<paint/>",
        support::get_config("running"),
    };
    support::netconf_session first(daemon.run_dir()), second(daemon.run_dir()), third(daemon.run_dir());
    support::netconf_session *sessions[] = {&first, &second, &third};
    for (size_t n = 0; n < REQUESTS_PER_ROUND; n++) {
      ASSERT_NE(sessions[n % 3]->rpc(requests[n % std::size(requests)]), "");
    }
    ASSERT_EQ(support::find_text(first.rpc(support::get_config("running")), "hostname"), name);
  }
};

} // namespace

TEST_F(soak, leaves_no_descriptor_and_no_memory_behind)
{
  ASSERT_TRUE(daemon.start());
  long fds = 0;
  long rss = 0;
  for (int round = 0; round < ROUNDS; round++) {
    ASSERT_NO_FATAL_FAILURE(run_round(round));
    if (round == ROUNDS / 10) { // what is made once, caches and pools, is there
      // Until it stays as it is: the round's sessions may still be ending.
      ASSERT_TRUE(support::wait_until([&] { return std::exchange(fds, daemon.fd_count()) == fds; }));
      rss = daemon.rss_kb();
    }
  }
  EXPECT_TRUE(support::wait_until([&] { return daemon.fd_count() <= fds; })) << fds << ", " << daemon.fd_count();
  long growth = daemon.rss_kb() - rss;
  RecordProperty("rss_kb", static_cast<int>(rss));
  RecordProperty("rss_growth_kb", static_cast<int>(growth));
  std::cout << REQUESTS << " requests: " << fds << " -> " << daemon.fd_count() << " descriptors, " << rss
            << " kB resident, grown by " << growth << " kB\n";
#ifndef __SANITIZE_ADDRESS__ // which keeps freed memory
  EXPECT_LT(growth, MOST_GROWTH_KB);
#endif
}
