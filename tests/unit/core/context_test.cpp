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

TEST_F(context, deleting_an_entry_shifts_no_other_and_its_slot_is_used_again)
{
  ASSERT_EQ(context_create_list("LIST-session", 8), 0);
  for (int i = 0; i < 5; i++) {
    ASSERT_EQ(context_save_list_entry("LIST-session", &values[i]), i);
  }
  context_del_list_entry("LIST-session", 2);
  for (int i : {0, 1, 3, 4}) {
    EXPECT_EQ(context_get_list_entry("LIST-session", i), &values[i]);
  }
  EXPECT_EQ(context_get_list_entry("LIST-session", 2), nullptr);
  EXPECT_EQ(context_list_size("LIST-session"), 5);
  EXPECT_EQ(context_save_list_entry("LIST-session", &values[5]), 2);
}

TEST_F(context, list_that_outgrows_its_first_size_stays_reachable)
{
  ASSERT_EQ(context_create_list("LIST-session", 8), 0);
  for (int i = 0; i < 16; i++) {
    ASSERT_EQ(context_save_list_entry("LIST-session", &values[i]), i);
  }
  EXPECT_EQ(context_get_list_entry("LIST-session", 0), &values[0]);
  EXPECT_EQ(context_get_list_entry("LIST-session", 15), &values[15]);
  EXPECT_EQ(context_get_list_entry("LIST-session", 16), nullptr);
  EXPECT_EQ(context_get_list_entry("LIST-session", -1), nullptr);
}

TEST_F(context, second_creation_fails_and_leaves_the_first_list_untouched)
{
  ASSERT_EQ(context_create_list("LIST-session", 8), 0);
  ASSERT_EQ(context_save_list_entry("LIST-session", &values[0]), 0);
  EXPECT_EQ(logged_by([] { EXPECT_EQ(context_create_list("LIST-session", 8), -1); }),
            "[ERROR] List <LIST-session> has exist.\n");
  EXPECT_EQ(context_get_list_entry("LIST-session", 0), &values[0]);
}

TEST_F(context, missing_list_is_logged_and_gives_neutral_values)
{
  std::string line = "[ERROR] List <LIST-none> does not exist.\n";
  EXPECT_EQ(logged_by([] { EXPECT_EQ(context_save_list_entry("LIST-none", &values[0]), -1); }), line);
  EXPECT_EQ(logged_by([] { EXPECT_EQ(context_get_list_entry("LIST-none", 0), nullptr); }), line);
  EXPECT_EQ(logged_by([] { EXPECT_EQ(context_list_size("LIST-none"), 0); }), line);
  EXPECT_EQ(logged_by([] { context_del_list_entry("LIST-none", 0); }), line);
  EXPECT_EQ(logged_by([] { context_destroy_list("LIST-none", nullptr); }), line);
}

TEST_F(context, destroyed_list_hands_over_each_entry_once_and_frees_its_name)
{
  static int freed;
  freed = 0;
  ASSERT_EQ(context_create_list("LIST-session", 2), 0);
  for (int i = 0; i < 4; i++) {
    ASSERT_EQ(context_save_list_entry("LIST-session", &values[i]), i);
  }
  context_del_list_entry("LIST-session", 1);
  context_destroy_list("LIST-session", [](void *entry) {
    EXPECT_NE(entry, nullptr);
    EXPECT_EQ(context_get_option("LIST-session"), nullptr);
    freed++;
  });
  EXPECT_EQ(freed, 3);
  EXPECT_EQ(context_create_list("LIST-session", 2), 0);
}

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
