// Transactions: what others see meanwhile, what is refused, what deleting costs.
#include "database_fixture.h"

#include <array>
#include <random>

namespace {

constexpr int RUNNING_MASTER = REDIS_RUNNING_DB_MASTER;

class database_transaction : public database_test {
protected:
  std::string master() { return server_.dump(RUNNING_MASTER); }

  static void edit(int hdb)
  {
    set(hdb, "/m:top/leaf", "changed");
    remove(hdb, "/m:top/user[name=\"a\"]");
    remove(hdb, "/m:top/ext:ntp");
    add(hdb, "/m:top/user[name=\"c\"]", nullptr, -1);
    set(hdb, "/m:top/user[name=\"c\"]/group", "h");
    set(hdb, "/ext:other");
  }
};

constexpr const char EDITED[] = "<top xmlns=\"urn:m\"><leaf>changed</leaf><dns>10.1.1.1</dns><user><name>c</name>"
                                "<group>h</group></user><user><name>b</name></user></top>";

TEST_F(database_transaction, readers_choose_between_old_and_new_data)
{
  fill(RUNNING);
  const std::string before = master();
  const std::string old_data = get_from(RUNNING, "/m:top");
  int hdb = begin(RUNNING);
  int other = database_open(RUNNING);
  edit(hdb);
  EXPECT_EQ(get(hdb, "/m:top", DB_DEPTH_ALL, 0), old_data);
  EXPECT_EQ(get(other, "/m:top", DB_DEPTH_ALL, 0), old_data);
  EXPECT_EQ(master(), before);
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
  EXPECT_EQ(master(), before);
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
    database_close(hdb);
    EXPECT_EQ(master(), before);
  }
}

TEST_F(database_transaction, deletes_cost_rounds_by_depth_and_touch_only_their_subtree)
{
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  set(hdb, "/m:top/like"); // begins like the list's name
  set(hdb, "/m:top/like/v", "stays");
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
  EXPECT_EQ(server_.command(RUNNING_MASTER, {"DBSIZE"}).front(), std::to_string(5 + 2 * 990));
  EXPECT_EQ(database_trans_start(hdb), 0);
  remove(hdb, "/m:top/l");
  commit_and_close(hdb);
  EXPECT_EQ(get_from(RUNNING, "/"), "<top xmlns=\"urn:m\"><like><v>stays</v></like></top>");
  EXPECT_EQ(server_.command(RUNNING_MASTER, {"DBSIZE"}).front(), "4");
}

TEST_F(database_transaction, writes_outside_of_a_transaction_are_for_status_only)
{
  EXPECT_EQ(database_set(database_open(RUNNING), "/m:top", DB_DATA_CONTENT, nullptr), -1);
  int status = database_open(STATUS);
  set(status, "/m:top/a", "1");
  EXPECT_EQ(database_delete(status, "/m:top[k=\"1\"]"), -1); // no list
  set(status, "/m:top/b", "2");                              // the refused one is not tried again
  EXPECT_EQ(get_from(STATUS, "/m:top/a"), "<a>1</a>");
}

// State data is written by several, and goes whenever running is copied.
TEST_F(database_transaction, state_entries_are_set_once_and_deleted_if_they_are_there)
{
  auto entry = [](int k) { return "/m:top/l[k=\"" + std::to_string(k) + "\"]"; };
  for (int entries : {3, 200}) { // looked for one by one; in the list read as a whole
    int status = database_open(STATUS);
    set(status, entry(1));
    EXPECT_EQ(database_trans_start(status), 0);
    EXPECT_EQ(database_delete(status, entry(999).c_str()), 0);
    EXPECT_EQ(database_delete(status, "/m:top/none"), 0);
    for (int k = 0; k < 2 * entries; k++) {
      set(status, entry(k % entries));
    }
    commit_and_close(status);
    std::vector<std::string> stored = server_.command(8, {"LRANGE", "/m/top/l", "0", "-1"});
    EXPECT_EQ(stored.size(), static_cast<size_t>(entries));
    EXPECT_EQ(stored.front(), "k=\"1\"");
  }
}

// Random edits: sent one by one they must leave what they leave when many are sent together, which goes another way.
TEST_F(database_transaction, the_time_of_flushes_does_not_change_the_result)
{
  auto path = [](char name) { return std::string("/m:top/user[name=\"") + name + "\"]"; };
  for (unsigned seed = 1; seed <= 20; seed++) {
    std::string results[2];
    for (bool flushes_each : {false, true}) {
      EXPECT_EQ(database_clean(RUNNING), 0);
      fill(RUNNING);
      const std::string before = master();
      std::mt19937 random(seed);
      std::string entries = "ab";
      int hdb = begin(RUNNING);
      for (int step = 0; step < 120; step++) {
        char name = static_cast<char>('a' + random() % 8);
        char other = entries.empty() ? name : entries[random() % entries.size()];
        int offset = std::array{-2, -1, 1, 2}[random() % 4];
        unsigned kind = random() % 8;
        size_t at = entries.find(name);
        if (kind == 0 && step % 10 == 0 && !entries.empty()) {
          remove(hdb, "/m:top/user");
          entries.clear();
        } else if (at == std::string::npos) {
          bool is_placed = kind < 4 && other != name;
          add(hdb, path(name), is_placed ? path(other).c_str() : nullptr, offset < 0 ? -1 : 1);
          entries += name;
        } else if (kind == 0) {
          remove(hdb, path(name));
          entries.erase(at, 1);
        } else if (kind < 4 && other != name) {
          (void)database_move(hdb, path(name).c_str(), path(other).c_str(), offset); // there may be no such place
        } else {
          set(hdb, path(name) + "/c");
          set(hdb, path(name) + "/c/v" + std::to_string(kind), std::to_string(step));
        }
        EXPECT_TRUE(!flushes_each || database_flush(hdb) == 0);
      }
      EXPECT_EQ(database_flush(hdb), 0);
      results[flushes_each ? 1 : 0] = master();
      database_close(hdb); // discards what was not committed
      EXPECT_EQ(master(), before);
      EXPECT_EQ(server_.dump(REDIS_RUNNING_DB_CLUSTER), "");
    }
    EXPECT_EQ(results[0], results[1]) << "seed " << seed;
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
