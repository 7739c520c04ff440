#include "ymgrd/crypto/encrypt_key.h"

#include <gtest/gtest.h>

#include "unit/core/captured_log.h"
#include "ymgrd/core/context.h"
#include "ymgrd/ymgrd.h"

namespace {

class encrypt_key : public testing::Test {
protected:
  void SetUp() override
  {
    ASSERT_EQ(context_init(STAGE_RESOURCE), 0);
    ASSERT_EQ(context_create_list("LIST-sencitive", 16), 0);
  }
  void TearDown() override { context_exit(); }

  database_config config;
};

TEST_F(encrypt_key, needs_the_database_section)
{
  EXPECT_EQ(logged_by([] { EXPECT_EQ(ymgrd_encrypt_key(), -1); }), "[ERROR] encrypt key: get database_conf error\n");
}

TEST_F(encrypt_key, sensitive_leaves_without_a_key_are_refused)
{
  ASSERT_EQ(context_save_record("OPT-database", &config), 0);
  EXPECT_EQ(ymgrd_encrypt_key(), 0) << "nothing to protect";
  ASSERT_EQ(context_save_list_entry("LIST-sencitive", &config), 0);
  EXPECT_EQ(ymgrd_encrypt_key(), -1);
  config.working_key[15] = 1;
  EXPECT_EQ(ymgrd_encrypt_key(), 0);
  EXPECT_EQ(g_aes_key[15], 1);
}

} // namespace
