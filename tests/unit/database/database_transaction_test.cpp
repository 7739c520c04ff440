// Transactions: what commit and discard leave behind, what others see meanwhile, and what a lost server does to them.
#include "database_fixture.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>

namespace {

constexpr int RUNNING_MASTER = REDIS_RUNNING_DB_MASTER;
constexpr int RUNNING_BACKUP = REDIS_RUNNING_DB_CLUSTER;

class database_transaction : public database_test {
protected:
  std::string master() { return server_.dump(RUNNING_MASTER); }
  std::string backup() { return server_.dump(RUNNING_BACKUP); }
};

void edit(int hdb)
{
  EXPECT_EQ(database_set(hdb, "/m:top/leaf", DB_DATA_CONTENT, "changed"), 0);
  EXPECT_EQ(database_delete(hdb, "/m:top/user[name=\"a\"]"), 0);
  EXPECT_EQ(database_delete(hdb, "/m:top/ext:ntp"), 0);
  EXPECT_EQ(database_new(hdb, "/m:top/user[name=\"c\"]", nullptr, -1, DB_DATA_CONTENT, nullptr), 0);
  EXPECT_EQ(database_set(hdb, "/m:top/user[name=\"c\"]/group", DB_DATA_CONTENT, "h"), 0);
  EXPECT_EQ(database_set(hdb, "/ext:other", DB_DATA_CONTENT, nullptr), 0);
}

constexpr const char EDITED[] = "<top xmlns=\"urn:m\"><leaf>changed</leaf><dns>10.1.1.1</dns><user><name>c</name>"
                                "<group>h</group></user><user><name>b</name></user></top>";

TEST_F(database_transaction, discard_restores_every_byte_also_of_what_was_flushed)
{
  fill(RUNNING);
  const std::string before = master();
  int hdb = begin(RUNNING);
  edit(hdb);
  EXPECT_EQ(master(), before); // not sent yet
  EXPECT_EQ(database_trans_discard(hdb), 0);
  EXPECT_EQ(database_trans_start(hdb), 0);
  edit(hdb);
  EXPECT_EQ(database_flush(hdb), 0);
  EXPECT_NE(master(), before);
  remove(hdb, "/m:top");
  EXPECT_EQ(database_flush(hdb), 0);
  remove(hdb, "/ext:other");
  database_close(hdb); // discards what was not committed
  EXPECT_EQ(master(), before);
  EXPECT_EQ(backup(), "");
}

TEST_F(database_transaction, readers_choose_between_old_and_new_data)
{
  fill(RUNNING);
  const std::string old_data = get_from(RUNNING, "/m:top");
  int hdb = begin(RUNNING);
  int other = database_open(RUNNING);
  edit(hdb);
  EXPECT_EQ(get(hdb, "/m:top", DB_DEPTH_ALL, 0), old_data);
  EXPECT_EQ(get(other, "/m:top", DB_DEPTH_ALL, 0), old_data);
  EXPECT_EQ(get(hdb, "/m:top", DB_DEPTH_ALL, DB_TFLAG_TRANS), EDITED); // sends the writes
  EXPECT_EQ(get(hdb, "/m:top", DB_DEPTH_ALL, 0), old_data);
  EXPECT_EQ(get(hdb, "/", DB_DEPTH_ALL, DB_TFLAG_TRANS | DB_TFLAG_BACKUP), old_data);
  EXPECT_EQ(get(hdb, "/m:top/user[name=\"a\"]/group", DB_DEPTH_ALL, DB_TFLAG_BACKUP), "<group>g</group>");
  EXPECT_EQ(database_index(hdb, DB_TFLAG_TRANS, "/m:top/user[name=\"b\"]"), 1);
  EXPECT_EQ(database_index(hdb, 0, "/m:top/user[name=\"a\"]"), 0);
  EXPECT_EQ(get(other, "/m:top", DB_DEPTH_ALL, DB_TFLAG_NOTRANS | DB_TFLAG_TRANS), EDITED);
  EXPECT_TRUE(logs("[ERROR] start trans first!\n",
                   [&] { EXPECT_EQ(get(other, "/m:top", DB_DEPTH_ALL, DB_TFLAG_TRANS), "(failed)"); }));
  EXPECT_EQ(database_trans_discard(hdb), 0);
  EXPECT_EQ(get(hdb, "/m:top", DB_DEPTH_ALL, 0), old_data);
}

TEST_F(database_transaction, replaced_subtrees_hold_only_what_was_written_after_the_delete)
{
  fill(RUNNING);
  int hdb = begin(RUNNING);
  set(hdb, "/m:top/user[name=\"a\"]/lost", "1");
  set(hdb, "/m:top/user-like", "stays"); // begins like the list's name
  remove(hdb, "/m:top/user");
  add(hdb, "/m:top/user[name=\"z\"]");
  set(hdb, "/m:top/user[name=\"z\"]/group", "1");
  remove(hdb, "/m:top/user[name=\"z\"]/group");
  remove(hdb, "/m:top/user[name=\"z\"]/group"); // once more is no error
  add(hdb, "/m:top/user[name=\"a\"]");
  add(hdb, "/m:top/user[name=\"y\"]", "/m:top/user[name=\"a\"]", -1);
  commit_and_close(hdb);
  EXPECT_EQ(get_from(RUNNING, "/m:top/user"),
            "<user><name>z</name></user><user><name>y</name></user><user><name>a</name></user>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/user-like"), "<user-like>stays</user-like>");
  EXPECT_EQ(server_.command(RUNNING_MASTER, {"EXISTS", "/m/top/user[name=\"a\"]"}).front(), "0");
}

