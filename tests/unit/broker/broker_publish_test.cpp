#include "broker_fixture.h"

namespace {

using texts = std::vector<std::string>;

plugin_inst_t first_plugin = make_plugin(1);
plugin_inst_t second_plugin = make_plugin(2);
plugin_inst_t third_plugin = make_plugin(3);

class broker_publish : public broker_fixture {
protected:
  static void subscribe(plugin_inst_t *plugin, const char *path, int pri)
  {
    ASSERT_EQ(0, broker_reg_config_subscriber(plugin, path, pri, {}));
  }
  // Three changed entries of a list, one of them with a changed leaf only.
  static differ_node_t *three_entries()
  {
    return node("/m:c", DBDIFF_CHAIN,
                {node("/m:c/l[k=\"1\"]", DBDIFF_ADD),
                 node("/m:c/l[k=\"2\"]", DBDIFF_CHAIN, {node("/m:c/l[k=\"2\"]/v", DBDIFF_MOD)}),
                 node("/m:c/l[k=\"3\"]", DBDIFF_REM)});
  }
};

} // namespace

TEST_F(broker_publish, offers_by_priority_then_registration_and_takes_back_in_reverse_order)
{
  subscribe(&third_plugin, "/m:c/l", 20);
  subscribe(&first_plugin, "m:c/l[]/", 10);
  subscribe(&third_plugin, "/m:c", 5);
  subscribe(&second_plugin, "/m:c", 10);
  broker_unreg_config_subscriber(&second_plugin, "m:c/", 10); // the first of that path, whoever asks
  on_offer = [](const offered_t &offer) {
    bool is_refused = offer.path == "/m:c/l[k=\"2\"]" || (offer.oper_type & DBDIFF_ROLLBACK) != 0;
    return offer.plugin_id == 3 && is_refused ? SUBPUB_ERROR : SUBPUB_CONTINUE;
  };
  publish(ERROR_OPTION_ROLLBACK, three_entries());
  EXPECT_EQ((texts{"1:/m:c/l[k=\"1\"]", "1:/m:c/l[k=\"2\"]", "1:/m:c/l[k=\"3\"]", "2:/m:c", "3:/m:c/l[k=\"1\"]",
                   "3:/m:c/l[k=\"2\"]", "~3:/m:c/l[k=\"1\"]", "~2:/m:c", "~1:/m:c/l[k=\"3\"]", "~1:/m:c/l[k=\"2\"]",
                   "~1:/m:c/l[k=\"1\"]"}),
            offers());
  EXPECT_EQ(1, offered[1].more_flag);
  EXPECT_EQ(0, offered[2].more_flag);
  EXPECT_EQ(10, offered[2].priority);
  EXPECT_EQ(DBDIFF_REM, offered[2].oper_type);
  EXPECT_EQ(DBDIFF_REM | DBDIFF_ROLLBACK, offered[8].oper_type);
  EXPECT_EQ(1, ended);
  EXPECT_EQ(1, was_rollback);
  ASSERT_NE(nullptr, errors); // although the subscriber gave none
  EXPECT_STREQ("Error on node /m:c/l[k=\"2\"] (plugin p3)", errors->info);
}

TEST_F(broker_publish, paths_match_whole_names_and_reach_below_entries_and_to_the_root)
{
  subscribe(&first_plugin, "/m:c/l/v", 1);
  subscribe(&second_plugin, "/m:cc", 2);
  subscribe(&third_plugin, "/", 3);
  publish(ERROR_OPTION_STOP,
          list({node("/m:c", DBDIFF_CHAIN,
                     {node("/m:c/l[k=\"a/1\"]", DBDIFF_CHAIN, {node("/m:c/l[k=\"a/1\"]/v", DBDIFF_MOD)}),
                      node("/m:c/l[k=\"2\"]", DBDIFF_CHAIN, {node("/m:c/l[k=\"2\"]/vv", DBDIFF_MOD)}),
                      node("/m:c/l[k=\"3\"]", DBDIFF_CHAIN, {node("/m:c/l[k=\"3\"]/v", DBDIFF_MOD)})}),
                node("/m:ccc", DBDIFF_ADD)}));
  EXPECT_EQ((texts{"1:/m:c/l[k=\"a/1\"]/v", "1:/m:c/l[k=\"3\"]/v", "3:/m:c", "3:/m:ccc"}), offers());
}

