// Signals that end the daemon.
//
// SIGTERM and SIGINT arrive in good health and while any function runs, one that holds the allocator's lock included. A
// tear-down in their handler could therefore hang or free what is being changed: the handler only notes them, the loop
// or the start-up ends at its next step, and the tear-down runs on the ordinary path. The signal is then raised again,
// so that whoever started the daemon sees it end by that signal.
//
// The others report a state from which there is no way back to the loop. The tear-down runs from their handler, because
// sockets and locks that stay behind would be worse; an alarm ends the process should it hang.
//
// SA_RESETHAND gives each signal its default action after its first arrival: a second SIGTERM ends the daemon at once,
// and a crash inside the handler ends it with a core.
#include <cerrno>
#include <csignal>
#include <cstdio>

#include <execinfo.h>
#include <syslog.h>
#include <unistd.h>

#include "libconf/safe_string.h"
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "ymgrd/core/bt_syslog.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/startup.h"
#include "ymgrd/core/stop_signal.h"

namespace {

constexpr int MOST_FRAMES = 64;
constexpr size_t CALL_STACK_SIZE = 576;
constexpr unsigned TEAR_DOWN_SECONDS = 10;

const int handled_signals[] = {
    SIGINT, SIGTERM, SIGSEGV, SIGFPE, SIGQUIT, SIGABRT, SIGILL, SIGBUS, SIGSYS, SIGXCPU, SIGXFSZ,
};

// The caller's return addresses, "ADDRESS<-ADDRESS<-", as many as fit. Returns the number of frames.
int format_call_stack(char (&text)[CALL_STACK_SIZE])
{
  void *frames[MOST_FRAMES];
  int count = backtrace(frames, MOST_FRAMES);
  size_t used = 0;
  text[0] = '\0';
  for (int i = 0; i < count; i++) {
    int length = snprintf_s(text + used, sizeof(text) - used, "%p<-", frames[i]);
    if (length > 0) {
      used += static_cast<size_t>(length);
    }
  }
  return count;
}

void log_call_stack(int signal_no)
{
  char text[CALL_STACK_SIZE];
  int count = format_call_stack(text);
  if (log_goes_to_stderr()) {
    char line[CALL_STACK_SIZE + 128];
    int length = snprintf_s(line, sizeof(line), "Signal %d happened(callstack(%d): %s).\n", signal_no, count, text);
    if (length > 0) {
      (void)!write(STDERR_FILENO, line, static_cast<size_t>(length));
    }
  }
  syslog_data data = {};
  data.log_file = -1;
  data.log_fac = LOG_USER;
  data.log_mask = 0xff;
  openlog_r("YMGRM", LOG_PID | LOG_CONS, LOG_USER, &data);
  syslog_r(LOG_USER | LOG_CRIT, &data, "Signal %d happened(callstack(%d): %s).", signal_no, count, text);
  closelog_r(&data);
}

void ymgrd_signal_handler(int signal_no, siginfo_t *, void *)
{
  int saved_errno = errno;
  log_call_stack(signal_no);
  if (signal_no == SIGTERM || signal_no == SIGINT) {
    ymgrd_note_stop_signal(signal_no);
    errno = saved_errno;
    return;
  }
  (void)signal(SIGALRM, SIG_DFL); // with a valid number it cannot fail
  alarm(TEAR_DOWN_SECONDS);
  ymgrd_exit();
  kill(getpid(), signal_no);
}

} // namespace

void ymgrd_init_signal()
{
  // The first call of backtrace loads a library: that must not happen in a handler.
  void *frame = nullptr;
  (void)backtrace(&frame, 1);

  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_NODEFER | SA_RESETHAND);
  action.sa_sigaction = ymgrd_signal_handler;
  for (int signal_no : handled_signals) {
    (void)sigaction(signal_no, &action, nullptr); // valid numbers: it cannot fail
  }
  action.sa_flags = 0;
  action.sa_handler = SIG_IGN;
  (void)sigaction(SIGPIPE, &action, nullptr);
}

void ymgrd_end_by_stop_signal()
{
  int signal_no = ymgrd_stop_signal();
  if (signal_no != 0) {
#ifdef __SANITIZE_ADDRESS__
    __lsan_do_leak_check(); // by itself it checks at exit(), which a signal does not reach
#endif
    (void)signal(signal_no, SIG_DFL);
    kill(getpid(), signal_no);
  }
}
