#include "ymgrd/core/wiping_heap.h"

#include <algorithm>
#include <cstdint>

#include <alloca.h>
#include <sys/resource.h>

namespace {

constexpr size_t MOST_STACK = 4U << 20;

wiping_heap_switch_fn turn_on_freeing = nullptr;
bool is_enabled = false;
size_t stack_reach = 0; // bytes below wipe_stack's frame that are looked at, at most

// Half of what the process may use: a signal that comes meanwhile finds room below.
size_t find_stack_reach()
{
  rlimit limit = {};
  if (getrlimit(RLIMIT_STACK, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return MOST_STACK;
  }
  return std::min(MOST_STACK, static_cast<size_t>(limit.rlim_cur) / 2);
}

} // namespace

void wiping_heap_offer(wiping_heap_switch_fn turn_on)
{
  turn_on_freeing = turn_on;
}

void wiping_heap_enable()
{
  if (turn_on_freeing == nullptr) {
    return;
  }
  stack_reach = find_stack_reach();
  is_enabled = true;
  turn_on_freeing();
}

bool wiping_heap_is_enabled()
{
  return is_enabled;
}

// How deep the calls went is not known. But below them everything is zero, by the last wipe or because it was never
// used: the search ends where that has gone on for longer than any function's unused buffers. So the cost follows the
// depth that was used. The function calls nothing: a call would write where it clears.
__attribute__((noinline)) void wipe_stack()
{
  constexpr size_t LONGEST_HOLE = (128U << 10) / sizeof(uint64_t);
  constexpr size_t BATCH = 8; // words looked at together
  if (!is_enabled) {
    return;
  }
  size_t count = stack_reach / sizeof(uint64_t);
  auto *below = static_cast<volatile uint64_t *>(alloca(stack_reach));
  size_t hole = 0;
  for (size_t at = count; at >= BATCH && hole < LONGEST_HOLE; at -= BATCH) {
    volatile uint64_t *words = below + at - BATCH;
    uint64_t used = words[0] | words[1] | words[2] | words[3] | words[4] | words[5] | words[6] | words[7];
    if (used == 0) {
      hole += BATCH;
      continue;
    }
    hole = 0;
    for (size_t i = 0; i < BATCH; i++) {
      words[i] = 0;
    }
  }
}
