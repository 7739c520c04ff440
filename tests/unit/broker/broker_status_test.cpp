#include "broker_fixture.h"

namespace {

using texts = std::vector<std::string>;

plugin_inst_t state_plugin = make_plugin(4);

class broker_status : public broker_fixture {
protected:
  void SetUp() override
  {
    broker_fixture::SetUp();
    for (const char *path : {"/m:s/b", "/m:t", "/m:s", "/m:s/a[]/x", "/m:r"}) {
      ASSERT_EQ(0, broker_reg_status_publisher(&state_plugin, path, {}));
    }
  }
};

} // namespace

TEST_F(broker_status, asks_every_publisher_whose_path_begins_with_the_path_in_order)
{
  EXPECT_EQ(0, broker_subscribe_status(7, "/m:s"));
  EXPECT_EQ((texts{"/m:s", "/m:s/a/x", "/m:s/b"}), asked);
  EXPECT_EQ(1, status_ended);
  asked.clear();
  EXPECT_EQ(0, broker_subscribe_status(7, "/m:s/a/x/y"));
  EXPECT_TRUE(asked.empty());
  EXPECT_EQ(2, status_ended);
  EXPECT_EQ(0, broker_subscribe_status(7, "/"));
  EXPECT_EQ(5U, asked.size());
}

TEST_F(broker_status, waits_for_replies_and_skips_a_publisher_that_never_answers)
{
  on_status = [](const std::string &path) { return path == "/m:s/b" ? SUBPUB_ERROR : SUBPUB_WAIT; };
  EXPECT_EQ(0, broker_subscribe_status(7, "/m:s"));
  EXPECT_EQ(-1, broker_subscribe_status(8, "/m:t"));
  EXPECT_EQ(1, broker_check_busy("/ietf-netconf:get"));
  broker_subscribe_continue(3); // not the one that is waited for
  EXPECT_EQ((texts{"/m:s"}), asked);
  broker_subscribe_continue(4);
  EXPECT_EQ((texts{"/m:s", "/m:s/a/x"}), asked);
  for (int tick = 0; tick < 15; tick++) {
    broker_timeout();
  }
  EXPECT_EQ(0, status_ended);
  broker_timeout();
  EXPECT_EQ((texts{"/m:s", "/m:s/a/x", "/m:s/b"}), asked);
  EXPECT_EQ(std::vector<int>{4}, given_up);
  EXPECT_EQ(1, status_ended);
}
