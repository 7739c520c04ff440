#include "ymgrd/core/bt_syslog.h"

#include <cstdio>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "libconf/safe_string.h"

namespace {

constexpr char LOG_SOCKET[] = "/dev/log";

typedef struct _log_line {
  char text[2048];
  size_t used = 0;
} log_line_t;

// What does not fit is cut off.
void vappend(log_line_t *line, const char *format, va_list args)
{
  size_t space = sizeof(line->text) - line->used;
  int length = std::vsnprintf(line->text + line->used, space, format, args);
  if (length > 0) {
    line->used += static_cast<size_t>(length) < space ? static_cast<size_t>(length) : space - 1;
  }
}

__attribute__((format(printf, 2, 3))) void append(log_line_t *line, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  vappend(line, format, args);
  va_end(args);
}

void connect_log(syslog_data *data)
{
  if (data->log_file < 0) {
    // Non-blocking: a log daemon that has stopped reading must not keep a dying process alive.
    data->log_file = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    data->connected = 0;
  }
  if (data->log_file < 0 || data->connected != 0) {
    return;
  }
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  (void)strncpy_s(address.sun_path, sizeof(address.sun_path), LOG_SOCKET, sizeof(LOG_SOCKET)); // fits
  if (connect(data->log_file, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) {
    data->connected = 1;
  }
}

void disconnect_log(syslog_data *data)
{
  if (data->log_file >= 0) {
    close(data->log_file);
  }
  data->log_file = -1;
  data->connected = 0;
}

// Failures have nowhere to go.
void write_console(const char *text, size_t length)
{
  int fd = open("/dev/console", O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd >= 0) {
    (void)!write(fd, text, length);
    close(fd);
  }
}

} // namespace

void openlog_r(const char *ident, int log_stat, int log_fac, syslog_data *data)
{
  data->log_tag = ident;
  data->log_stat = log_stat;
  data->log_fac = log_fac;
  connect_log(data);
  data->opened = 1;
}

void syslog_r(int priority, syslog_data *data, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  vsyslog_r(priority, data, format, args);
  va_end(args);
}

void vsyslog_r(int priority, syslog_data *data, const char *format, va_list args)
{
  if ((data->log_mask & LOG_MASK(LOG_PRI(priority))) == 0) {
    return;
  }
  if ((priority & LOG_FACMASK) == 0) {
    priority |= data->log_fac;
  }

  log_line_t line;
  append(&line, "<%d>", priority);
  size_t head = line.used;
  if (data->log_tag != nullptr) {
    append(&line, "%s", data->log_tag);
  }
  if ((data->log_stat & LOG_PID) != 0) {
    append(&line, "[%ld]", static_cast<long>(getpid()));
  }
  if (data->log_tag != nullptr) {
    append(&line, ": ");
  }
  vappend(&line, format, args);

  connect_log(data);
  if (data->connected != 0 && send(data->log_file, line.text, line.used, MSG_NOSIGNAL) >= 0) {
    return;
  }
  disconnect_log(data); // the next line tries again
  if ((data->log_stat & LOG_CONS) != 0) {
    append(&line, "\r\n");
    write_console(line.text + head, line.used - head);
  }
}

void closelog_r(syslog_data *data)
{
  disconnect_log(data);
  data->log_tag = nullptr;
  data->opened = 0;
}
