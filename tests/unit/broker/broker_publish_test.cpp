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
};

} // namespace

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

TEST_F(broker_publish, subscriber_that_never_answers_stops_the_publication_after_sixty_ticks)
{
  subscribe(&first_plugin, "/m:c/l", 1);
  on_offer = [](const offered_t &) { return SUBPUB_WAIT; };
  publish(ERROR_OPTION_STOP,
          node("/m:c", DBDIFF_CHAIN, {node("/m:c/l[k=\"1\"]", DBDIFF_ADD), node("/m:c/l[k=\"2\"]", DBDIFF_REM)}));
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
