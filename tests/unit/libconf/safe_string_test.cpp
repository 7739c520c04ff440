#include <climits>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "libconf/conf_misc.h"
#include "libconf/safe_string.h"

namespace {

TEST(safe_string, copies_that_do_not_fit_leave_nothing_behind)
{
  char dest[8] = "old";
  EXPECT_NE(strncpy_s(dest, sizeof(dest), "12345678", 8), 0);
  EXPECT_STREQ(dest, "");
  EXPECT_EQ(strncpy_s(dest, sizeof(dest), "12345678", 7), 0);
  EXPECT_STREQ(dest, "1234567");
  EXPECT_NE(memcpy_s(dest, sizeof(dest), "123456789", 9), 0);
  EXPECT_EQ(std::string(dest, sizeof(dest)), std::string(8, '\0'));
  EXPECT_NE(memset_s(dest, sizeof(dest), 1, 9), 0);
}

} // namespace
