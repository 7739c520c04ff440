// The daemon's log. Every line goes to syslog ("YMGRM", LOG_PID, LOG_USER) or, with --log-stderr, to standard error, as
// "[LEVEL] text\n". The functions add the level and the line end: callers pass the bare text. Variable texts are passed
// with "%.512s" wherever a peer or a file chooses their length. Secrets never reach these functions.
#pragma once

typedef enum _log_level {
  LOG_LEVEL_ERROR = 0,
  LOG_LEVEL_WARN = 1,
  LOG_LEVEL_INFO = 2,
  LOG_LEVEL_DEBUG = 3
} log_level_t;

enum { LOG_TO_SYSLOG = 0, LOG_TO_STDERR = 1 };

// Opens the log. Lines above `max_level` are dropped before they are formatted.
void log_open(int destination, log_level_t max_level);

// True when lines go to standard error: for the fatal-signal handler, which writes its line by itself.
bool log_goes_to_stderr();

// True when a line of `level` would be written: lets a caller skip costly preparation.
bool log_enabled(log_level_t level);

void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_warn(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_info(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_debug(const char *format, ...) __attribute__((format(printf, 1, 2)));

// A line of the operation log (LOG_LOCAL7, LOG_INFO), written as it is, without level prefix.
void log_operation(const char *format, ...) __attribute__((format(printf, 1, 2)));
