#include "database_fixture.h"

namespace {

class database_lock_test : public database_test {
protected:
  void SetUp() override
  {
    database_test::SetUp();
    first_ = database_open(RUNNING);
    second_ = database_open(RUNNING);
    third_ = database_open(RUNNING);
  }
  int first_ = 0;
  int second_ = 0;
  int third_ = 0;
};

TEST_F(database_lock_test, readers_share_a_lock_and_keep_writers_out)
{
  int id = database_lock(first_, DB_LOCK_READ, "/m:top/a");
  EXPECT_GT(id, 0);
  EXPECT_EQ(database_lock(second_, DB_LOCK_READ, "/m:other"), id);
  EXPECT_TRUE(logs("[ERROR] m has already been locked by different lock type (ori:1, cur:2).\n",
                   [&] { EXPECT_EQ(database_lock(third_, DB_LOCK_WRITE, "/m:top"), -1); }));
  EXPECT_EQ(database_lock(first_, DB_LOCK_WRITE, "/m:top"), -1); // no upgrade
  EXPECT_GT(database_lock(third_, DB_LOCK_WRITE, "/ext:top"), 0);
  database_unlock(first_, id);
  EXPECT_EQ(database_lock(third_, DB_LOCK_WRITE, "/m:top"), -1);
  database_unlock(second_, id);
  EXPECT_GT(database_lock(third_, DB_LOCK_WRITE, "/m:top"), 0);
}

TEST_F(database_lock_test, a_lock_taken_twice_needs_two_unlocks)
{
  int id = database_lock(first_, DB_LOCK_WRITE, "/m:top");
  EXPECT_EQ(database_lock(first_, DB_LOCK_WRITE, "/m:top/x"), id);
  database_unlock(first_, id);
  EXPECT_TRUE(logs("[ERROR] m has already been locked \n",
                   [&] { EXPECT_EQ(database_lock(second_, DB_LOCK_WRITE, "/m:top"), -1); }));
  database_unlock(second_, id); // not its holder
  database_unlock(first_, id + 5);
  database_unlock(first_, 0);
  EXPECT_EQ(database_lock(second_, DB_LOCK_WRITE, "/m:top"), -1);
  database_unlock(first_, id);
  EXPECT_GT(database_lock(second_, DB_LOCK_WRITE, "/m:top"), 0);
}

TEST_F(database_lock_test, the_whole_datastore_excludes_other_handles_locks)
{
  int module = database_lock(first_, DB_LOCK_WRITE, "/m:top");
  EXPECT_EQ(database_lock(second_, DB_LOCK_WRITE, "/"), -1);
  EXPECT_EQ(database_lock(second_, DB_LOCK_READ, "/"), -1);
  int whole = database_lock(first_, DB_LOCK_WRITE, "/"); // its own locks do not stand in the way
  EXPECT_GT(whole, 0);
  EXPECT_EQ(database_lock(second_, DB_LOCK_READ, "/ext:top"), -1);
  database_unlock(first_, whole);
  database_unlock(first_, module);

  int read = database_lock(first_, DB_LOCK_READ, "/m:top");
  int all = database_lock(second_, DB_LOCK_READ, "/");
  EXPECT_GT(all, 0);
  EXPECT_EQ(database_lock(third_, DB_LOCK_READ, "/ext:top"), all); // joins the lock on everything
  EXPECT_EQ(database_lock(third_, DB_LOCK_WRITE, "/"), -1);
  database_unlock(first_, read);
}

TEST_F(database_lock_test, datastores_are_locked_separately_and_wrong_arguments_refused)
{
  int other = database_open(CANDIDATE);
  EXPECT_GT(database_lock(first_, DB_LOCK_WRITE, "/"), 0);
  EXPECT_GT(database_lock(other, DB_LOCK_WRITE, "/"), 0);
  EXPECT_EQ(database_lock(99, DB_LOCK_READ, "/"), -1);
  EXPECT_EQ(database_lock(second_, DB_LOCK_READ, nullptr), -1);
  EXPECT_EQ(database_lock(second_, DB_LOCK_READ, "no-path"), -1);
  EXPECT_EQ(database_lock(second_, DB_LOCK_NONE, "/m:top"), -1);
}

} // namespace
