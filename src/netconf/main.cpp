// NETCONF on standard input and output: what an SSH server starts as its subsystem "netconf".
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include <getopt.h>
#include <syslog.h>
#include <unistd.h>

#include "client/client.h"
#include "libconf/conf_client_area.h"
#include "libconf/default_paths.h"
#include "netconf/client_identity.h"
#include "netconf/netconf_hello.h"
#include "netconf/netconf_relay.h"

namespace {

constexpr int USAGE = 2;

int fail(const std::string &message)
{
  netconf_tell(message);
  return 1;
}

// Tells the daemon where the client of this process is. A session without an address is one all the same.
void publish_address(const std::string &run_dir)
{
  conf_client_info_t info = {};
  if (client_address(std::getenv("SSH_CONNECTION"), &info) && conf_register_client(run_dir, info) != 0) {
    netconf_tell(std::string("the client's address is not published: ") + strerror(errno));
  }
}

int serve(const std::string &run_dir)
{
  const std::string user = ymgr_login_name();
  if (user.empty()) {
    return fail("user id " + std::to_string(getuid()) + " has no login name");
  }
  std::string reason;
  ymgr_client_ptr daemon = ymgr_connect(run_dir, &reason);
  if (daemon == nullptr) {
    return fail(reason);
  }
  publish_address(run_dir);
  std::optional<int> session_id = ymgr_create_session(daemon.get(), user);
  const std::string ask = std::string("<get-capability xmlns=\"") + YMGR_DAEMON_NAMESPACE + "\"/>";
  std::optional<std::string> reply = session_id ? ymgr_rpc(daemon.get(), ask) : std::nullopt;
  if (!reply) {
    return fail(ymgr_last_error(daemon.get()));
  }
  const std::vector<std::string> capabilities = netconf_hello_capabilities(*reply);
  const std::string hello = netconf_hello(capabilities, *session_id);
  if (capabilities.empty() || hello.empty()) {
    return fail("the daemon names no capabilities");
  }
  return netconf_relay({STDIN_FILENO, STDOUT_FILENO, daemon.get()}, hello);
}

int show_help(FILE *file, int result)
{
  std::fputs("usage: ymgr-netconf [--run-dir DIR] [--version] [--help]\n"
             "  Speaks NETCONF on standard input and output for the daemon that runs in DIR (/run/ymgrd).\n"
             "  To be named in sshd_config: Subsystem netconf PATH/ymgr-netconf\n",
             file);
  return result;
}

} // namespace

int main(int argc, char **argv)
{
  static const option options[] = {{"run-dir", required_argument, nullptr, 'r'},
                                   {"version", no_argument, nullptr, 'v'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
  std::string run_dir = DEFAULT_RUN_DIR;
  for (int choice; (choice = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    switch (choice) {
    case 'r':
      run_dir = optarg;
      break;
    case 'v':
      std::puts("ymgr-netconf " YMGRD_VERSION);
      return 0;
    case 'h':
      return show_help(stdout, 0);
    default:
      return show_help(stderr, USAGE);
    }
  }
  if (optind < argc) {
    return show_help(stderr, USAGE);
  }
  // A client that leaves shows as a failed write.
  std::signal(SIGPIPE, SIG_IGN);
  openlog("ymgr-netconf", LOG_PID, LOG_DAEMON);
  try {
    return serve(run_dir);
  } catch (const std::exception &error) {
    return fail(error.what());
  }
}
