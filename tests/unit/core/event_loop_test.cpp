#include "ymgrd/core/event_loop.h"

#include <csignal>

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "libconf/conf_event.h"
#include "unit/core/captured_log.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/stop_signal.h"
#include "ymgrd/ymgrd.h"

namespace {

class event_loop : public testing::Test {
protected:
  void SetUp() override
  {
    ASSERT_EQ(context_init(STAGE_RESOURCE), 0);
    for (const char *service : {"OPT-agent-sock", "OPT-plugin-sock", "OPT-notify-sock"}) {
      ASSERT_EQ(context_save_int(service, always_ready.get()), 0);
    }
    ASSERT_EQ(context_save_int("OPT-ymgrd-epfd", epfd.get()), 0);
  }
  void TearDown() override
  {
    ymgrd_note_stop_signal(0);
    context_exit();
  }
  void add(const unique_fd &fd, uint32_t type, uint32_t para)
  {
    ASSERT_EQ(conf_event_add(epfd.get(), fd.get(), EPOLLIN, ymgrd_event_tag(type, para)), 0);
  }

  unique_fd epfd{epoll_create1(EPOLL_CLOEXEC)};
  unique_fd always_ready{eventfd(1, EFD_CLOEXEC)};
};

TEST_F(event_loop, failed_service_ends_it_and_unknown_events_do_not)
{
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  unique_fd service(pair[0]);
  close(pair[1]);
  add(always_ready, 6, 7);
  add(service, PLG_SRV, 0);
  std::string log = logged_by(ymgrd_epoll_dispatch);
  EXPECT_NE(log.find("[DEBUG] Event(type=6, para=7) process failed.\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" on plugin-service socket.\n"), std::string::npos) << log;
  EXPECT_NE(log.find("[ERROR] Get quit flag, ymgrd epoll exit.\n"), std::string::npos) << log;
}

TEST_F(event_loop, stop_signal_ends_it)
{
  ymgrd_note_stop_signal(SIGTERM);
  EXPECT_EQ(logged_by(ymgrd_epoll_dispatch), "[INFO] Get signal 15, ymgrd epoll exit.\n");
}

} // namespace
