// Copying and emptying whole datastores: what it costs, and what it means within a transaction.
#include "database_fixture.h"

namespace {

class database_copy_test : public database_test {
protected:
  static int master_of(int target) { return target * 2; }
  std::string dump(int target) { return server_.dump(master_of(target)); }
  // Commands that a copy needs; both are equal after it.
  long long cost_of_copy(int target, int source)
  {
    long long commands = commands_of([&] { EXPECT_EQ(database_copy(target, source), 0); });
    EXPECT_EQ(dump(target), dump(source));
    return commands;
  }

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

TEST_F(database_copy_test, only_keys_that_differ_move)
{
  fill_large(RUNNING);
  cost_of_copy(CANDIDATE, RUNNING);
  EXPECT_LE(cost_of_copy(CANDIDATE, RUNNING), 1); // it only asks whether others wrote
  cost_of_copy(STARTUP, RUNNING);
  EXPECT_NE(support::read_file(dir_ / "dump.rdb").find("REDIS"), std::string::npos) << "startup is on disk";

  int hdb = begin(CANDIDATE);
  set(hdb, "/m:top/l[k=\"7\"]/v", "changed");
  remove(hdb, "/m:top/l[k=\"9\"]");
  set(hdb, "/ext:new");
  EXPECT_EQ(database_flush(hdb), 0);
  set(hdb, "/ext:new/leaf", "1");
  commit_and_close(hdb);
  EXPECT_LT(cost_of_copy(RUNNING, CANDIDATE), 30);
  EXPECT_LT(cost_of_copy(STARTUP, RUNNING), 30);
  EXPECT_EQ(get_from(STARTUP, "/m:top/l[k=\"7\"]/v") + get_from(STARTUP, "/ext:new/leaf"),
            "<v>changed</v><leaf>1</leaf>");

  hdb = begin(RUNNING); // what a discard touched is looked at again
  remove(hdb, "/m:top/l[k=\"7\"]");
  EXPECT_EQ(database_flush(hdb), 0);
  cost_of_copy(CANDIDATE, RUNNING); // of the flushed, uncommitted content
  EXPECT_EQ(database_trans_discard(hdb), 0);
  database_close(hdb);
  cost_of_copy(CANDIDATE, RUNNING);
  EXPECT_EQ(database_clean(STARTUP), 0);
  cost_of_copy(STARTUP, RUNNING);
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

TEST_F(database_copy_test, copies_and_cleans_within_a_transaction_are_part_of_it)
{
  fill(RUNNING);
  for (bool is_copy : {true, false}) {
    auto work = [is_copy] { return is_copy ? database_copy(STARTUP, RUNNING) : database_clean(STARTUP); };
    EXPECT_EQ(database_clean(STARTUP), 0);
    fill_large(STARTUP);
    // Registered without data.
    server_.command(master_of(STARTUP), {"HSET", "/", "odd", std::string("\1\0\0\0\0\0\0\0", 8)});
    const std::string before = dump(STARTUP);
    const std::string old_data = get_from(STARTUP, "/");
    int hdb = begin(STARTUP);
    set(hdb, "/m:top/overwritten", "1");
    EXPECT_EQ(work(), 0);
    EXPECT_EQ(dump(STARTUP), before);
    set(hdb, "/ext:top");
    if (is_copy) {
      remove(hdb, "/m:top/leaf"); // of the copied content
    }
    EXPECT_EQ(database_flush(hdb), 0);
    EXPECT_TRUE(get(hdb, "/", DB_DEPTH_ALL, 0) == old_data);
    EXPECT_EQ(database_trans_discard(hdb), 0);
    EXPECT_EQ(dump(STARTUP), before);
    EXPECT_EQ(server_.dump(master_of(STARTUP) + 1), "");

    EXPECT_EQ(database_trans_start(hdb), 0);
    EXPECT_EQ(work(), 0);
    set(hdb, "/ext:top");
    commit_and_close(hdb);
    const std::string kept = is_copy ? get_from(RUNNING, "/") : "";
    EXPECT_EQ(get_from(STARTUP, "/"), kept + "<top xmlns=\"urn:ext\"></top>");
  }
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
