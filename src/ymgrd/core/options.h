// The command line: ymgrd [-s|--smooth] [--profile FILE] [--run-dir DIR] [--log-stderr] [--log-level LEVEL] [--version]
// [--help] [KEEPALIVE_SO].
#pragma once

#include <string>
#include <vector>

#include "ymgrd/core/log.h"

// A log line about the command line, kept until the log is open and the instance lock is taken.
typedef struct _option_notice {
  log_level_t level = LOG_LEVEL_INFO;
  std::string text;
} option_notice_t;

// All paths are absolute: the daemon changes its working directory. Empty: not given.
typedef struct _ymgrd_options {
  bool smooth = false;
  bool log_stderr = false;
  bool show_version = false;
  bool show_help = false;
  log_level_t log_level = LOG_LEVEL_DEBUG;
  std::string profile;
  std::string run_dir;
  std::string keepalive_so;
  std::vector<option_notice_t> notices; // in the order of the arguments
} ymgrd_options_t;

// Reads the arguments without logging anything. An unknown option is only noted and parsing goes on. 0; or -1 with
// `*ret_error` one line of text, for an option whose value is missing or invalid.
int ymgrd_parse_args(int argc, char **argv, ymgrd_options_t *ret_options, std::string *ret_error);

// Logs what ymgrd_parse_args noted.
void ymgrd_log_notices(const ymgrd_options_t &options);

std::string ymgrd_usage();
