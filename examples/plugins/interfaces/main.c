/* The plugin in a loop of its own: ymgr-example-interfaces [--run-dir DIR] */
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "interfaces.h"
#include "link_state.h"

enum { RETRY_MILLISECONDS = 1000 };

static int fail(const char *what, const char *reason)
{
  fprintf(stderr, "example-interfaces: %s: %s\n", what, reason);
  return -1;
}

/* Runs until a signal ends it: 0. -1 after a failure. */
static int loop(ymgr_plugin_t *plugin, link_state_t *state, int signals)
{
  struct pollfd polled[] = {{.fd = ymgr_plugin_fd(plugin), .events = POLLIN},
                            {.fd = link_state_fd(state), .events = POLLIN},
                            {.fd = signals, .events = POLLIN}};
  if (ymgr_plugin_process(plugin) != 0) { /* begins to connect */
    return fail("the daemon refused the plugin", ymgr_plugin_error(plugin));
  }
  for (;;) {
    int timeout = link_state_publish(state) == 0 ? -1 : RETRY_MILLISECONDS;
    if (poll(polled, sizeof(polled) / sizeof(polled[0]), timeout) < 0) {
      if (errno == EINTR) {
        continue; /* what stands in `polled` is of the round before */
      }
      return fail("poll", strerror(errno));
    }
    if (polled[2].revents != 0) {
      return 0;
    }
    if (polled[1].revents != 0 && link_state_process(state) != 0) {
      return -1;
    }
    if (polled[0].revents != 0 && ymgr_plugin_process(plugin) != 0) {
      return fail("the daemon refused the plugin", ymgr_plugin_error(plugin));
    }
  }
}

static int run(ymgr_plugin_t *plugin, interfaces_t *interfaces, link_state_t *state)
{
  if (nl_open(&interfaces->nl) != 0) {
    return fail("the kernel can not be reached", strerror(errno));
  }
  if (interfaces_setup(plugin, interfaces) != 0) {
    return fail("the interfaces can not be registered", ymgr_plugin_error(plugin));
  }
  if (link_state_setup(plugin, &interfaces->nl, state) != 0) {
    return -1;
  }
  sigset_t ends;
  (void)sigemptyset(&ends); /* these two can not fail for signals that are there */
  (void)sigaddset(&ends, SIGTERM);
  (void)sigaddset(&ends, SIGINT);
  int signals = sigprocmask(SIG_BLOCK, &ends, NULL) == 0 ? signalfd(-1, &ends, SFD_CLOEXEC) : -1;
  if (signals < 0) {
    return fail("signals", strerror(errno));
  }
  int result = loop(plugin, state, signals);
  (void)close(signals); /* only read from */
  return result;
}

int main(int argc, char **argv)
{
  if (argc != 1 && (argc != 3 || strcmp(argv[1], "--run-dir") != 0)) {
    fprintf(stderr, "usage: %s [--run-dir DIR]\n", argv[0]);
    return 2;
  }
  ymgr_plugin_t *plugin = ymgr_plugin_new("example-interfaces");
  if (plugin == NULL) {
    (void)fail("memory", strerror(ENOMEM));
    return 1;
  }
  interfaces_t interfaces = {0};
  link_state_t state = {0};
  int result = argc == 3 && ymgr_plugin_set_run_dir(plugin, argv[2]) != 0
                   ? fail("run directory", ymgr_plugin_error(plugin))
                   : run(plugin, &interfaces, &state);
  ymgr_plugin_free(plugin); /* first: its callbacks use the others */
  link_state_free(&state);
  interfaces_free(&interfaces);
  return result == 0 ? 0 : 1;
}
