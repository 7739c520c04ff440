#include "database_fixture.h"

#include <map>

namespace {

constexpr int UNLOCK = 0; // the lock that the handle got last for this path

// What the handles 'a', 'b' and 'c', all of running, do one after the other.
typedef struct _lock_step {
  char handle;
  int type; // DB_LOCK_... or UNLOCK
  std::string path;
  bool is_granted = false;
} lock_step_t;

class database_lock_test : public database_test {
protected:
  static void play(const std::vector<lock_step_t> &steps)
  {
    std::map<char, int> handles = {
        {'a', database_open(RUNNING)}, {'b', database_open(RUNNING)}, {'c', database_open(RUNNING)}};
    std::map<std::pair<char, std::string>, int> locks;
    for (const lock_step_t &step : steps) {
      int &lock = locks[{step.handle, step.path}];
      if (step.type == UNLOCK) {
        database_unlock(handles[step.handle], lock);
        continue;
      }
      int id = database_lock(handles[step.handle], step.type, step.path.c_str());
      EXPECT_EQ(id > 0, step.is_granted) << "step " << &step - steps.data();
      lock = id > 0 ? id : lock;
    }
  }
};

TEST_F(database_lock_test, readers_share_a_lock_and_keep_writers_out)
{
  EXPECT_TRUE(logs("[ERROR] m has already been locked by different lock type (ori:1, cur:2).\n", [] {
    play({{'a', DB_LOCK_READ, "/m:top/a", true},
          {'b', DB_LOCK_READ, "/m:other", true},
          {'c', DB_LOCK_WRITE, "/m:top"},
          {'a', DB_LOCK_WRITE, "/m:top"}, // no upgrade
          {'c', DB_LOCK_WRITE, "/ext:top", true},
          {'a', UNLOCK, "/m:top/a"},
          {'c', DB_LOCK_WRITE, "/m:top"},
          {'b', UNLOCK, "/m:other"},
          {'c', DB_LOCK_WRITE, "/m:top", true}});
  }));
}

TEST_F(database_lock_test, a_lock_taken_twice_needs_two_unlocks_of_its_holder)
{
  EXPECT_TRUE(logs("[ERROR] m has already been locked \n", [] {
    play({{'a', DB_LOCK_WRITE, "/m:top", true},
          {'a', DB_LOCK_WRITE, "/m:top/x", true},
          {'a', UNLOCK, "/m:top"},
          {'b', DB_LOCK_WRITE, "/m:top"},
          {'a', UNLOCK, "/m:top/x"},
          {'b', DB_LOCK_WRITE, "/m:top", true},
          {'a', UNLOCK, "/m:top"}, // no more its own
          {'c', DB_LOCK_WRITE, "/m:top"}});
  }));
}

TEST_F(database_lock_test, the_whole_datastore_excludes_other_handles_locks)
{
  play({{'a', DB_LOCK_WRITE, "/m:top", true},
        {'b', DB_LOCK_WRITE, "/"},
        {'b', DB_LOCK_READ, "/"},
        {'a', DB_LOCK_WRITE, "/", true}, // its own locks do not stand in the way
        {'b', DB_LOCK_READ, "/ext:top"},
        {'a', UNLOCK, "/"},
        {'a', UNLOCK, "/m:top"},
        {'a', DB_LOCK_READ, "/m:top", true},
        {'b', DB_LOCK_READ, "/", true},
        {'c', DB_LOCK_READ, "/ext:top", true}, // joins the lock on everything
        {'c', DB_LOCK_WRITE, "/"},
        {'c', DB_LOCK_READ, "no-path"},
        {'c', DB_LOCK_NONE, "/m:top"}});
  EXPECT_GT(database_lock(database_open(CANDIDATE), DB_LOCK_WRITE, "/"), 0);
}

} // namespace
