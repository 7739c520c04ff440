// Ctrl-C while a command has something to finish or to take back.
#pragma once

#include <csignal>
#include <iterator>

// While one lives, SIGINT, SIGTERM and SIGHUP are counted instead of ending the program; calls that wait return EINTR.
class ctl_interrupt {
public:
  ctl_interrupt();
  ~ctl_interrupt();
  ctl_interrupt(const ctl_interrupt &) = delete;
  ctl_interrupt &operator=(const ctl_interrupt &) = delete;

  int count() const;
  // Waits for data on the descriptor, its end, or a signal, however close together these come.
  void wait_readable(int descriptor) const;

private:
  static constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction former_[std::size(SIGNALS)] = {};
};
