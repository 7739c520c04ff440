// Memory that may have held secrets. Libraries copy what they parse; so while secrets are configured every block of the
// heap is cleared when it is freed, whoever allocated it, and the stack after each pass of the event loop.
#pragma once

#include <features.h>

// A sanitizer brings its own allocator; other C libraries have no name by which to reach theirs.
#if defined(__has_feature)
#define YMGR_HAS_FEATURE(name) __has_feature(name)
#else
#define YMGR_HAS_FEATURE(name) 0
#endif
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) &&                           \
    !YMGR_HAS_FEATURE(address_sanitizer) && !YMGR_HAS_FEATURE(thread_sanitizer) && !YMGR_HAS_FEATURE(memory_sanitizer)
constexpr bool WIPING_HEAP_IS_POSSIBLE = true;
#define YMGR_WIPING_HEAP
#else
constexpr bool WIPING_HEAP_IS_POSSIBLE = false;
#endif

// From now on freed memory is cleared. No effect where that is not possible, and in a program that was linked without
// wiping_free.cpp: wiping_heap_is_enabled() then stays false.
void wiping_heap_enable();
bool wiping_heap_is_enabled();
// Clears what earlier, deeper calls left on the stack below the caller's frame, once wiping is enabled.
void wipe_stack();

// Between wiping_heap.cpp and wiping_free.cpp: how freed memory is made to be cleared.
typedef void (*wiping_heap_switch_fn)();
void wiping_heap_offer(wiping_heap_switch_fn turn_on);
