// Memory that may have held secrets. Libraries copy what they parse; so while secrets are configured every block of the
// heap is cleared when it is freed, whoever allocated it.
#pragma once

// From now on freed memory is cleared. No effect under a sanitizer, which brings its own allocator.
void wiping_heap_enable();
bool wiping_heap_is_enabled();
// Clears what earlier, deeper calls left on the stack below the caller's frame.
void wipe_stack();
