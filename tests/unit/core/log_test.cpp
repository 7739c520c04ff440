#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "unit/core/captured_log.h"

namespace {

TEST(log, long_lines_are_whole_and_errno_survives)
{
  std::string text(100000, 'x');
  errno = ENOENT;
  EXPECT_EQ(logged_by([&] {
              log_error("%s", text.c_str());
              EXPECT_EQ(errno, ENOENT);
            }),
            "[ERROR] " + text + "\n");
}

} // namespace
