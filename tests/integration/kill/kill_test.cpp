// kill -9 before every single write of an operation, and at random moments.
#include <cstdlib>
#include <random>
#include <thread>

#include "kill_fixture.h"

using support::copy_config;

namespace {

typedef struct _kill_case {
  std::string name;
  std::vector<std::string> before; // done in peace
  std::string operation;
  int db;             // the datastore
  std::string states; // whose persistent state takes these values
} kill_case_t;

// The name in messages of the test framework.
void PrintTo(const kill_case_t &row, std::ostream *stream)
{
  *stream << row.name;
}

class kill_in_operation : public kill_fixture, public testing::WithParamInterface<kill_case_t> {
public:
  static std::vector<kill_case_t> cases()
  {
    const std::string config = std::string("<config>") + FURTHER_EDIT + "</config>";
    const std::string edit = support::edit_config("candidate", EDIT);
    return {
        {"edit_of_candidate", {}, edit, CANDIDATE_DB, "12345"},
        {"second_edit_of_candidate", {edit}, support::edit_config("candidate", FURTHER_EDIT), CANDIDATE_DB, "12345"},
        {"edit_of_running", {}, support::edit_config("running", EDIT), RUNNING_DB, "12345678"},
        {"discard_changes", {edit}, support::DISCARD_CHANGES, CANDIDATE_DB, "148"},
        {"commit", {LOCK, edit}, support::COMMIT, CANDIDATE_DB, "55678"},
        {"copy_of_a_config_to_running", {}, copy_config("running", config), RUNNING_DB, "12345678"},
        {"copy_of_a_config_to_candidate", {}, copy_config("candidate", config), CANDIDATE_DB, "12345"},
        {"copy_of_running_to_candidate", {edit}, copy_config("candidate", "<running/>"), CANDIDATE_DB, "123478"},
        {"copy_to_startup",
         {support::edit_config("running", EDIT)},
         copy_config("startup", "<running/>"),
         STARTUP_DB,
         "123478"},
        {"get", {}, "<get/>", STATUS_DB, ""},
        {"delete_of_startup", {}, "<delete-config><target><startup/></target></delete-config>", STARTUP_DB, "12478"},
    };
  }
};

class kill_at_random : public kill_fixture {
protected:
  // Ends where it began.
  const std::vector<std::string> cycle = {support::edit_config("candidate", EDIT),
                                          support::COMMIT,
                                          support::edit_config("running", FURTHER_EDIT),
                                          support::edit_config("candidate", LAST_EDIT),
                                          support::DISCARD_CHANGES,
                                          support::edit_config("candidate", DELETE_ALL),
                                          support::edit_config("candidate", BEGINNING),
                                          support::COMMIT};

  std::string state_in(int db)
  {
    return redis.command(db, {"HGET", "ymgrd-info", "transact-state"}).front().substr(0, 1);
  }

  // Goes through the cycle until the daemon has gone.
  void work()
  {
    for (size_t i = 0; ymgr_rpc(session->client(), cycle[i % cycle.size()]); i++) {
    }
  }
};

} // namespace

TEST_P(kill_in_operation, before_any_write_is_forgotten_by_the_next_start)
{
  const kill_case_t &row = GetParam();
  ASSERT_NO_FATAL_FAILURE(begin_round({}));
  ASSERT_NO_FATAL_FAILURE(check_work());
  ASSERT_NO_FATAL_FAILURE(begin_round(row.before));
  const std::string startup = tree(STARTUP_DB);
  const std::string running = tree(RUNNING_DB);
  watch();
  const std::string reply = session->rpc(row.operation);
  ASSERT_FALSE(reply.empty() || support::find_error(reply)) << reply;
  const std::vector<redis_write_t> all = writes();
  ASSERT_EQ(states_of(row.db), row.states);
  ASSERT_GT(all.size(), row.states.size()); // the data itself was written, too
  const std::string new_startup = tree(STARTUP_DB);
  const std::string new_running = tree(RUNNING_DB);
  end_round();
  ASSERT_NO_FATAL_FAILURE(check_smooth_start({new_running})); // what was answered stands
  ASSERT_NO_FATAL_FAILURE(check_start());
  ASSERT_NO_FATAL_FAILURE(check_work());

  int cut_publications = 0;
  for (size_t cut = 0; cut < all.size() && !HasFailure(); cut++) {
    SCOPED_TRACE("before write " + std::to_string(cut) + ", " + all[cut].command);
    ASSERT_NO_FATAL_FAILURE(begin_round(row.before));
    ASSERT_NO_FATAL_FAILURE(kill_in(row.operation, cut));
    cut_publications += check_publication({running, new_running}) ? 1 : 0;
    EXPECT_TRUE(tree(STARTUP_DB) == startup || tree(STARTUP_DB) == new_startup) << "half of a change";
    ASSERT_NO_FATAL_FAILURE(check_start());
    ASSERT_NO_FATAL_FAILURE(check_work());
  }
  EXPECT_EQ(cut_publications > 0, new_running != running);
}

INSTANTIATE_TEST_SUITE_P(operations, kill_in_operation, testing::ValuesIn(kill_in_operation::cases()),
                         [](const auto &row) { return row.param.name; });

TEST_F(kill_at_random, during_a_stream_of_edits_is_forgotten_by_the_next_start)
{
  std::set<std::string> committed;
  ASSERT_NO_FATAL_FAILURE(begin_round({}));
  for (const std::string &operation : cycle) {
    ASSERT_TRUE(session->ok(operation));
    committed.insert(tree(RUNNING_DB));
  }
  ASSERT_EQ(committed.size(), 3U);
  ASSERT_NO_FATAL_FAILURE(check_work());

  std::mt19937 random(1); // the moments differ from run to run anyway
  std::map<std::string, int> cut_in;
  for (int round = 0; round < random_rounds() && !HasFailure(); round++) {
    SCOPED_TRACE(round);
    ASSERT_NO_FATAL_FAILURE(begin_round({}));
    auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 50000);
    std::thread stream([this] { work(); });
    std::this_thread::sleep_until(end);
    daemon.kill_now();
    stream.join();
    end_round();
    cut_in["running at " + state_in(RUNNING_DB) + ", candidate at " + state_in(CANDIDATE_DB) +
           (redis.dump(RUNNING_DB + 1).empty() ? "" : ", a change to be undone")]++;
    ASSERT_NO_FATAL_FAILURE(check_smooth_start(committed));
    ASSERT_NO_FATAL_FAILURE(check_start());
    ASSERT_NO_FATAL_FAILURE(check_work());
  }
  for (const auto &[moment, times] : cut_in) {
    std::cout << times << " with " << moment << "\n";
  }
}