TEST_F(database_transaction, deleting_what_is_nowhere_fails_the_commit_and_changes_nothing)
{
  fill(RUNNING);
  const std::string before = master();
  for (const std::string path : {"/m:top/none", "/x:none", "/m:top/user[name=\"none\"]", "/m:top/none[k=\"v\"]"}) {
    int hdb = begin(RUNNING);
    set(hdb, "/m:top/leaf", "lost");
    remove(hdb, path);
    EXPECT_TRUE(logs("[ERROR] redis has no key:", [&] { EXPECT_EQ(database_trans_commit(hdb), -1) << path; }));
    EXPECT_EQ(database_trans_discard(hdb), 0);
    EXPECT_EQ(database_trans_commit(hdb), -1); // not running any more
    database_unlock(hdb, 1);
    database_close(hdb);
    EXPECT_EQ(master(), before);
  }
}

TEST_F(database_transaction, deletes_cost_rounds_by_depth_and_touch_only_their_subtree)
{
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  for (int i = 0; i < 1000; i++) {
    std::string entry = "/m:top/l[k=\"*?[" + std::to_string(i) + "\"]";
    add(hdb, entry);
    set(hdb, entry + "/c");
    set(hdb, entry + "/c/v", "x");
  }
  EXPECT_EQ(database_trans_commit(hdb), 0);
  EXPECT_EQ(database_trans_start(hdb), 0);
  for (int i = 0; i < 10; i++) {
    remove(hdb, "/m:top/l[k=\"*?[" + std::to_string(i) + "\"]");
  }
  EXPECT_LT(commands_of([&] { EXPECT_EQ(database_trans_commit(hdb), 0); }), 80);
  EXPECT_EQ(server_.command(RUNNING_MASTER, {"DBSIZE"}).front(), std::to_string(4 + 2 * 990));
  database_close(hdb);
}

TEST_F(database_transaction, writes_outside_of_a_transaction_are_for_status_only)
{
  EXPECT_EQ(database_set(database_open(RUNNING), "/m:top", DB_DATA_CONTENT, nullptr), -1);
  int status = database_open(STATUS);
  set(status, "/m:top/a", "1");
  EXPECT_EQ(database_delete(status, "/m:top/none"), -1);
  set(status, "/m:top/b", "2"); // the refused one is not tried again
  EXPECT_EQ(get_from(STATUS, "/m:top/a"), "<a>1</a>");
}

