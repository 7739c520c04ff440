#include "libconf/conf_misc.h"

#include <charconv>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "libconf/safe_string.h"

namespace {

constexpr size_t LONGEST_DEBUG_TEXT = 1024;

int debug_level = DBG_NULL;
void (*debug_output)(int level, const char *text) = nullptr;
std::string working_dir_path; // empty: none was given

} // namespace

int conf_dbg_enable(int level, int flag)
{
  (void)flag; // all output goes one way: there is nothing to choose
  if (level < DBG_NULL || level > DBG_ALL) {
    return -1;
  }
  debug_level = level;
  return 0;
}

void conf_dbg_set_output(void (*output)(int level, const char *text))
{
  debug_output = output;
}

void conf_dbg(int level, const char *format, ...)
{
  if (debug_output == nullptr || level > debug_level) {
    return;
  }
  char text[LONGEST_DEBUG_TEXT];
  va_list arguments;
  va_start(arguments, format);
  // Plain vsnprintf: a cut debug line is worth more than none.
  int length = std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  if (length >= 0) {
    debug_output(level, text);
  }
}

int conf_load_config(char **ret_working_dir)
{
  if (ret_working_dir == nullptr) {
    return -1;
  }
  if (working_dir_path.empty()) {
    *ret_working_dir = nullptr;
    return 0;
  }
  char *copy = strdup(working_dir_path.c_str());
  if (copy == nullptr) {
    return -1;
  }
  *ret_working_dir = copy;
  return 0;
}

void conf_set_working_dir(const char *working_dir)
{
  if (working_dir == nullptr) {
    working_dir_path.clear();
    return;
  }
  // Made absolute now: the process changes into it, and a relative path would then name another directory.
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(working_dir, error);
  working_dir_path = error ? working_dir : absolute.string();
}

int conf_itoa(long value, char *text, size_t size)
{
  if (text == nullptr || size == 0) {
    return -1;
  }
  auto [end, error] = std::to_chars(text, text + size - 1, value);
  if (error != std::errc()) {
    text[0] = '\0';
    return -1;
  }
  *end = '\0';
  return static_cast<int>(end - text);
}
