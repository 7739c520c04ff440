// free() and realloc() of the executable, which all libraries in the process then use too (glibc manual, "Replacing
// malloc"); operator delete ends in free(). Blocks come from glibc's malloc as ever. Linked into the daemon only, so
// that other programs keep the allocator that they have.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <malloc.h>

#include "libconf/safe_string.h"
#include "ymgrd/core/wiping_heap.h"

#ifdef YMGR_WIPING_HEAP

extern "C" {
void __libc_free(void *block);                  // NOLINT: glibc's names
void *__libc_realloc(void *block, size_t size); // NOLINT
}

namespace {

std::atomic<bool> is_wiping = false; // plugins inside the daemon may have threads

// A block of its own mapping: it goes back to the system, which clears pages before others get them, and grows by
// moving its pages. glibc notes that in the word before the block, as malloc_usable_size() reads it too.
bool is_mapped(const void *block)
{
  constexpr size_t IS_MMAPPED = 2;
  return (static_cast<const size_t *>(block)[-1] & IS_MMAPPED) != 0;
}

void wipe(void *block, size_t from, size_t to)
{
  (void)memset_s(static_cast<char *>(block) + from, to - from, 0, to - from);
}

// What a block may have lost by shrinking, while it stays where it is. Not all of a long tail: clearing that at each
// step of a block that grows and shrinks would cost too much; it is cleared with the block.
void wipe_tail(void *block, size_t from, size_t usable)
{
  constexpr size_t LONGEST_TAIL = 64U << 10;
  if (from < usable) {
    wipe(block, from, std::min(usable, from + LONGEST_TAIL));
  }
}

// glibc would give a moved block's memory back as it is. Large blocks get room to grow: they often grow in small steps,
// each of which copies.
void *resize(void *block, size_t size, size_t usable)
{
  constexpr size_t LARGE = 4096;
  if (size <= usable && size >= usable / 2) {
    wipe_tail(block, size, usable);
    return block;
  }
  bool grows_on = size > usable && usable >= LARGE && size < PTRDIFF_MAX / 2;
  void *moved = std::malloc(grows_on ? size + size / 4 : size);
  if (moved == nullptr) {
    return nullptr;
  }
  std::memcpy(moved, block, std::min(size, usable));
  wipe(block, 0, usable);
  __libc_free(block);
  return moved;
}

[[gnu::constructor]] void offer()
{
  wiping_heap_offer([] { is_wiping.store(true, std::memory_order_relaxed); });
}

} // namespace

extern "C" {

void free(void *block) noexcept
{
  if (block != nullptr && is_wiping.load(std::memory_order_relaxed) && !is_mapped(block)) {
    wipe(block, 0, malloc_usable_size(block));
  }
  __libc_free(block);
}

void *realloc(void *block, size_t size) noexcept
{
  if (block == nullptr || !is_wiping.load(std::memory_order_relaxed)) {
    return __libc_realloc(block, size);
  }
  if (size == 0) { // frees, in glibc
    free(block);
    return nullptr;
  }
  size_t usable = malloc_usable_size(block);
  if (is_mapped(block)) {
    wipe_tail(block, size, usable); // of the last page that stays
    return __libc_realloc(block, size);
  }
  return resize(block, size, usable);
}
}

#endif
