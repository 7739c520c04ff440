#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "sdk/plugin_internal.h"

namespace {

constexpr int EXIT_USAGE = 2;

struct plugin_delete_t {
  void operator()(ymgr_plugin_t *plugin) const { ymgr_plugin_free(plugin); }
};

ymgr_plugin_t *running_plugin = nullptr; // for the signal handler

void stop_running_plugin(int)
{
  ymgr_plugin_stop(running_plugin);
}

int install_signal_handlers()
{
  struct sigaction action = {};
  action.sa_handler = stop_running_plugin;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGTERM, &action, nullptr) == 0 && sigaction(SIGINT, &action, nullptr) == 0 ? 0 : -1;
}

// 0 with the run directory (null: not given); -1 when the command line is another.
int parse_arguments(int argc, char **argv, const char **ret_run_dir)
{
  constexpr char OPTION[] = "--run-dir";
  constexpr size_t LENGTH = sizeof(OPTION) - 1;
  const char *run_dir = nullptr;
  for (int at = 1; at < argc; at++) {
    if (std::strcmp(argv[at], OPTION) == 0 && at + 1 < argc) {
      run_dir = argv[++at];
    } else if (std::strncmp(argv[at], OPTION, LENGTH) == 0 && argv[at][LENGTH] == '=') {
      run_dir = argv[at] + LENGTH + 1;
    } else {
      return -1;
    }
  }
  *ret_run_dir = run_dir;
  return 0;
}

int report(const char *name, const ymgr_plugin_t *plugin)
{
  (void)std::fprintf(stderr, "%s: %s\n", name, ymgr_plugin_error(plugin)); // there is nowhere else to complain
  return EXIT_FAILURE;
}

} // namespace

int ymgr_plugin_main(int argc, char **argv, const char *name, int (*setup)(ymgr_plugin_t *plugin))
{
  const char *run_dir = nullptr;
  if (parse_arguments(argc, argv, &run_dir) != 0) {
    (void)std::fprintf(stderr, "usage: %s [--run-dir DIR]\n", argc > 0 ? argv[0] : name);
    return EXIT_USAGE;
  }
  std::unique_ptr<ymgr_plugin_t, plugin_delete_t> plugin(ymgr_plugin_new(name));
  if (plugin == nullptr) {
    (void)std::fprintf(stderr, "%s: %s\n", name, std::strerror(errno));
    return EXIT_FAILURE;
  }
  if ((run_dir != nullptr && ymgr_plugin_set_run_dir(plugin.get(), run_dir) != 0) || setup(plugin.get()) != 0) {
    return report(name, plugin.get());
  }
  running_plugin = plugin.get();
  if (install_signal_handlers() != 0) {
    (void)std::fprintf(stderr, "%s: %s\n", name, std::strerror(errno));
    return EXIT_FAILURE;
  }
  int result = ymgr_plugin_run(plugin.get());
  // A second signal ends the process at once: it must not meet a plugin that is being freed.
  (void)std::signal(SIGTERM, SIG_DFL);
  (void)std::signal(SIGINT, SIG_DFL);
  return result == 0 ? EXIT_SUCCESS : report(name, plugin.get());
}
