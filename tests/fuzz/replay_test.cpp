// The kept inputs, each with what once was or could be a fault.
#include <algorithm>
#include <cstdint>
#include <filesystem>

#include <gtest/gtest.h>

#include "support/environment.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

TEST(plugin_fuzz, each_kept_input_leaves_a_daemon_that_serves)
{
  std::vector<std::filesystem::path> files;
  std::copy(std::filesystem::directory_iterator(CORPUS), {}, std::back_inserter(files));
  ASSERT_FALSE(files.empty());
  for (const auto &file : files) {
    SCOPED_TRACE(file);
    const std::string input = support::read_file(file);
    EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size()), 0);
  }
}
