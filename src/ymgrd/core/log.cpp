#include "ymgrd/core/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include <syslog.h>
#include <unistd.h>

namespace {

typedef struct _level_row {
  const char *prefix;
  int priority;
} level_row_t;

// By log_level_t.
constexpr level_row_t level_rows[] = {
    {"[ERROR] ", LOG_USER | LOG_ERR},
    {"[WARN] ", LOG_USER | LOG_WARNING},
    {"[INFO] ", LOG_USER | LOG_INFO},
    {"[DEBUG] ", LOG_USER | LOG_DEBUG},
};

int log_destination = LOG_TO_SYSLOG;
log_level_t log_limit = LOG_LEVEL_DEBUG;

// Appends the formatted text. A format that cannot be formatted is kept as it stands: a log line is never lost.
void append_formatted(std::string *line, const char *format, va_list args)
{
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(nullptr, 0, format, args);
  if (length < 0) {
    line->append(format);
  } else {
    size_t start = line->size();
    line->resize(start + static_cast<size_t>(length) + 1);
    std::vsnprintf(line->data() + start, static_cast<size_t>(length) + 1, format, again);
    line->pop_back(); // the terminating zero
  }
  va_end(again);
}

// One write for each line, so that lines of several processes on one terminal or pipe do not mix. When standard error
// is gone there is nowhere left to report that.
void write_stderr(const std::string &line)
{
  size_t done = 0;
  while (done < line.size()) {
    ssize_t written = write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    done += static_cast<size_t>(written);
  }
}

// Callers log in the middle of error handling: `errno` stays as it was.
void log_line(int priority, const char *prefix, const char *format, va_list args)
{
  int saved_errno = errno;
  std::string line(prefix);
  append_formatted(&line, format, args);
  // A line with a level may end in an empty line on purpose; one of the operation log ends itself, or not.
  bool ended = *prefix == '\0' && !line.empty() && line.back() == '\n';
  if (!ended) {
    line += '\n';
  }
  if (log_destination == LOG_TO_STDERR) {
    write_stderr(line);
  } else {
    syslog(priority, "%s", line.c_str());
  }
  errno = saved_errno;
}

void log_level_line(log_level_t level, const char *format, va_list args)
{
  if (log_enabled(level)) {
    log_line(level_rows[level].priority, level_rows[level].prefix, format, args);
  }
}

} // namespace

void log_open(int destination, log_level_t max_level)
{
  log_destination = destination;
  log_limit = max_level;
  if (destination == LOG_TO_SYSLOG) {
    openlog("YMGRM", LOG_PID, LOG_USER);
  }
}

bool log_goes_to_stderr()
{
  return log_destination == LOG_TO_STDERR;
}

bool log_enabled(log_level_t level)
{
  return level <= log_limit;
}

void log_error(const char *format, ...)
{
  va_list args;
  va_start(args, format);
  log_level_line(LOG_LEVEL_ERROR, format, args);
  va_end(args);
}

void log_warn(const char *format, ...)
{
  va_list args;
  va_start(args, format);
  log_level_line(LOG_LEVEL_WARN, format, args);
  va_end(args);
}

void log_info(const char *format, ...)
{
  va_list args;
  va_start(args, format);
  log_level_line(LOG_LEVEL_INFO, format, args);
  va_end(args);
}

void log_debug(const char *format, ...)
{
  va_list args;
  va_start(args, format);
  log_level_line(LOG_LEVEL_DEBUG, format, args);
  va_end(args);
}

void log_operation(const char *format, ...)
{
  if (!log_enabled(LOG_LEVEL_INFO)) {
    return;
  }
  va_list args;
  va_start(args, format);
  log_line(LOG_LOCAL7 | LOG_INFO, "", format, args);
  va_end(args);
}
