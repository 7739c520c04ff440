// A plain record that is cleared with its owner.
#pragma once

#include <type_traits>

#include "libconf/safe_string.h"

template <class T>
struct secret_t {
  static_assert(std::is_trivially_copyable_v<T>);
  T value = {};

  secret_t() = default;
  secret_t(const secret_t &) = delete;
  secret_t &operator=(const secret_t &) = delete;
  ~secret_t() { memset_s(&value, sizeof(value), 0, sizeof(value)); }
};
