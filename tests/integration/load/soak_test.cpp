// Many small requests and sessions leave nothing behind.
#include "support/daemon_test.h"

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr int REQUESTS = 1000;
#else
constexpr int REQUESTS = 10000;
#endif
constexpr int REQUESTS_PER_ROUND = 50;
constexpr long MOST_GROWTH_KB = 4096;

class soak : public support::daemon_test {
protected:
  void SetUp() override { ASSERT_TRUE(daemon.start()); }

  // Everything an agent commonly does, failing requests included, on three sessions that come and go.
  void run_round(int round)
  {
    const std::string name = "box-" + std::to_string(round);
    const std::string requests[] = {
        support::edit_config("candidate", "<system xmlns=\"urn:ex-sys\"><hostname>" + name + "</hostname></system>"),
        support::COMMIT,
        support::get_config("running", "<system xmlns=\"urn:ex-sys\"><hostname/></system>"),
        support::get_config("candidate"),
        "<lock><target><running/></target></lock>",
        support::edit_config("running", "<system xmlns=\"urn:ex-sys\"><port>many</port></system>"),
        "<unlock><target><running/></target></unlock>",
        support::DISCARD_CHANGES,
        "<paint/>",
        support::copy_config("startup", "running"),
    };
    support::netconf_session sessions[] = {support::netconf_session(daemon.run_dir()),
                                           support::netconf_session(daemon.run_dir()),
                                           support::netconf_session(daemon.run_dir())};
    for (size_t n = 0; n < REQUESTS_PER_ROUND; n++) {
      ASSERT_NE(sessions[n / std::size(requests) % std::size(sessions)].rpc(requests[n % std::size(requests)]), "");
    }
    std::string reply = sessions[0].rpc(requests[2]);
    ASSERT_EQ(support::find_text(reply, "hostname"), name) << reply;
  }
};

} // namespace

TEST_F(soak, leaves_no_descriptor_and_no_memory_behind)
{
  // What is made once, caches and pools, is there after the first tenth.
  const int rounds = REQUESTS / REQUESTS_PER_ROUND;
  long fds_before = 0;
  long rss_before = 0;
  for (int round = 0; round < rounds; round++) {
    ASSERT_NO_FATAL_FAILURE(run_round(round));
    if (round == rounds / 10) {
      fds_before = daemon.fd_count();
      rss_before = daemon.rss_kb();
    }
  }
  EXPECT_TRUE(support::wait_until([&] { return daemon.fd_count() <= fds_before; })) << daemon.fd_count();
  long growth = daemon.rss_kb() - rss_before;
  RecordProperty("requests", REQUESTS);
  RecordProperty("descriptors", static_cast<int>(daemon.fd_count()));
  RecordProperty("rss_kb", static_cast<int>(rss_before));
  RecordProperty("rss_growth_kb", static_cast<int>(growth));
  std::cout << REQUESTS << " requests: " << fds_before << " -> " << daemon.fd_count() << " descriptors, " << rss_before
            << " kB resident, grown by " << growth << " kB\n";
#ifndef __SANITIZE_ADDRESS__ // which keeps freed memory
  EXPECT_LT(growth, MOST_GROWTH_KB);
#endif
}
