// commit and discard-changes: running changes at the commit, all at once, and candidate follows running.
#include "datastore_fixture.h"

using support::COMMIT;
using support::DISCARD_CHANGES;

namespace {

class commit : public datastore_fixture {};

} // namespace

TEST_F(commit, running_is_unchanged_until_commit_and_equals_candidate_after_it)
{
  std::string before = dump(RUNNING_DB);
  ASSERT_TRUE(session->ok(edit("<hostname>box</hostname><user><name>alice</name></user><dns>10.0.0.1</dns>")));
  EXPECT_EQ(dump(RUNNING_DB), before);
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_EQ(dump(RUNNING_DB), dump(CANDIDATE_DB));
  ASSERT_TRUE(session->ok(
      edit("<user nc:operation=\"delete\"><name>alice</name></user><dns nc:operation=\"delete\">10.0.0.1</dns>"
           "<hostname>next</hostname>")));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_EQ(dump(RUNNING_DB), dump(CANDIDATE_DB));
  EXPECT_FALSE(holds("running", "alice"));
  EXPECT_TRUE(holds("running", "next"));
}

TEST_F(commit, discard_restores_candidate_key_for_key)
{
  ASSERT_TRUE(session->ok(
      edit("<hostname>box</hostname><user><name>alice</name><key><index>1</index><data>A</data></key></user>")));
  ASSERT_TRUE(session->ok(COMMIT));
  std::string before = dump(CANDIDATE_DB);
  ASSERT_TRUE(session->ok(edit("<hostname>other</hostname><user nc:operation=\"delete\"><name>alice</name></user>"
                               "<user><name>bob</name></user><tag>new</tag>")));
  ASSERT_NE(dump(CANDIDATE_DB), before);
  ASSERT_TRUE(session->ok(DISCARD_CHANGES));
  EXPECT_EQ(dump(CANDIDATE_DB), before);
  EXPECT_TRUE(holds("candidate", "alice"));
}

TEST_F(commit, entries_taken_out_and_put_back_reach_running_at_their_new_place)
{
  ASSERT_TRUE(session->ok(edit("<dns>10.0.0.1</dns><dns>10.0.0.2</dns>")));
  ASSERT_TRUE(session->ok(COMMIT));
  ASSERT_TRUE(session->ok(edit("<dns nc:operation=\"delete\">10.0.0.1</dns><dns>10.0.0.1</dns>")));
  EXPECT_TRUE(holds("running", "<dns>10.0.0.1</dns><dns>10.0.0.2</dns>"));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_TRUE(holds("running", "<dns>10.0.0.2</dns><dns>10.0.0.1</dns>"));
  ASSERT_TRUE(session->ok(edit("<dns nc:operation=\"delete\">10.0.0.2</dns>")));
  ASSERT_TRUE(session->ok(edit("<dns>10.0.0.2</dns>")));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_TRUE(holds("running", "<dns>10.0.0.1</dns><dns>10.0.0.2</dns>"));
  EXPECT_EQ(dump(RUNNING_DB), dump(CANDIDATE_DB));
}

TEST_F(commit, what_comes_to_nothing_is_logged)
{
  std::string running = dump(RUNNING_DB);
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_TRUE(daemon.wait_for_log("Nothing to be committed."));
  ASSERT_TRUE(session->ok(DISCARD_CHANGES));
  EXPECT_TRUE(daemon.wait_for_log("Nothing to be discarded."));
  EXPECT_EQ(dump(RUNNING_DB), running);
  (void)session->error(edit("<user nc:operation=\"delete\"><name>a</name><uid nc:operation=\"create\">1</uid></user>"));
  EXPECT_TRUE(daemon.wait_for_log("operation (3) differ from parent (4)"));
}

TEST_F(commit, a_write_of_another_process_is_seen_by_the_next_request)
{
  auto write_hostname = [this](const std::string &text) {
    std::string value = std::string("\x01\0\0\0", 4) + text + std::string(4, '\0');
    redis.command(RUNNING_DB, {"HSET", "/ex-sys/system", "hostname", value});
  };
  ASSERT_TRUE(session->ok(edit("<hostname>box</hostname>")));
  ASSERT_TRUE(session->ok(COMMIT));
  ASSERT_TRUE(holds("running", "<hostname>box</hostname>")); // from here on the daemon need not read Redis
  write_hostname("foreign");
  EXPECT_TRUE(holds("running", "<hostname>foreign</hostname>"));
  write_hostname("foreign-again");
  ASSERT_TRUE(session->ok(edit("<location>hall</location>")));
  EXPECT_TRUE(holds("candidate", "<hostname>foreign-again</hostname>"));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_EQ(dump(RUNNING_DB), dump(CANDIDATE_DB));
  EXPECT_TRUE(holds("running", "<hostname>foreign-again</hostname>"));
  EXPECT_TRUE(holds("running", "<location>hall</location>"));
}

TEST_F(commit, a_lost_redis_fails_the_request_and_is_found_again_for_the_next)
{
  ASSERT_TRUE(session->ok(edit("<hostname>box</hostname>")));
  redis.kill_now();
  EXPECT_FALSE(session->error(edit("<location>hall</location>")).tag.empty());
  EXPECT_FALSE(session->error(COMMIT).tag.empty());
  EXPECT_FALSE(session->error(support::get_config("running")).tag.empty());
  redis.start();
  EXPECT_TRUE(session->ok(edit("<hostname>again</hostname>")));
  EXPECT_TRUE(session->ok(COMMIT));
  EXPECT_TRUE(holds("running", "again"));
  EXPECT_TRUE(daemon.running());
}
