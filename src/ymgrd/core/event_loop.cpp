#include "ymgrd/core/event_loop.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iterator>

#include <sys/epoll.h>

#include "libconf/conf_event.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/broker/plugin.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/memory.h"
#include "ymgrd/core/stop_signal.h"
#include "ymgrd/core/wiping_heap.h"
#include "ymgrd/notify/notifier.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr int MOST_EVENTS = 5;
constexpr int WAIT_MS = 1000;
constexpr int PASSES_PER_HEARTBEAT = 10;

constexpr auto MOST_BETWEEN_TRUE_SECONDS = std::chrono::seconds(1);
std::chrono::steady_clock::time_point true_second_begun;

// By event type. `para` is the instance id of the tag.
typedef int (*wakeup_fn)(int para, uint32_t events);
const wakeup_fn wakeups[] = {
    nullptr,
    [](int, uint32_t events) { return agent_service_wakeup(events); },
    session_inst_wakeup,
    [](int, uint32_t events) { return plugin_service_wakeup(events); },
    plugin_inst_wakeup,
    [](int, uint32_t events) { return notifier_service_wakeup(events); },
};

void dispatch_event(const epoll_event &event)
{
  uint32_t type = event.data.u32 >> 16;
  int para = static_cast<int>(event.data.u32 & 0xffffU);
  wakeup_fn wakeup = type < std::size(wakeups) ? wakeups[type] : nullptr;
  if (wakeup == nullptr || wakeup(para, event.events) != 0) {
    log_debug("Event(type=%d, para=%d) process failed.", static_cast<int>(type), para);
  }
}

// What must be looked at also while sessions and events keep every second busy: a plugin that does not answer holds up
// the others' requests, subscriptions end at their stop time, and killed sessions and a shutdown are waited for.
void run_true_second()
{
  if (std::chrono::steady_clock::now() - true_second_begun > MOST_BETWEEN_TRUE_SECONDS) {
    true_second_begun = std::chrono::steady_clock::now();
    session_timeout();
    notifier_timer();
    plugin_timeout();
  }
}

// A service that is not open has a negative descriptor; the exit test ends the loop for it.
void add_service(int epfd, int sock, uint32_t events, uint32_t type)
{
  if (sock >= 0) {
    (void)conf_event_add(epfd, sock, events, ymgrd_event_tag(type, 0));
  }
}

// An interrupted wait is an ordinary pass. Any other failure would come back at once, for ever: it ends the daemon.
void note_wait_failure()
{
  if (errno != EINTR) {
    log_error("Wait for events failed(%s).", strerror(errno));
    (void)context_save_int("OPT-quit-flag", 1); // tried again at the next pass
  }
}

} // namespace

void ymgrd_run()
{
  if (ymgrd_epoll_init() != 0) {
    log_error("Ymgrd's epoll initialize failed.");
    return;
  }
  ymgrd_epoll_dispatch();
}

int ymgrd_epoll_init()
{
  unique_fd epfd(epoll_create1(EPOLL_CLOEXEC));
  if (epfd.get() < 0) {
    log_error("Create epoll fd failed(%s).", strerror(errno));
    return -1;
  }
  if (context_save_int("OPT-ymgrd-epfd", epfd.get()) != 0) {
    return -1;
  }
  add_service(epfd.get(), agent_service_sock(), EPOLLIN | EPOLLPRI, AGT_SRV);
  add_service(epfd.get(), plugin_service_sock(), EPOLLIN | EPOLLPRI, PLG_SRV);
  add_service(epfd.get(), notifier_service_sock(), EPOLLIN, NOTIFY_SRV);
  (void)epfd.release(); // the option's; closed by ymgrd_exit
  return 0;
}

bool ymgrd_epoll_exit()
{
  if (ymgrd_stop_signal() != 0) {
    log_info("Get signal %d, ymgrd epoll exit.", ymgrd_stop_signal());
    return true;
  }
  if (context_get_option("OPT-quit-flag") != nullptr) {
    log_error("Get quit flag, ymgrd epoll exit.");
    return true;
  }
  if (agent_service_sock() < 0) {
    log_error("Get agent service sock failed, ymgrd epoll exit.");
    return true;
  }
  if (plugin_service_sock() < 0) {
    log_error("Get plugin service sock failed, ymgrd epoll exit.");
    return true;
  }
  if (notifier_service_sock() < 0) {
    log_error("Get notifier service sock failed, ymgrd epoll exit.");
    return true;
  }
  return false;
}

void ymgrd_epoll_timeout()
{
  session_timeout();
  notifier_timer();
  broker_timeout();
  plugin_timeout();
  true_second_begun = std::chrono::steady_clock::now();
  memory_give_back();
}

void ymgrd_epoll_dispatch()
{
  int epfd = context_get_int("OPT-ymgrd-epfd", -1);
  if (epfd < 0) {
    log_error("Ymgrd's epoll-fd is not ready.");
    return;
  }
  epoll_event events[MOST_EVENTS] = {};
  int passes = 0;
  while (!ymgrd_epoll_exit()) {
    // A stop signal that arrives between the exit test and the wait is seen when the wait ends: a second later at most.
    bool is_waiting = !notifier_has_work();
    int count = epoll_wait(epfd, events, MOST_EVENTS, is_waiting ? WAIT_MS : 0);
    if (count < 0) {
      note_wait_failure();
    }
    if (++passes == PASSES_PER_HEARTBEAT) {
      passes = 0;
      ymgrd_send_keepalive_msg(0, 0);
    }
    if (count == 0 && is_waiting) {
      ymgrd_epoll_timeout();
    }
    for (int i = 0; i < count; i++) {
      dispatch_event(events[i]);
    }
    run_true_second();
    broker_run_pending();
    notifier_run_pending();
    wipe_stack();
  }
}
