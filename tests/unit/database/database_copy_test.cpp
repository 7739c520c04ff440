// Copying and emptying whole datastores.
#include "database_fixture.h"

namespace {

class database_copy_test : public database_test {
protected:
  static int master_of(int target) { return target * 2; }
  std::string dump(int target) { return server_.dump(master_of(target)); }

  void fill_large(int target)
  {
    int hdb = begin(target);
    set(hdb, "/m:top");
    for (int i = 0; i < 500; i++) {
      add(hdb, "/m:top/l[k=\"" + std::to_string(i) + "\"]");
      set(hdb, "/m:top/l[k=\"" + std::to_string(i) + "\"]/v", "x");
    }
    commit_and_close(hdb);
  }
};

TEST_F(database_copy_test, the_target_equals_the_source_and_keeps_its_other_keys)
{
  fill(RUNNING);
  fill_large(CANDIDATE);
  EXPECT_EQ(database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_PUB), 0);
  EXPECT_EQ(database_copy(CANDIDATE, RUNNING), 0);
  EXPECT_EQ(database_get_transaction_state(ENUM_DATASTORE_CANDIDATE), E_TRANS_PUB);
  server_.command(master_of(CANDIDATE), {"DEL", "ymgrd-info"});
  EXPECT_EQ(dump(CANDIDATE), dump(RUNNING));
  EXPECT_NE(dump(RUNNING), "");
}

TEST_F(database_copy_test, between_candidate_and_running_only_differing_keys_move)
{
  fill_large(RUNNING);
  EXPECT_EQ(database_copy(CANDIDATE, RUNNING), 0);
  // Known to be equal: it only asks whether others wrote.
  EXPECT_LE(commands_of([&] { EXPECT_EQ(database_copy(CANDIDATE, RUNNING), 0); }), 1);

  int hdb = begin(CANDIDATE);
  set(hdb, "/m:top/l[k=\"7\"]/v", "changed");
  remove(hdb, "/m:top/l[k=\"9\"]");
  set(hdb, "/ext:new");
  EXPECT_EQ(database_flush(hdb), 0);
  set(hdb, "/ext:new/leaf", "1");
  commit_and_close(hdb);
  EXPECT_LT(commands_of([&] { EXPECT_EQ(database_copy(RUNNING, CANDIDATE), 0); }), 30);
  EXPECT_EQ(dump(CANDIDATE), dump(RUNNING));
  EXPECT_EQ(get_from(RUNNING, "/m:top/l[k=\"7\"]/v"), "<v>changed</v>");
  EXPECT_EQ(get_from(RUNNING, "/ext:new/leaf"), "<leaf>1</leaf>");

  hdb = begin(RUNNING); // what a discard touched is looked at again
  remove(hdb, "/m:top/l[k=\"7\"]");
  EXPECT_EQ(database_flush(hdb), 0);
  EXPECT_EQ(database_copy(CANDIDATE, RUNNING), 0); // the flushed, uncommitted content
  EXPECT_EQ(database_trans_discard(hdb), 0);
  database_close(hdb);
  EXPECT_EQ(database_copy(CANDIDATE, RUNNING), 0);
  EXPECT_EQ(dump(CANDIDATE), dump(RUNNING));
}

TEST_F(database_copy_test, saving_running_moves_only_what_changed_since_it_was_saved)
{
  fill_large(RUNNING);
  EXPECT_EQ(database_copy(STARTUP, RUNNING), 0);
  int hdb = begin(RUNNING);
  set(hdb, "/m:top/l[k=\"7\"]/v", "changed");
  remove(hdb, "/m:top/l[k=\"9\"]");
  commit_and_close(hdb);
  EXPECT_LT(commands_of([&] { EXPECT_EQ(database_copy(STARTUP, RUNNING), 0); }), 30);
  EXPECT_EQ(dump(STARTUP), dump(RUNNING));
  EXPECT_EQ(database_clean(STARTUP), 0);
  EXPECT_EQ(database_copy(STARTUP, RUNNING), 0);
  EXPECT_EQ(dump(STARTUP), dump(RUNNING));
}

