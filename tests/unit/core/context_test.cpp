#include "ymgrd/core/context.h"

#include <gtest/gtest.h>

#include "ymgrd/ymgrd.h"

TEST(context, exit_functions_may_ask_it_when_it_never_started_or_has_ended)
{
  ASSERT_EQ(context_init(STAGE_RESOURCE), 0);
  ASSERT_EQ(context_create_list("LIST-left-behind", 8), 0);
  context_exit();
  EXPECT_EQ(context_get_option("OPT-agent-sock"), nullptr);
  EXPECT_EQ(context_get_int("OPT-agent-sock", -1), -1);
  EXPECT_EQ(context_save_int("OPT-agent-sock", 3), -1);
  context_remove_option("OPT-agent-sock");
  context_exit();
}
