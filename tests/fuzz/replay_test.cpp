// The kept inputs, each with what once was or could be a fault.
#include <filesystem>

#include <gtest/gtest.h>

#include "support/environment.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

TEST(plugin_fuzz, each_kept_input_leaves_a_daemon_that_serves)
{
  for (const auto &file : std::filesystem::directory_iterator(CORPUS)) {
    SCOPED_TRACE(file.path());
    const std::string input = support::read_file(file.path());
    EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size()), 0);
  }
}
