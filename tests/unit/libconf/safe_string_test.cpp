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

TEST(safe_string, only_memmove_takes_overlapping_areas)
{
  char text[] = "abcdef";
  EXPECT_EQ(memmove_s(text + 1, 5, text, 5), 0);
  EXPECT_STREQ(text, "aabcde");
  EXPECT_NE(memcpy_s(text + 1, 5, text, 5), 0);
}

TEST(safe_string, formatting_reports_a_text_that_does_not_fit)
{
  char dest[8];
  EXPECT_EQ(snprintf_s(dest, sizeof(dest), "%d", 1234567), 7);
  EXPECT_STREQ(dest, "1234567");
  EXPECT_LT(snprintf_s(dest, sizeof(dest), "%d", 12345678), 0);
  EXPECT_STREQ(dest, "");
  EXPECT_LT(sprintf_s(dest, 0, "x"), 0);
}

TEST(conf_itoa, writes_extreme_values_or_nothing)
{
  char text[32];
  EXPECT_EQ(conf_itoa(LONG_MIN, text, sizeof(text)), 20);
  EXPECT_STREQ(text, "-9223372036854775808");
  EXPECT_EQ(conf_itoa(99, text, 3), 2);
  EXPECT_EQ(conf_itoa(100, text, 3), -1);
  EXPECT_STREQ(text, "");
}

} // namespace
