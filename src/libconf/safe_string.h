// Bounds-checked copies and formatting, after ISO/IEC TR 24731-1 (the seven functions that the project uses). There is
// no upper limit on sizes. Copies return 0 or an errno value and, on failure, leave a terminated or cleared
// destination; formatting returns the length written, or a negative number when the text did not fit (the buffer then
// holds "").
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

inline int memset_s(void *dest, size_t dest_size, int value, size_t count)
{
  if (dest == nullptr || count > dest_size) {
    return EINVAL;
  }
  std::memset(dest, value, count);
  // Keeps the compiler from dropping the write to memory that is freed next.
  __asm__ __volatile__("" : : "r"(dest) : "memory");
  return 0;
}

// On failure the whole destination is cleared. Areas may overlap.
inline int memmove_s(void *dest, size_t dest_size, const void *src, size_t count)
{
  if (dest == nullptr) {
    return EINVAL;
  }
  if ((src == nullptr && count > 0) || count > dest_size) {
    std::memset(dest, 0, dest_size);
    return src == nullptr ? EINVAL : ERANGE;
  }
  if (count > 0) {
    std::memmove(dest, src, count);
  }
  return 0;
}

// The same for areas that do not overlap: an overlap is a failure.
inline int memcpy_s(void *dest, size_t dest_size, const void *src, size_t count)
{
  uintptr_t to = reinterpret_cast<uintptr_t>(dest);
  uintptr_t from = reinterpret_cast<uintptr_t>(src);
  if (dest != nullptr && src != nullptr && (to > from ? to - from : from - to) < count) {
    std::memset(dest, 0, dest_size);
    return EINVAL;
  }
  return memmove_s(dest, dest_size, src, count);
}

// Copies at most `count` characters of the text `src` and terminates them.
inline int strncpy_s(char *dest, size_t dest_size, const char *src, size_t count)
{
  if (dest == nullptr || dest_size == 0) {
    return EINVAL;
  }
  dest[0] = '\0';
  if (src == nullptr) {
    return EINVAL;
  }
  size_t length = strnlen(src, count);
  if (length >= dest_size) {
    return ERANGE;
  }
  std::memcpy(dest, src, length);
  dest[length] = '\0';
  return 0;
}

__attribute__((format(printf, 3, 0))) inline int vsnprintf_s(char *dest, size_t dest_size, const char *format,
                                                             va_list arguments)
{
  if (dest == nullptr || dest_size == 0) {
    return -1;
  }
  int length = format == nullptr ? -1 : std::vsnprintf(dest, dest_size, format, arguments);
  if (length < 0 || static_cast<size_t>(length) >= dest_size) {
    dest[0] = '\0';
    return -1;
  }
  return length;
}

__attribute__((format(printf, 3, 4))) inline int snprintf_s(char *dest, size_t dest_size, const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  int length = vsnprintf_s(dest, dest_size, format, arguments);
  va_end(arguments);
  return length;
}

__attribute__((format(printf, 3, 4))) inline int sprintf_s(char *dest, size_t dest_size, const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  int length = vsnprintf_s(dest, dest_size, format, arguments);
  va_end(arguments);
  return length;
}
