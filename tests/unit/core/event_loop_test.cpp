#include "ymgrd/core/event_loop.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "libconf/conf_event.h"
#include "unit/core/captured_log.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/ymgrd.h"

TEST(event_loop, failed_service_ends_it_and_unknown_events_do_not)
{
  ASSERT_EQ(context_init(STAGE_RESOURCE), 0);
  unique_fd epfd(epoll_create1(EPOLL_CLOEXEC));
  unique_fd always_ready(eventfd(1, EFD_CLOEXEC));
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  unique_fd service(pair[0]);
  close(pair[1]);
  for (const char *name : {"OPT-agent-sock", "OPT-plugin-sock", "OPT-notify-sock"}) {
    ASSERT_EQ(context_save_int(name, always_ready.get()), 0);
  }
  ASSERT_EQ(context_save_int("OPT-ymgrd-epfd", epfd.get()), 0);
  ASSERT_EQ(conf_event_add(epfd.get(), always_ready.get(), EPOLLIN, ymgrd_event_tag(6, 7)), 0);
  ASSERT_EQ(conf_event_add(epfd.get(), service.get(), EPOLLIN, ymgrd_event_tag(PLG_SRV, 0)), 0);
  std::string log = logged_by(ymgrd_epoll_dispatch);
  for (const char *line : {"[DEBUG] Event(type=6, para=7) process failed.\n", " on plugin-service socket.\n",
                           "[ERROR] Get quit flag, ymgrd epoll exit.\n"}) {
    EXPECT_NE(log.find(line), std::string::npos) << log;
  }
  context_exit();
}
