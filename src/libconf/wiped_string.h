// Text that may hold secrets: its memory is cleared before it is given back, also when the text grows.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "libconf/safe_string.h"

template <class T>
struct wiping_allocator {
  using value_type = T;
  wiping_allocator() = default;
  template <class U>
  wiping_allocator(const wiping_allocator<U> &)
  {
  }

  T *allocate(size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T *block, size_t count)
  {
    memset_s(block, count * sizeof(T), 0, count * sizeof(T));
    std::allocator<T>().deallocate(block, count);
  }
  template <class U>
  bool operator==(const wiping_allocator<U> &) const
  {
    return true;
  }
};

// A text of up to 15 characters lives inside the object and is not cleared: reserve() more for a short secret.
using wiped_string = std::basic_string<char, std::char_traits<char>, wiping_allocator<char>>;
