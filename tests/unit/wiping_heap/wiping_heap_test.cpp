// The program has the daemon's free() and realloc().
#include "ymgrd/core/wiping_heap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

constexpr char MARK = '\x5a';

// Read through the kernel, as the memory may be nobody's. Single marks do not count: addresses may hold such a byte.
size_t marks_at(uintptr_t address, size_t size)
{
  constexpr size_t FEW = 4;
  std::vector<char> bytes(size);
  int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  ssize_t length = pread(memory, bytes.data(), size, static_cast<off_t>(address));
  close(memory);
  bytes.resize(length < 0 ? 0 : static_cast<size_t>(length));
  size_t count = 0;
  for (auto at = std::find(bytes.begin(), bytes.end(), MARK); at != bytes.end();) {
    auto end = std::find_if(at, bytes.end(), [](char c) { return c != MARK; });
    size_t run = static_cast<size_t>(end - at);
    count += run < FEW ? 0 : run;
    at = std::find(end, bytes.end(), MARK);
  }
  return count;
}

class wiping_heap : public testing::Test {
protected:
  void SetUp() override
  {
    if (!WIPING_HEAP_IS_POSSIBLE) {
      GTEST_SKIP() << "a sanitizer has its own allocator";
    }
    wiping_heap_enable();
    ASSERT_TRUE(wiping_heap_is_enabled());
  }
};

// What a block holds moves with it, and stays nowhere else.
TEST_F(wiping_heap, nothing_is_left_of_what_is_resized_or_freed)
{
  size_t size = 10;
  auto *block = static_cast<char *>(std::aligned_alloc(64, size));
  std::memset(block, MARK, size);
  for (size_t next : {30, 24, 5000, 4100, 4000, 100'000, 60'000, 70, 300'000, 900'000, 100, 5'000'000, 8, 0}) {
    auto before = reinterpret_cast<uintptr_t>(block);
    block = static_cast<char *>(std::realloc(block, next));
    auto address = reinterpret_cast<uintptr_t>(block);
    size_t kept = std::min(size, next);
    EXPECT_EQ(marks_at(address, next), kept) << next;
    EXPECT_EQ(marks_at(before, size), before == address ? kept : 0) << size << " to " << next;

    auto *other = new char[next];
    auto freed = reinterpret_cast<uintptr_t>(other);
    std::memset(other, MARK, next);
    EXPECT_EQ(marks_at(freed, next), next);
    delete[] other;
    EXPECT_EQ(marks_at(freed, next), 0U) << next;
    if (block != nullptr) {
      std::memset(block, MARK, next);
    }
    size = next;
  }
}

// With holes, as buffers leave them that were not filled. The lowest address that was used.
__attribute__((noinline)) uintptr_t use_stack(int depth)
{
  volatile char buffer[4096];
  std::memset(const_cast<char *>(buffer), MARK, sizeof(buffer) / 4);
  uintptr_t lowest = depth == 0 ? reinterpret_cast<uintptr_t>(buffer) : use_stack(depth - 1);
  return buffer[0] == MARK ? lowest : 0;
}

TEST_F(wiping_heap, nothing_is_left_on_the_stack)
{
  for (int depth : {0, 3, 400}) { // the last uses more than a megabyte
    uintptr_t lowest = use_stack(depth);
    size_t reach = reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) - lowest;
    EXPECT_GE(marks_at(lowest, reach), 512U * static_cast<size_t>(depth + 1)); // looking writes over some
    (void)use_stack(depth);
    wipe_stack();
    EXPECT_EQ(marks_at(lowest, reach), 0U) << depth;
  }
}

} // namespace
