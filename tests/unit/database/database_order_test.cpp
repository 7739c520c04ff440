// Lists: where entries are placed and moved, and what becomes of emptied lists.
#include "database_fixture.h"

#include <algorithm>

namespace {

class database_order : public database_test {
protected:
  void make_list(const std::string &names)
  {
    hdb_ = begin(RUNNING);
    set(hdb_, "/m:top");
    for (char name : names) {
      add(hdb_, entry(name));
    }
    EXPECT_EQ(database_trans_commit(hdb_), 0);
    EXPECT_EQ(database_trans_start(hdb_), 0);
  }
  void TearDown() override
  {
    database_close(hdb_);
    database_test::TearDown();
  }

  static std::string entry(char name) { return std::string("/m:top/l[k=\"") + name + "\"]"; }

  int move(char name, char reference, int offset)
  {
    return database_move(hdb_, entry(name).c_str(), reference == 0 ? nullptr : entry(reference).c_str(), offset);
  }

  // The names in order, read through the transaction.
  std::string order()
  {
    char *result = nullptr;
    EXPECT_EQ(database_list(hdb_, DB_TFLAG_TRANS, "/m:top/l", &result), 0);
    std::string names;
    std::string text = result != nullptr ? result : "";
    free(result);
    for (size_t at = text.find("<k>"); at != std::string::npos; at = text.find("<k>", at + 1)) {
      names += text[at + 3];
    }
    return names;
  }

  int hdb_ = 0;
};

TEST_F(database_order, a_moved_entry_stands_at_the_distance_from_its_reference)
{
  struct row_t {
    char name;
    char reference;
    int offset;
    const char *order;
  };
  const row_t rows[] = {{'a', 'c', 1, "bcade"}, {'a', 'c', -1, "bacde"}, {'d', 'b', -1, "adbce"},
                        {'d', 'b', 1, "abdce"}, {'c', 'a', -1, "cabde"}, {'a', 'e', 1, "bcdea"},
                        {'e', 'a', 2, "abecd"}, {'e', 'd', -3, "aebcd"}, {'b', 'a', 1, "abcde"},
                        {'d', 0, -1, "dabce"},  {'b', 0, 1, "acdeb"}};
  make_list("abcde");
  for (const row_t &row : rows) {
    EXPECT_EQ(move(row.name, row.reference, row.offset), 0) << row.order;
    EXPECT_EQ(order(), row.order);
    EXPECT_EQ(database_trans_discard(hdb_), 0);
    EXPECT_EQ(database_trans_start(hdb_), 0);
    EXPECT_EQ(order(), "abcde");
  }
}

TEST_F(database_order, new_entries_are_placed_next_to_their_reference)
{
  make_list("abc");
  add(hdb_, entry('x'), entry('b').c_str(), 1);
  add(hdb_, entry('y'), entry('b').c_str(), -1);
  add(hdb_, entry('z'), entry('a').c_str(), -1);
  add(hdb_, entry('w'), entry('c').c_str(), 1);
  add(hdb_, entry('h'), nullptr, -1);
  add(hdb_, entry('t'), nullptr, 0);
  EXPECT_EQ(order(), "hzaybxcwt");
  EXPECT_EQ(database_index(hdb_, DB_TFLAG_TRANS, entry('y').c_str()), 3);
  EXPECT_EQ(database_index(hdb_, DB_TFLAG_TRANS, entry('q').c_str()), -1);
}

TEST_F(database_order, moves_that_make_no_sense_are_refused_and_change_nothing)
{
  make_list("abc");
  EXPECT_TRUE(logs("[ERROR] insert-item: not found the k-v\n", [&] { EXPECT_EQ(move('x', 'a', 1), -1); }));
  EXPECT_TRUE(logs("[ERROR] not found the k-v\n", [&] { EXPECT_EQ(move('a', 'x', 1), -1); }));
  EXPECT_TRUE(logs("[ERROR] offset is not to be set 0.error!\n", [&] { EXPECT_EQ(move('a', 'b', 0), -1); }));
  EXPECT_TRUE(logs("[ERROR] insert-item: This can not insert.\n", [&] { EXPECT_EQ(move('c', 'a', -2), -1); }));
  EXPECT_TRUE(logs("destpos is reach the max bound, error.\n", [&] { EXPECT_EQ(move('a', 'c', 2), -1); }));
  EXPECT_EQ(database_move(hdb_, nullptr, nullptr, 1), -1);
  EXPECT_EQ(database_move(hdb_, "/m:top/none[k=\"a\"]", entry('a').c_str(), 1), -1);
  EXPECT_EQ(move('a', 'b', -1), 0); // stands there already
  long long writes = commands_of([&] { EXPECT_EQ(database_flush(hdb_), 0); });
  EXPECT_LT(writes, 10);
  EXPECT_EQ(order(), "abc");
}

TEST_F(database_order, the_field_of_an_emptied_list_goes_with_its_last_entry)
{
  make_list("ab");
  const std::string before = server_.dump(REDIS_RUNNING_DB_MASTER);
  remove(hdb_, entry('a'));
  remove(hdb_, entry('b'));
  EXPECT_EQ(database_flush(hdb_), 0);
  EXPECT_EQ(server_.command(REDIS_RUNNING_DB_MASTER, {"EXISTS", "/m/top", "/m/top/l"}).front(), "0");
  remove(hdb_, "/m:top/l"); // already gone by itself: no error
  add(hdb_, entry('c'));
  EXPECT_EQ(order(), "c");
  EXPECT_EQ(database_trans_discard(hdb_), 0);
  EXPECT_EQ(server_.dump(REDIS_RUNNING_DB_MASTER), before);

  EXPECT_EQ(database_trans_start(hdb_), 0);
  remove(hdb_, entry('a'));
  add(hdb_, entry('a')); // replaced: not the last one
  remove(hdb_, entry('b'));
  EXPECT_EQ(database_trans_commit(hdb_), 0);
  EXPECT_EQ(server_.command(REDIS_RUNNING_DB_MASTER, {"LRANGE", "/m/top/l", "0", "-1"}),
            std::vector<std::string>{"k=\"a\""});
  EXPECT_EQ(server_.command(REDIS_RUNNING_DB_MASTER, {"HEXISTS", "/m/top", "l"}).front(), "1");
}

} // namespace
