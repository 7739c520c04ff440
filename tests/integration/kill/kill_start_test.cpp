// kill -9 while the daemon starts.
#include "kill_fixture.h"

namespace {

class kill_in_start : public kill_fixture {
protected:
  // Starts the daemon once more before each write of a start from what `prepare` leaves behind.
  template <class PREPARE>
  void kill_before_each_write(PREPARE prepare)
  {
    ASSERT_NO_FATAL_FAILURE(prepare());
    watch();
    ASSERT_TRUE(daemon.start());
    const size_t count = writes().size();
    ASSERT_GT(count, 0U);
    for (size_t cut = 0; cut < count && !HasFailure(); cut++) {
      SCOPED_TRACE(cut);
      ASSERT_NO_FATAL_FAILURE(prepare());
      watch(cut);
      ASSERT_TRUE(daemon.launch());
      ASSERT_NO_FATAL_FAILURE(expect_cut());
      ASSERT_NO_FATAL_FAILURE(check_start());
      ASSERT_NO_FATAL_FAILURE(check_work());
    }
  }
};

} // namespace

TEST_F(kill_in_start, on_an_empty_server_is_made_good_by_the_next_start)
{
  kill_before_each_write([this] {
    begin_round({});
    end_round();
    redis.command(SCHEMA_DB, {"FLUSHDB"});
    redis.command(RUNNING_DB, {"FLUSHDB"});
  });
}

TEST_F(kill_in_start, while_a_cut_off_change_is_undone_leaves_nothing_of_it)
{
  ASSERT_NO_FATAL_FAILURE(begin_round({}));
  watch();
  ASSERT_TRUE(session->ok(support::edit_config("running", EDIT)));
  const std::vector<redis_write_t> all = writes();
  auto exec = std::find_if(all.begin(), all.end(), [](const auto &write) { return write.command == "EXEC"; });
  const auto flushed = static_cast<size_t>(exec - all.begin()) + 1; // the change stands, its commit is still to come
  kill_before_each_write([this, flushed] {
    begin_round({});
    kill_in(support::edit_config("running", EDIT), flushed);
    ASSERT_NE(tree(RUNNING_DB), tree(STARTUP_DB));
    ASSERT_NE(redis.dump(RUNNING_DB + 1), "");
  });
}