TEST_F(broker_publish, entries_of_nested_lists_are_offered_across_their_parents)
{
  subscribe(&first_plugin, "/m:o/i", 1);
  on_offer = [](const offered_t &offer) {
    return offered.size() == 3 && offer.oper_type == DBDIFF_ADD ? SUBPUB_ERROR : SUBPUB_CONTINUE;
  };
  publish(ERROR_OPTION_ROLLBACK,
          list({node("/m:o[k=\"a\"]", DBDIFF_CHAIN,
                     {node("/m:o[k=\"a\"]/i[k=\"1\"]", DBDIFF_ADD), node("/m:o[k=\"a\"]/i[k=\"2\"]", DBDIFF_ADD)}),
                node("/m:o[k=\"b\"]", DBDIFF_CHAIN, {node("/m:o[k=\"b\"]/x", DBDIFF_ADD)}),
                node("/m:o[k=\"c\"]", DBDIFF_CHAIN, {node("/m:o[k=\"c\"]/i[k=\"1\"]", DBDIFF_ADD)})}));
  EXPECT_EQ((texts{"1:/m:o[k=\"a\"]/i[k=\"1\"]", "1:/m:o[k=\"a\"]/i[k=\"2\"]", "1:/m:o[k=\"c\"]/i[k=\"1\"]",
                   "~1:/m:o[k=\"a\"]/i[k=\"2\"]", "~1:/m:o[k=\"a\"]/i[k=\"1\"]"}),
            offers());
}

TEST_F(broker_publish, a_hundred_thousand_entries_of_which_one_matches_take_no_quadratic_walk)
{
  subscribe(&first_plugin, "/m:c/l/v", 1);
  std::vector<differ_node_t *> entries = {
      node("/m:c/l[k=\"0\"]", DBDIFF_CHAIN, {node("/m:c/l[k=\"0\"]/v", DBDIFF_MOD)})};
  for (int i = 1; i < 100000; i++) {
    entries.push_back(node("/m:c/l[k=\"" + std::to_string(i) + "\"]", DBDIFF_CHAIN));
  }
  on_offer = [](const offered_t &) { return SUBPUB_ERROR; };
  publish(ERROR_OPTION_ROLLBACK, node("/m:c", DBDIFF_CHAIN, entries));
  EXPECT_EQ(1U, offered.size());
  EXPECT_EQ(1, ended);
}

TEST_F(broker_publish, waits_for_replies_in_both_directions_and_admits_no_second_publication)
{
  subscribe(&first_plugin, "/m:c/l", 1);
  on_offer = [](const offered_t &) { return SUBPUB_WAIT; };
  publish(ERROR_OPTION_ROLLBACK, three_entries());
  EXPECT_EQ(1U, offered.size());
  EXPECT_EQ(-1, broker_is_publish_over());
  EXPECT_EQ(-1, broker_publish_config(8, ERROR_OPTION_STOP, nullptr));
  EXPECT_EQ(1, broker_check_busy("/ietf-netconf:commit"));
  EXPECT_EQ(0, broker_check_busy("/ietf-netconf:close-session"));
  EXPECT_EQ(0, broker_check_busy(nullptr));

  broker_publish_continue(1);
  EXPECT_EQ("/m:c/l[k=\"2\"]", offered.back().path);
  EXPECT_EQ(0, broker_save_error(1, "refused"));
  broker_publish_continue(1);
  EXPECT_EQ("~1:/m:c/l[k=\"1\"]", offers().back());
  EXPECT_EQ(0, ended);
  broker_publish_continue(1);
  EXPECT_EQ(1, ended);
  EXPECT_EQ(1, was_rollback);
  EXPECT_STREQ("refused", errors->message);
  EXPECT_EQ(0, broker_check_busy("/ietf-netconf:commit"));
  EXPECT_EQ(-1, broker_save_error(1, "too late"));
}

TEST_F(broker_publish, subscriber_that_never_answers_stops_the_publication_after_sixty_ticks)
{
  subscribe(&first_plugin, "/m:c/l", 1);
  on_offer = [](const offered_t &) { return SUBPUB_WAIT; };
  publish(ERROR_OPTION_STOP, three_entries());
  for (int tick = 0; tick < 60; tick++) {
    broker_timeout();
  }
  EXPECT_EQ(0, ended);
  broker_timeout();
  EXPECT_EQ(1, ended);
  EXPECT_EQ(1U, offered.size());
  EXPECT_EQ(std::vector<int>{1}, given_up);
  EXPECT_EQ(0, was_rollback);
  EXPECT_STREQ("Publish configuration timeout", errors->message);
  EXPECT_STREQ("-1", errors->app_tag);
}

