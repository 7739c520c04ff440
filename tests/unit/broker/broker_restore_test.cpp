#include "broker_fixture.h"

#include "ymgr/plugin.h"
#include "ymgrd/core/context.h"

namespace {

using texts = std::vector<std::string>;
using ids = std::vector<int>;

struct restore_kind {
  int oper_bit;
  bool plugin_inst_t::*bit;
  int (*request)(plugin_inst_t *);
};
const restore_kind both_kinds[] = {
    {CONFIG_OP_CFGR, &plugin_inst_t::bit_cfgr, broker_plugin_cfgr},
    {CONFIG_OP_SMOOTH, &plugin_inst_t::bit_smooth, broker_plugin_smooth_start},
};

class broker_restore : public broker_fixture, public testing::WithParamInterface<restore_kind> {
protected:
  void SetUp() override
  {
    broker_fixture::SetUp();
    cfgr_tree = smooth_tree =
        keep(list({node("/m:c", DBDIFF_ADD, {node("/m:c/l[k=\"1\"]", DBDIFF_ADD), node("/m:c/l[k=\"2\"]", DBDIFF_ADD)}),
                   node("/m:d", DBDIFF_ADD)}));
    for (plugin_inst_t &plugin : plugins) {
      ASSERT_EQ(0, broker_reg_config_subscriber(&plugin, "/m:c/l", 20, {}));
      ASSERT_EQ(0, broker_reg_config_subscriber(&plugin, "/m:d", 10, {}));
    }
  }
  void request(plugin_inst_t *plugin) const
  {
    plugin->*GetParam().bit = true;
    ASSERT_EQ(0, GetParam().request(plugin));
  }
  void request_all()
  {
    for (plugin_inst_t &plugin : plugins) {
      request(&plugin);
    }
    broker_run_pending();
  }

  plugin_inst_t plugins[3] = {make_plugin(1), make_plugin(2), make_plugin(3)};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(both_kinds, broker_restore, testing::ValuesIn(both_kinds));

TEST_P(broker_restore, offers_all_to_one_plugin_after_the_other_and_stops_for_no_failure)
{
  plugin_inst_t without_subscribers = make_plugin(4);
  request(&without_subscribers);
  EXPECT_EQ(ids{4}, kicked_off);
  on_offer = [](const offered_t &offer) {
    return offer.plugin_id == 2 ? SUBPUB_WAIT : offer.path == "/m:d" ? SUBPUB_ERROR : SUBPUB_CONTINUE;
  };
  request_all();
  EXPECT_EQ((texts{"1:/m:d", "1:/m:c/l[k=\"1\"]", "1:/m:c/l[k=\"2\"]", "2:/m:d"}), offers());
  EXPECT_EQ(DBDIFF_ADD | GetParam().oper_bit, offered[1].oper_type);
  EXPECT_EQ((ids{4, 1}), kicked_off);
  EXPECT_FALSE(plugins[0].*GetParam().bit);
  EXPECT_EQ(1, broker_check_busy("/ietf-netconf:commit"));
  EXPECT_EQ(-1, broker_publish_config(7, ERROR_OPTION_STOP, cfgr_tree));

  EXPECT_EQ(0, GetParam().request(&plugins[2])); // asks again, but is not the one that is waited for
  EXPECT_EQ(4U, offered.size());
  EXPECT_EQ(0, broker_save_error(5, "refused"));
  for (int reply = 0; reply < 3; reply++) {
    EXPECT_EQ(0, GetParam().request(&plugins[1]));
  }
  EXPECT_EQ((ids{4, 1, 2, 3}), kicked_off);
  EXPECT_EQ(9U, offered.size());
  EXPECT_EQ(0, broker_is_publish_over());
  EXPECT_EQ(0, ended);
}

TEST_P(broker_restore, goes_on_when_the_plugin_that_is_at_it_goes_and_ends_with_the_last_one)
{
  on_offer = [this](const offered_t &offer) {
    if (offer.plugin_id == 2) { // goes while the delivery is on the stack
      broker_cancel_plugin_subpub(&plugins[1]);
      return SUBPUB_ERROR;
    }
    return SUBPUB_WAIT;
  };
  request_all();
  broker_cancel_plugin_subpub(&plugins[0]);
  broker_run_pending();
  EXPECT_EQ((texts{"1:/m:d", "2:/m:d", "3:/m:d"}), offers());
  broker_cancel_plugin_subpub(&plugins[2]);
  broker_run_pending();
  EXPECT_EQ(0, broker_is_publish_over());
  EXPECT_TRUE(kicked_off.empty());
}

TEST_P(broker_restore, gives_an_overdue_plugin_up_and_serves_it_anew_when_it_asks)
{
  on_offer = [](const offered_t &offer) { return offer.plugin_id == 1 ? SUBPUB_WAIT : SUBPUB_CONTINUE; };
  request_all();
  for (int tick = 0; tick < 60; tick++) {
    broker_timeout();
  }
  EXPECT_TRUE(given_up.empty());
  plugins[0].bit_overdue = true; // what the plugins' side notes when it is told
  broker_timeout();
  EXPECT_EQ(ids{1}, given_up);
  EXPECT_EQ((ids{2, 3}), kicked_off);
  EXPECT_EQ(7U, offered.size());
  EXPECT_TRUE(plugins[0].*GetParam().bit);

  plugins[0].bit_overdue = false;
  on_offer = [](const offered_t &) { return SUBPUB_CONTINUE; };
  request(&plugins[0]);
  broker_run_pending();
  EXPECT_EQ((ids{2, 3, 1}), kicked_off);
}

TEST_P(broker_restore, waits_for_a_publication_to_end_and_retries_an_unread_tree_each_second)
{
  on_offer = [](const offered_t &) { return SUBPUB_WAIT; };
  publish(ERROR_OPTION_STOP, node("/m:d", DBDIFF_ADD));
  request(&plugins[1]);
  broker_run_pending();
  broker_timeout();
  EXPECT_EQ(1U, offered.size());
  on_offer = [](const offered_t &) { return SUBPUB_CONTINUE; };
  broker_publish_continue(1);
  EXPECT_EQ(1, ended);
  EXPECT_TRUE(kicked_off.empty());
  differ_node_t *tree = std::exchange(cfgr_tree, nullptr);
  broker_run_pending();
  cfgr_tree = tree;
  broker_run_pending();
  EXPECT_EQ(GetParam().oper_bit == CONFIG_OP_CFGR, kicked_off.empty());
  broker_timeout();
  EXPECT_EQ(ids{2}, kicked_off);
}

TEST_F(broker_fixture, smooth_start_without_changes_kicks_off_and_is_ended_when_no_client_does)
{
  plugin_inst_t plugin = make_plugin(1);
  ASSERT_EQ(0, broker_reg_config_subscriber(&plugin, "/m:d", 10, {}));
  ASSERT_EQ(0, context_save_int("OPT-smooth-start", 1));
  EXPECT_EQ(0, broker_plugin_smooth_start(&plugin));
  broker_run_pending();
  EXPECT_EQ(ids{1}, kicked_off);
  EXPECT_TRUE(offered.empty());
  for (int tick = 0; tick < 60; tick++) {
    broker_timeout();
  }
  EXPECT_EQ(0, smooth_starts_ended);
  broker_timeout();
  EXPECT_EQ(1, smooth_starts_ended);
}
