// Memory that may have held secrets. Libraries copy what they parse; so while secrets are configured every block of the
// heap is cleared when it is freed, whoever allocated it, and the stack after each pass of the event loop.
#pragma once

// From now on freed memory is cleared. No effect in a program that was linked without wiping_free.cpp, and under a
// sanitizer, which brings its own allocator: wiping_heap_is_enabled() then stays false.
void wiping_heap_enable();
bool wiping_heap_is_enabled();
// Clears what earlier, deeper calls left on the stack below the caller's frame, once wiping is enabled.
void wipe_stack();

// Between wiping_heap.cpp and wiping_free.cpp: how freed memory is made to be cleared.
typedef void (*wiping_heap_switch_fn)();
void wiping_heap_offer(wiping_heap_switch_fn turn_on);
