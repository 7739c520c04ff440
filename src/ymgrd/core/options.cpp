#include "ymgrd/core/options.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>

#include <getopt.h>

#include "libconf/conf_service.h"
#include "ymgrd/core/paths.h"

namespace {

// Codes of the long options that have no short form: outside the range of characters.
enum { OPTION_PROFILE = 256, OPTION_RUN_DIR, OPTION_LOG_STDERR, OPTION_LOG_LEVEL, OPTION_VERSION, OPTION_HELP };

const option long_options[] = {
    {"smooth", no_argument, nullptr, 's'},
    {"profile", required_argument, nullptr, OPTION_PROFILE},
    {"run-dir", required_argument, nullptr, OPTION_RUN_DIR},
    {"log-stderr", no_argument, nullptr, OPTION_LOG_STDERR},
    {"log-level", required_argument, nullptr, OPTION_LOG_LEVEL},
    {"version", no_argument, nullptr, OPTION_VERSION},
    {"help", no_argument, nullptr, OPTION_HELP},
    {nullptr, 0, nullptr, 0},
};

// The leading colon makes a missing value distinguishable from an unknown option.
constexpr char SHORT_OPTIONS[] = ":s";

constexpr std::pair<std::string_view, log_level_t> log_levels[] = {
    {"error", LOG_LEVEL_ERROR},
    {"warn", LOG_LEVEL_WARN},
    {"info", LOG_LEVEL_INFO},
    {"debug", LOG_LEVEL_DEBUG},
};

std::optional<log_level_t> find_log_level(std::string_view name)
{
  for (const auto &[level_name, level] : log_levels) {
    if (name == level_name) {
      return level;
    }
  }
  return std::nullopt;
}

int take_log_level(const char *name, ymgrd_options_t *options, std::string *ret_error)
{
  std::optional<log_level_t> level = find_log_level(name);
  if (!level) {
    *ret_error = "unknown log level '" + std::string(name) + "' (error, warn, info or debug)";
    return -1;
  }
  options->log_level = *level;
  return 0;
}

int take_path(const char *text, std::string *path, std::string *ret_error)
{
  std::error_code failure;
  std::filesystem::path absolute = std::filesystem::absolute(text, failure);
  if (*text == '\0' || failure) {
    *ret_error = "invalid path '" + std::string(text) + "'";
    return -1;
  }
  *path = absolute.lexically_normal().string();
  return 0;
}

int take_option(int code, const char *argument, ymgrd_options_t *options, std::string *ret_error)
{
  switch (code) {
  case 's':
    options->smooth = true;
    options->notices.push_back({LOG_LEVEL_INFO, "Start ymgrd smooth mode."});
    return 0;
  case OPTION_PROFILE:
    return take_path(argument, &options->profile, ret_error);
  case OPTION_RUN_DIR:
    return take_path(argument, &options->run_dir, ret_error);
  case OPTION_LOG_STDERR:
    options->log_stderr = true;
    return 0;
  case OPTION_LOG_LEVEL:
    return take_log_level(argument, options, ret_error);
  case OPTION_VERSION:
    options->show_version = true;
    return 0;
  case OPTION_HELP:
    options->show_help = true;
    return 0;
  default: {
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "Option parser returned character code 0x%x .",
                  static_cast<unsigned>(code));
    options->notices.push_back({LOG_LEVEL_WARN, text.data()});
    return 0;
  }
  }
}

} // namespace

int ymgrd_parse_args(int argc, char **argv, ymgrd_options_t *ret_options, std::string *ret_error)
{
  if (ret_options == nullptr || ret_error == nullptr) {
    return -1;
  }
  ymgrd_options_t options;
  optind = 0; // starts over, also after an earlier parse
  opterr = 0;
  int code = 0;
  while ((code = getopt_long(argc, argv, SHORT_OPTIONS, long_options, nullptr)) != -1) {
    if (code == ':') {
      *ret_error = "option '" + std::string(argv[optind - 1]) + "' needs a value";
      return -1;
    }
    if (take_option(code, optarg, &options, ret_error) != 0) {
      return -1;
    }
  }
  if (optind < argc && take_path(argv[optind++], &options.keepalive_so, ret_error) != 0) {
    return -1;
  }
  for (; optind < argc; optind++) {
    options.notices.push_back({LOG_LEVEL_WARN, "Arguments " + std::string(argv[optind]) + " not parsed."});
  }
  *ret_options = std::move(options);
  return 0;
}

void ymgrd_log_notices(const ymgrd_options_t &options)
{
  for (const option_notice_t &notice : options.notices) {
    if (notice.level == LOG_LEVEL_WARN) {
      log_warn("%.512s", notice.text.c_str());
    } else {
      log_info("%.512s", notice.text.c_str());
    }
  }
}

std::string ymgrd_usage()
{
  return std::string("Usage: ymgrd [OPTION]... [KEEPALIVE_SO]\n"
                     "Configuration daemon: keeps the device's NETCONF datastores and serves its agents.\n"
                     "\n"
                     "  -s, --smooth         smooth start: keep the running configuration of the database\n"
                     "      --profile FILE   profile to read; modules and plugins are looked for beside it unless it\n"
                     "                       names their directories (default ") +
         DEFAULT_PROFILE_PATH +
         ")\n"
         "      --run-dir DIR    directory of the sockets and of the instance lock, made when missing\n"
         "                       (default " +
         conf_run_dir() + ", with the lock file " + DEFAULT_INSTANCE_PATH +
         ")\n"
         "      --log-stderr     log to standard error instead of syslog\n"
         "      --log-level L    drop log lines above L: error, warn, info or debug (default debug)\n"
         "      --version        print the version and exit\n"
         "      --help           print this text and exit\n"
         "\n"
         "KEEPALIVE_SO is the product's keep-alive library, called while the daemon is alive.\n";
}