TEST_F(broker_publish, subscriber_that_goes_while_it_is_waited_for_is_passed_over)
{
  for (plugin_inst_t *leaving : {&first_plugin, &second_plugin, &third_plugin}) {
    offered.clear();
    subscribe(&first_plugin, "/m:c/l", 1);
    subscribe(&second_plugin, "/m:c/l", 2);
    subscribe(&third_plugin, "/m:c", 3);
    on_offer = [leaving](const offered_t &offer) {
      return offer.plugin_id == leaving->plugin_id ? SUBPUB_WAIT : SUBPUB_CONTINUE;
    };
    publish(ERROR_OPTION_ROLLBACK, three_entries());
    broker_cancel_plugin_subpub(leaving);
    on_offer = [](const offered_t &) { return SUBPUB_CONTINUE; };
    broker_publish_continue(leaving->plugin_id);
    EXPECT_EQ(leaving->plugin_id, ended);
    EXPECT_EQ(nullptr, errors);
    // Everybody else got all, the one that left its first node only.
    EXPECT_EQ(leaving->plugin_id == 3 ? 7U : 5U, offered.size());
    for (plugin_inst_t *plugin : {&first_plugin, &second_plugin, &third_plugin}) {
      broker_cancel_plugin_subpub(plugin);
    }
  }
}

TEST_F(broker_publish, rollback_after_a_subscriber_has_gone_takes_back_from_those_before_it_only)
{
  subscribe(&first_plugin, "/m:c", 1);
  subscribe(&second_plugin, "/m:c/l", 2);
  subscribe(&third_plugin, "/m:c", 3);
  on_offer = [](const offered_t &offer) {
    return offer.plugin_id == 2 || (offer.oper_type & DBDIFF_ROLLBACK) != 0 ? SUBPUB_WAIT : SUBPUB_CONTINUE;
  };
  publish(ERROR_OPTION_ROLLBACK, three_entries());
  broker_cancel_plugin_subpub(&second_plugin);
  EXPECT_EQ(0, broker_save_error(-1, "plugin has gone"));
  broker_publish_continue(2);
  EXPECT_EQ(0, broker_save_error(9, "cannot be taken back"));
  broker_publish_continue(1);
  EXPECT_EQ(1, ended);
  EXPECT_STREQ("Error on node /m:c (plugin p1)", errors->next->info);
  EXPECT_EQ((texts{"1:/m:c", "2:/m:c/l[k=\"1\"]", "~1:/m:c"}), offers());
  EXPECT_STREQ("/m:c/l[k='1']", errors->path);
  EXPECT_STREQ("Error on node /m:c/l[k=\"1\"] (plugin p2)", errors->info);
}

TEST_F(broker_publish, errors_of_a_publication_that_goes_on_name_their_own_nodes_and_plugins)
{
  subscribe(&first_plugin, "/m:c/l", 1);
  subscribe(nullptr, "/m:c", 2);
  on_offer = [](const offered_t &offer) {
    if (offer.plugin_id == 1) {
      broker_save_error(static_cast<int>(offered.size()), "refused");
    }
    return SUBPUB_ERROR;
  };
  publish(ERROR_OPTION_CONTINUE,
          node("/m:c", DBDIFF_CHAIN,
               {node("/m:c/l[a=\"x,'\",b=\"\\\"\"]", DBDIFF_ADD), node("/m:c/l[a=\"'\\\"\",b=\"\"]", DBDIFF_ADD)}));
  texts places;
  for (const reply_error_t *error = errors.get(); error != nullptr; error = error->next) {
    places.push_back(std::string(error->app_tag) + " " + error->path + " " + error->info);
  }
  EXPECT_EQ((texts{"-1 /m:c Error on node /m:c",
                   "2 /m:c/l[a=concat('', \"'\", '\"')][b=''] Error on node /m:c/l[a=\"'\\\"\",b=\"\"] (plugin p1)",
                   "1 /m:c/l[a=\"x,'\"][b='\"'] Error on node /m:c/l[a=\"x,'\",b=\"\\\"\"] (plugin p1)"}),
            places);
}
