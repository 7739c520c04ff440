#include "ymgrd/core/context.h"

#include <gtest/gtest.h>

#include "unit/core/captured_log.h"
#include "ymgrd/ymgrd.h"

namespace {

int values[16];

class context : public testing::Test {
protected:
  void SetUp() override { ASSERT_EQ(context_init(STAGE_RESOURCE), 0); }
  void TearDown() override { context_exit(); }
};

TEST_F(context, option_saved_again_has_the_latest_bytes)
{
  ASSERT_EQ(context_save_int("OPT-modules-dir", 7), 0);
  ASSERT_EQ(context_save_option("OPT-modules-dir", "/a/longer/text", 15), 0);
  EXPECT_STREQ(static_cast<const char *>(context_get_option("OPT-modules-dir")), "/a/longer/text");
  EXPECT_EQ(context_get_int("OPT-modules-dir", -1), -1) << "a text is not taken for a number";
  ASSERT_EQ(context_save_int("OPT-modules-dir", 8), 0);
  EXPECT_EQ(context_get_int("OPT-modules-dir", -1), 8);
  context_remove_option("OPT-modules-dir");
  EXPECT_EQ(context_get_option("OPT-modules-dir"), nullptr);
}

TEST_F(context, exit_functions_may_ask_it_when_it_never_started_or_has_ended)
{
  ASSERT_EQ(context_create_list("LIST-left-behind", 8), 0);
  context_exit();
  EXPECT_EQ(context_get_option("OPT-agent-sock"), nullptr);
  EXPECT_EQ(context_get_int("OPT-agent-sock", -1), -1);
  EXPECT_EQ(context_save_int("OPT-agent-sock", 3), -1);
  context_remove_option("OPT-agent-sock");
  context_exit();
}

} // namespace
