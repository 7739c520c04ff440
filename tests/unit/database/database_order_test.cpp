// Where entries of a list are placed and moved.
#include "database_fixture.h"

namespace {

class database_order : public database_test {
protected:
  void SetUp() override
  {
    database_test::SetUp();
    hdb_ = begin(RUNNING);
    set(hdb_, "/m:top");
    for (char name : std::string("abcde")) {
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
    std::string text = result != nullptr ? result : "";
    free(result);
    std::string names;
    for (size_t at = text.find("<k>"); at != std::string::npos; at = text.find("<k>", at + 1)) {
      names += text[at + 3];
    }
    return names;
  }

  int hdb_ = 0;
};

TEST_F(database_order, entries_stand_at_the_distance_from_their_reference)
{
  const struct {
    char name;
    char reference;
    int offset;
    const char *order;
  } moves[] = {{'a', 'c', 1, "bcade"}, {'a', 'c', -1, "bacde"}, {'c', 'a', -1, "cabde"}, {'a', 'e', 1, "bcdea"},
               {'e', 'a', 2, "abecd"}, {'e', 'd', -3, "aebcd"}, {'d', 0, -1, "dabce"},   {'b', 0, 1, "acdeb"}};
  for (const auto &row : moves) {
    EXPECT_EQ(move(row.name, row.reference, row.offset), 0) << row.order;
    EXPECT_EQ(order(), row.order);
    EXPECT_EQ(database_trans_discard(hdb_), 0);
    EXPECT_EQ(database_trans_start(hdb_), 0);
    EXPECT_EQ(order(), "abcde");
  }
  add(hdb_, entry('x'), entry('b').c_str(), 1);
  add(hdb_, entry('y'), entry('a').c_str(), -1);
  add(hdb_, entry('z'), nullptr, -1);
  add(hdb_, entry('t'), nullptr, 0);
  EXPECT_EQ(order(), "zyabxcdet");
  EXPECT_EQ(database_index(hdb_, DB_TFLAG_TRANS, entry('x').c_str()), 4);
  EXPECT_EQ(database_index(hdb_, DB_TFLAG_TRANS, entry('q').c_str()), -1);
}

TEST_F(database_order, moves_that_make_no_sense_are_refused_and_change_nothing)
{
  const struct {
    char name;
    char reference;
    int offset;
    const char *log;
  } moves[] = {{'x', 'a', 1, "[ERROR] insert-item: not found the k-v\n"},
               {'a', 'x', 1, "[ERROR] not found the k-v\n"},
               {'a', 'b', 0, "[ERROR] offset is not to be set 0.error!\n"},
               {'c', 'a', -2, "[ERROR] insert-item: This can not insert.\n"},
               {'a', 'e', 2, "destpos is reach the max bound, error.\n"}};
  for (const auto &row : moves) {
    EXPECT_TRUE(logs(row.log, [&] { EXPECT_EQ(move(row.name, row.reference, row.offset), -1); })) << row.log;
  }
  EXPECT_EQ(database_move(hdb_, nullptr, nullptr, 1), -1);
  EXPECT_EQ(database_move(hdb_, "/m:top/none[k=\"a\"]", entry('a').c_str(), 1), -1);
  EXPECT_EQ(move('a', 'b', -1), 0); // stands there already
  EXPECT_LT(commands_of([&] { EXPECT_EQ(database_flush(hdb_), 0); }), 10);
  EXPECT_EQ(order(), "abcde");
}

} // namespace
