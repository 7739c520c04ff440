// Small services of the support library.
#pragma once

#include <cstddef>

enum {
  DBG_NULL = 0,
  DBG_CRIT = 1,
  DBG_ERROR = 2,
  DBG_WARN = 3,
  DBG_INFO = 4,
  DBG_DEBUG = 5,
  DBG_MSG = 6,
  DBG_ALL = 7,
};

// The support library's own debug output, up to `level`. 0, or -1 for an unknown level.
int conf_dbg_enable(int level, int flag);
// Where that output goes; null drops it. Set by the daemon to its log.
void conf_dbg_set_output(void (*output)(int level, const char *text));
void conf_dbg(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The working directory: the run directory when one was given explicitly. On 0 `*ret_working_dir` is a malloc'ed copy
// or null.
int conf_load_config(char **ret_working_dir);
void conf_set_working_dir(const char *working_dir);

// Decimal text of `value`, always terminated. Its length, or -1 when it does not fit into `size`.
int conf_itoa(long value, char *text, size_t size);