// Edits of many kinds at random: sending them one by one must leave what sending them together leaves.
TEST_F(database_transaction, order_and_time_of_flushes_do_not_change_the_result)
{
  auto path = [](const std::string &name) { return "/m:top/user[name=\"" + name + "\"]"; };
  for (unsigned seed = 1; seed <= 20; seed++) {
    std::string results[2];
    for (bool flush_each : {false, true}) {
      EXPECT_EQ(database_clean(RUNNING), 0);
      fill(RUNNING);
      const std::string before = master();
      std::mt19937 random(seed);
      std::set<std::string> entries = {"a", "b"};
      int hdb = begin(RUNNING);
      for (int step = 0; step < 120; step++) {
        std::string name(1, static_cast<char>('a' + random() % 8));
        std::string other =
            entries.empty() ? "" : *std::next(entries.begin(), static_cast<long>(random() % entries.size()));
        unsigned kind = random() % 8;
        bool known = entries.count(name) != 0;
        if (kind == 0 && known) {
          remove(hdb, path(name));
          entries.erase(name);
        } else if (kind == 1 && step % 10 == 0 && !entries.empty()) {
          remove(hdb, "/m:top/user");
          entries.clear();
        } else if (kind == 2 && known && other != name) {
          // May stand too near to an end: refused, in both cases.
          (void)database_move(hdb, path(name).c_str(), path(other).c_str(), static_cast<int>(random() % 5) - 2);
        } else if (kind <= 4 && !known) {
          bool is_placed = kind == 3 && !other.empty();
          add(hdb, path(name), is_placed ? path(other).c_str() : nullptr, random() % 2 == 0 && is_placed ? 1 : -1);
          entries.insert(name);
        } else if (known) {
          set(hdb, path(name) + "/c");
          set(hdb, path(name) + "/c/v" + std::to_string(random() % 3), std::to_string(step));
        }
        EXPECT_TRUE(!flush_each || database_flush(hdb) == 0);
      }
      EXPECT_EQ(database_flush(hdb), 0);
      results[flush_each ? 1 : 0] = master();
      if (seed % 4 == 0) { // what was done can also be undone
        EXPECT_EQ(database_trans_discard(hdb), 0);
        EXPECT_EQ(master(), before);
        EXPECT_EQ(database_trans_start(hdb), 0);
      }
      commit_and_close(hdb);
      EXPECT_EQ(backup(), "");
    }
    EXPECT_EQ(results[0], results[1]) << "seed " << seed;
  }
}

TEST_F(database_transaction, what_was_cut_off_is_undone_by_the_next_transaction)
{
  fill(RUNNING);
  const std::string before = master();
  for (bool is_crash : {true, false}) {
    int hdb = begin(RUNNING);
    edit(hdb);
    EXPECT_EQ(database_flush(hdb), 0);
    if (is_crash) {
      stop_component(); // without discard
      start_component();
    } else {
      server_.kill_now();
      EXPECT_EQ(database_trans_commit(hdb), -1);
      EXPECT_EQ(database_trans_discard(hdb), 0);
      database_close(hdb);
      server_.start();
    }
    EXPECT_NE(master(), before); // nobody asked yet
    commit_and_close(begin(RUNNING));
    EXPECT_EQ(master(), before);
    EXPECT_EQ(backup(), "");
  }
}

TEST_F(database_transaction, recovery_undoes_what_was_cut_off_in_every_datastore)
{
  const std::map<int, int> masters = {{STARTUP, 2}, {RUNNING, RUNNING_MASTER}, {CANDIDATE, 6}};
  std::map<int, std::string> before;
  for (const auto &[target, db] : masters) {
    fill(target);
    before[db] = server_.dump(db);
    int hdb = begin(target);
    edit(hdb);
    EXPECT_EQ(database_flush(hdb), 0);
    EXPECT_NE(server_.dump(db), before[db]);
  }
  stop_component(); // without discard
  start_component();
  EXPECT_EQ(database_recover(), 0);
  for (const auto &[target, db] : masters) {
    EXPECT_EQ(server_.dump(db), before[db]);
    EXPECT_EQ(server_.dump(db + 1), "");
  }
}

TEST_F(database_transaction, refused_writes_are_not_reported_as_stored)
{
  fill(RUNNING);
  const std::string before = master();
  server_.command(0, {"CONFIG", "SET", "maxmemory", "1"});
  int hdb = begin(RUNNING);
  edit(hdb);
  EXPECT_TRUE(logs("OOM", [&] { EXPECT_EQ(database_trans_commit(hdb), -1); }));
  EXPECT_EQ(database_set_transaction_state(ENUM_DATASTORE_RUNNING, E_TRANS_INIT), -1);
  server_.command(0, {"CONFIG", "SET", "maxmemory", "0"});
  EXPECT_EQ(database_trans_discard(hdb), 0);
  EXPECT_EQ(master(), before);
  database_close(hdb);
}

} // namespace
