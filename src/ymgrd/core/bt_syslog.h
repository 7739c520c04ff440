// A syslog that may be used in a fatal-signal handler: its whole state is in a record of the caller, it takes no lock
// and no memory, and it reads neither locale nor time zone (lines carry no time; the log daemon stamps them). Each line
// is cut at 2048 bytes.
#pragma once

#include <cstdarg>

typedef struct _syslog_data {
  int log_file;        // descriptor of the log socket; -1 while there is none
  int connected;       // 1 once the socket is connected
  int opened;          // 1 between openlog_r and closelog_r
  int log_stat;        // options: LOG_PID, LOG_CONS
  const char *log_tag; // borrowed; null leaves the tag out
  int log_fac;         // facility of lines that name none
  int log_mask;        // a bit for each severity that is written
} syslog_data;

// Connects to "/dev/log". Without a log daemon, lines go to the console when `log_stat` has LOG_CONS.
void openlog_r(const char *ident, int log_stat, int log_fac, syslog_data *data);
void syslog_r(int priority, syslog_data *data, const char *format, ...) __attribute__((format(printf, 3, 4)));
void vsyslog_r(int priority, syslog_data *data, const char *format, va_list args) __attribute__((format(printf, 3, 0)));
void closelog_r(syslog_data *data);