TEST_F(database_copy_test, nothing_is_taken_for_known_after_the_server_was_restarted)
{
  fill(RUNNING);
  EXPECT_EQ(database_copy(CANDIDATE, RUNNING), 0);
  server_.command(master_of(CANDIDATE), {"DEL", "/m/top"}); // stands for what a server may lose
  server_.kill_now();
  EXPECT_EQ(database_copy(CANDIDATE, RUNNING), -1);
  server_.start();
  EXPECT_EQ(database_copy(CANDIDATE, RUNNING), 0);
  EXPECT_EQ(dump(CANDIDATE), dump(RUNNING));
}

TEST_F(database_copy_test, a_copy_onto_startup_is_on_disk)
{
  fill(RUNNING);
  EXPECT_EQ(database_copy(STARTUP, RUNNING), 0);
  EXPECT_EQ(dump(STARTUP), dump(RUNNING));
  EXPECT_NE(support::read_file(dir_ / "dump.rdb").find("REDIS"), std::string::npos);
}

TEST_F(database_copy_test, a_copy_within_a_transaction_is_part_of_it)
{
  fill(RUNNING);
  fill_large(STARTUP);
  const std::string before = dump(STARTUP);
  const std::string old_data = get_from(STARTUP, "/");
  int hdb = begin(STARTUP);
  set(hdb, "/m:top/overwritten", "1");
  EXPECT_EQ(database_copy(STARTUP, RUNNING), 0);
  EXPECT_EQ(dump(STARTUP), before);
  remove(hdb, "/m:top/leaf"); // of the copied content
  EXPECT_EQ(database_flush(hdb), 0);
  EXPECT_TRUE(get(hdb, "/", DB_DEPTH_ALL, 0) == old_data);
  EXPECT_EQ(database_trans_discard(hdb), 0);
  EXPECT_EQ(dump(STARTUP), before);

  EXPECT_EQ(database_trans_start(hdb), 0);
  EXPECT_EQ(database_copy(STARTUP, RUNNING), 0);
  commit_and_close(hdb);
  EXPECT_EQ(dump(STARTUP), dump(RUNNING));
}

TEST_F(database_copy_test, a_clean_within_a_transaction_is_undone_by_its_discard)
{
  fill(RUNNING);
  server_.command(master_of(RUNNING),
                  {"HSET", "/", "odd", std::string("\1\0\0\0\0\0\0\0", 8)}); // registered without data
  const std::string before = dump(RUNNING);
  int hdb = begin(RUNNING);
  EXPECT_EQ(database_clean(RUNNING), 0);
  set(hdb, "/ext:top");
  add(hdb, "/m:top/user[name=\"n\"]");
  EXPECT_EQ(database_flush(hdb), 0);
  EXPECT_EQ(server_.command(master_of(RUNNING), {"EXISTS", "/m/top/ext:ntp"}).front(), "0");
  EXPECT_EQ(database_trans_discard(hdb), 0);
  EXPECT_EQ(dump(RUNNING), before);
  EXPECT_EQ(server_.dump(REDIS_RUNNING_DB_CLUSTER), "");

  EXPECT_EQ(database_trans_start(hdb), 0);
  EXPECT_EQ(database_clean(RUNNING), 0);
  set(hdb, "/ext:top");
  commit_and_close(hdb);
  EXPECT_EQ(get_from(RUNNING, "/"), "<top xmlns=\"urn:ext\"></top>");
  EXPECT_EQ(server_.command(master_of(RUNNING), {"DBSIZE"}).front(), "2");
}

TEST_F(database_copy_test, the_modules_that_differ_are_known_until_somebody_else_writes)
{
  std::set<std::string, std::less<>> modules;
  fill(RUNNING);
  EXPECT_FALSE(database_differing_modules(STATUS, RUNNING, &modules)); // after a start
  EXPECT_EQ(database_copy(STATUS, RUNNING), 0);
  EXPECT_TRUE(database_differing_modules(STATUS, RUNNING, &modules));
  EXPECT_TRUE(modules.empty());
  int hdb = database_open(STATUS);
  set(hdb, "/ext:state/uptime", "1");
  EXPECT_EQ(database_flush(hdb), 0);
  database_close(hdb);
  EXPECT_TRUE(database_differing_modules(STATUS, RUNNING, &modules));
  EXPECT_EQ(modules, (std::set<std::string, std::less<>>{"ext"}));
  server_.command(master_of(STATUS), {"HSET", "/m/top", "leaf", "x"});
  EXPECT_FALSE(database_differing_modules(STATUS, RUNNING, &modules));
}

} // namespace
