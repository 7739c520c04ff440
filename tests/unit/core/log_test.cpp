#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "unit/core/captured_log.h"

namespace {

TEST(log, lines_above_the_level_are_dropped)
{
  std::string lines = logged_by([] {
    log_open(LOG_TO_STDERR, LOG_LEVEL_WARN);
    log_error("one");
    log_warn("two %d", 2);
    log_info("three");
    log_debug("four");
    log_operation("Operation information(five)\n");
  });
  EXPECT_EQ(lines, "[ERROR] one\n[WARN] two 2\n");
}

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
