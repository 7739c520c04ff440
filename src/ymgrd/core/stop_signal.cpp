#include "ymgrd/core/stop_signal.h"

#include <csignal>

namespace {
volatile std::sig_atomic_t stop_signal = 0;
}

int ymgrd_stop_signal()
{
  return stop_signal;
}

void ymgrd_note_stop_signal(int signal_no)
{
  stop_signal = signal_no;
}
