// ymgr-keytool: makes the working key of a device and the table that deciphers it, and checks them.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <getopt.h>
#include <sys/prctl.h>

#include "keytool/keytool.h"
#include "ymgrd/core/paths.h"

namespace {

constexpr char USAGE[] = "usage: ymgr-keytool provision [--config-dir DIR] [--force]\n"
                         "       ymgr-keytool provision --print [--table FILE] [--force]\n"
                         "       ymgr-keytool check [--config-dir DIR]\n";

constexpr char HELP[] =
    "\n"
    "provision    makes a working key and its key table: puts the key, enciphered, into DIR/ymgrd.conf, and writes\n"
    "             DIR/table2.key. Refused when there is a key or a table.\n"
    "check        whether key and table are there, belong together, and are kept from others.\n"
    "\n"
    "  --config-dir DIR  where profile and table are (default: " YMGR_CONFIG_DIR ")\n"
    "  --force           replaces key and table; values that were encrypted until then are lost\n"
    "  --print           prints the enciphered key as a member of the profile's section \"database\" and leaves the\n"
    "                    profile alone\n"
    "  --table FILE      with --print: the key table to write\n"
    "  --help, --version\n"
    "\n"
    "Exit code: 0; 1 when something failed or is not in order; 2 when the command line is wrong.\n";

enum { OPTION_CONFIG_DIR = 256, OPTION_FORCE, OPTION_PRINT, OPTION_TABLE, OPTION_HELP, OPTION_VERSION };

const option long_options[] = {
    {"config-dir", required_argument, nullptr, OPTION_CONFIG_DIR},
    {"force", no_argument, nullptr, OPTION_FORCE},
    {"print", no_argument, nullptr, OPTION_PRINT},
    {"table", required_argument, nullptr, OPTION_TABLE},
    {"help", no_argument, nullptr, OPTION_HELP},
    {"version", no_argument, nullptr, OPTION_VERSION},
    {nullptr, 0, nullptr, 0},
};

const struct {
  const char *name;
  int (*run)(const keytool_options_t &options);
  bool makes_keys;
} commands[] = {
    {"provision", keytool_provision, true},
    {"check", keytool_check, false},
};

int wrong_usage(const std::string &text)
{
  fprintf(stderr, "ymgr-keytool: %s\n%s", text.c_str(), USAGE);
  return KEYTOOL_USAGE;
}

int run_command(const char *name, const keytool_options_t &options)
{
  for (const auto &command : commands) {
    if (strcmp(command.name, name) != 0) {
      continue;
    }
    if (!command.makes_keys && (options.force || options.print)) {
      return wrong_usage("check changes nothing: it takes neither --force nor --print");
    }
    return command.run(options);
  }
  return wrong_usage("unknown command '" + std::string(name) + "'");
}

int run(int argc, char **argv)
{
  keytool_options_t options;
  options.config_dir = DEFAULT_CONFIG_DIR;
  int code = 0;
  while ((code = getopt_long(argc, argv, "", long_options, nullptr)) != -1) {
    switch (code) {
    case OPTION_CONFIG_DIR:
      options.config_dir = optarg;
      break;
    case OPTION_FORCE:
      options.force = true;
      break;
    case OPTION_PRINT:
      options.print = true;
      break;
    case OPTION_TABLE:
      options.table = optarg;
      break;
    case OPTION_HELP:
      printf("%s%s", USAGE, HELP);
      return KEYTOOL_OK;
    case OPTION_VERSION:
      printf("ymgr-keytool %s\n", YMGRD_VERSION);
      return KEYTOOL_OK;
    default: // getopt_long has said what is wrong
      fputs(USAGE, stderr);
      return KEYTOOL_USAGE;
    }
  }
  if (optind != argc - 1) {
    return wrong_usage(optind == argc ? "no command" : "one command at a time");
  }
  if (!options.table.empty() && !options.print) {
    return wrong_usage("--table is for --print: the daemon's table stands beside its profile");
  }
  return run_command(argv[optind], options);
}

} // namespace

int main(int argc, char **argv)
{
  // Keys are in memory for a moment: no core file, no debugger of another process.
  prctl(PR_SET_DUMPABLE, 0);
  try {
    return run(argc, argv);
  } catch (const std::exception &failure) { // memory is short
    fprintf(stderr, "ymgr-keytool: %s\n", failure.what());
    return KEYTOOL_FAILED;
  }
}
