// The program has the daemon's free() and realloc().
#include "ymgrd/core/wiping_heap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

constexpr char MARK = '\x5a';

// Read through the kernel, as the memory may be nobody's.
size_t count_marks(uintptr_t address, size_t size)
{
  std::vector<char> bytes(size);
  int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  ssize_t length = pread(memory, bytes.data(), size, static_cast<off_t>(address));
  close(memory);
  return length < 0 ? 0 : static_cast<size_t>(std::count(bytes.begin(), bytes.begin() + length, MARK));
}

uintptr_t address_of(const void *block)
{
  return reinterpret_cast<uintptr_t>(block);
}

class wiping_heap : public testing::Test {
protected:
  void SetUp() override
  {
    wiping_heap_enable();
    if (!wiping_heap_is_enabled()) {
      GTEST_SKIP() << "a sanitizer has its own allocator";
    }
  }
};

TEST_F(wiping_heap, NothingIsLeftOfWhatIsFreed)
{
  for (size_t size : {1UL, 24UL, 1000UL, 100'000UL, 1'000'000UL}) {
    char *block = static_cast<char *>(std::malloc(size));
    std::memset(block, MARK, size);
    uintptr_t address = address_of(block);
    EXPECT_EQ(count_marks(address, size), size);
    std::free(block);
    EXPECT_EQ(count_marks(address, size), 0U) << size;

    auto text = std::make_unique<std::string>(size + 100, MARK);
    address = address_of(text->data());
    text.reset();
    EXPECT_EQ(count_marks(address, size), 0U) << size;
  }
}

// What a block holds moves with it, and stays nowhere else.
TEST_F(wiping_heap, NothingIsLeftOfWhatIsResized)
{
  constexpr size_t SIZES[] = {10, 30, 24, 5000, 4100, 4000, 100'000, 60'000, 70, 300'000, 900'000, 100, 5'000'000, 8};
  size_t size = 10;
  char *block = static_cast<char *>(std::malloc(size));
  std::memset(block, MARK, size);
  for (size_t next : SIZES) {
    uintptr_t before = address_of(block);
    char *resized = static_cast<char *>(std::realloc(block, next));
    ASSERT_NE(resized, nullptr);
    size_t kept = std::min(size, next);
    EXPECT_EQ(count_marks(address_of(resized), next), kept) << next;
    EXPECT_EQ(count_marks(before, size), before == address_of(resized) ? kept : 0) << size << " to " << next;
    std::memset(resized, MARK, next);
    block = resized;
    size = next;
  }
  EXPECT_EQ(std::realloc(block, 0), nullptr);
  void *aligned = std::aligned_alloc(4096, 8192);
  std::memset(aligned, MARK, 8192);
  uintptr_t address = address_of(aligned);
  std::free(aligned);
  EXPECT_EQ(count_marks(address, 8192), 0U);
}

// With holes, as buffers leave them that were not filled. The lowest address that was used.
__attribute__((noinline)) uintptr_t use_stack(int depth)
{
  volatile char buffer[4096];
  std::memset(const_cast<char *>(buffer), MARK, sizeof(buffer) / 4);
  uintptr_t lowest = depth == 0 ? reinterpret_cast<uintptr_t>(buffer) : use_stack(depth - 1);
  return buffer[0] == MARK ? lowest : 0;
}

TEST_F(wiping_heap, NothingIsLeftOnTheStack)
{
  for (int depth : {0, 3, 400}) { // the last uses more than a megabyte
    uintptr_t lowest = use_stack(depth);
    size_t reach = reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) - lowest;
    EXPECT_GE(count_marks(lowest, reach), 1024U * static_cast<size_t>(depth + 1));
    (void)use_stack(depth);
    wipe_stack();
    EXPECT_EQ(count_marks(lowest, reach), 0U) << depth;
  }
}

} // namespace
