#include "ctl/ctl_interrupt.h"

#include <poll.h>

namespace {

volatile sig_atomic_t signal_count = 0;

void count_signal(int)
{
  signal_count = signal_count + 1;
}

} // namespace

ctl_interrupt::ctl_interrupt()
{
  signal_count = 0;
  struct sigaction action = {};
  action.sa_handler = count_signal;
  (void)sigemptyset(&action.sa_mask);
  for (size_t i = 0; i < std::size(SIGNALS); i++) {
    (void)sigaction(SIGNALS[i], nullptr, &former_[i]);
    // Who started the program in the background, or with nohup, does not want it to hear of these.
    if (former_[i].sa_handler != SIG_IGN) {
      (void)sigaction(SIGNALS[i], &action, nullptr);
    }
  }
}

ctl_interrupt::~ctl_interrupt()
{
  for (size_t i = 0; i < std::size(SIGNALS); i++) {
    (void)sigaction(SIGNALS[i], &former_[i], nullptr);
  }
}

int ctl_interrupt::count() const
{
  return signal_count;
}

void ctl_interrupt::wait_readable(int descriptor) const
{
  sigset_t counted;
  sigset_t former;
  (void)sigemptyset(&counted);
  for (int number : SIGNALS) {
    (void)sigaddset(&counted, number);
  }
  (void)sigprocmask(SIG_BLOCK, &counted, &former);
  if (signal_count == 0) {
    pollfd state = {descriptor, POLLIN, 0};
    (void)ppoll(&state, 1, nullptr, &former); // whoever waits looks again in any case
  }
  (void)sigprocmask(SIG_SETMASK, &former, nullptr);
}
