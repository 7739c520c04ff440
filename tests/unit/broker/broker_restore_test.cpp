#include "broker_fixture.h"

#include "ymgr/plugin.h"
#include "ymgrd/core/context.h"

namespace {

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
