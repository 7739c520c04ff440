#include "ymgrd/core/memory.h"

#include <malloc.h>

namespace {

constexpr size_t LARGE = 1U << 20;

bool large_was_used = false;

} // namespace

void memory_note_use(size_t bytes)
{
  large_was_used = large_was_used || bytes >= LARGE;
}

void memory_give_back()
{
  if (large_was_used) {
    large_was_used = false;
    (void)malloc_trim(0); // whether there was anything does not matter
  }
}
