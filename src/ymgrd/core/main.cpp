#include <cstdio>
#include <string>

#include <libxml/parser.h>

#include "libconf/conf_misc.h"
#include "ymgrd/core/event_loop.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/options.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/core/startup.h"
#include "ymgrd/core/stop_signal.h"
#include "ymgrd/notify/notifier.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr int EXIT_NOT_STARTED = -1; // seen outside as 255
constexpr int EXIT_USAGE = 2;

void tell_user(const std::string &text)
{
  std::fprintf(stderr, "ymgrd: %s\n", text.c_str());
}

// Everything before the components: log, directories, instance lock, signals. 0 or -1.
int prepare(const ymgrd_options_t &options)
{
  std::string error;
  log_open(options.log_stderr ? LOG_TO_STDERR : LOG_TO_SYSLOG, options.log_level);
  ymgrd_wire_components();
  if (conf_dbg_enable(DBG_ALL, 0) != 0) {
    tell_user("cannot enable the support library's log");
    return -1;
  }
  if (!options.profile.empty()) {
    ymgrd_set_profile_path(options.profile);
  }
  if (!options.run_dir.empty() && ymgrd_use_run_dir(options.run_dir, &error) != 0) {
    tell_user(error);
    return -1;
  }
  if (ymgrd_run_once(&error) != 0) {
    tell_user(error);
    return -1;
  }
  ymgrd_log_notices(options);
  ymgrd_init_signal();
  return 0;
}

void run(const ymgrd_options_t &options)
{
  lyxml_init_wiping_memory();
  xmlInitParser();
  if (ymgrd_init(options.keepalive_so, options.smooth) == 0) {
    ymgrd_run();
    session_report_ends();
    notifier_flush(); // what was reported since the loop's last pass
  } else if (ymgrd_stop_signal() == 0) {
    log_error("Ymgrd initialize failed.");
  }
  ymgrd_exit();
}

} // namespace

int main(int argc, char **argv)
{
  ymgrd_options_t options;
  std::string error;
  if (ymgrd_parse_args(argc, argv, &options, &error) != 0) {
    tell_user(error);
    return EXIT_USAGE;
  }
  if (options.show_help) {
    std::fputs(ymgrd_usage().c_str(), stdout);
    return 0;
  }
  if (options.show_version) {
    std::printf("ymgrd %s\n", YMGRD_VERSION);
    return 0;
  }
  if (prepare(options) != 0) {
    return EXIT_NOT_STARTED;
  }
  run(options);
  ymgrd_end_by_stop_signal();
  return 0;
}
