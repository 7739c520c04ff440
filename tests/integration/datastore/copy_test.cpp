// Operations on whole datastores, and edits that are tested or set without a test.
#include "datastore_fixture.h"

using support::COMMIT;
using support::DISCARD_CHANGES;

namespace {

class whole_datastore : public datastore_fixture {
protected:
  static std::string on(const std::string &operation, const std::string &target)
  {
    return "<" + operation + "><target><" + target + "/></target></" + operation + ">";
  }
  static std::string copy(const std::string &source, const std::string &target)
  {
    return "<copy-config><target><" + target + "/></target><source>" + source + "</source></copy-config>";
  }
  static std::string config(const std::string &content) { return "<config>" + system(content) + "</config>"; }
  void commit(const std::string &content)
  {
    ASSERT_TRUE(session->ok(edit(content)));
    ASSERT_TRUE(session->ok(COMMIT));
  }
  std::string sorted(const std::string &datastore)
  {
    return support::reply_data(session->rpc(support::get_config(datastore)), support::siblings::sorted);
  }
  // What the daemon serves without reading Redis is what Redis holds.
  testing::AssertionResult serves_what_is_stored(const std::string &datastore)
  {
    std::string served = sorted(datastore);
    redis.command(RUNNING_DB, {"SET", "of-another-process", "x"}); // all that is kept is void from here on
    redis.command(RUNNING_DB, {"DEL", "of-another-process"});
    std::string stored = sorted(datastore);
    return served == stored ? testing::AssertionSuccess()
                            : testing::AssertionFailure() << "served " << served << "\nstored " << stored;
  }

  static constexpr char BASE[] = "<hostname>box</hostname><user><name>alice</name><uid>7</uid></user>"
                                 "<rule><id>a</id></rule><rule><id>b</id></rule><rule><id>c</id></rule>";
  static constexpr char SAME_UID[] = "<user><name>bob</name><uid>7</uid></user>"; // as alice's: not valid
};

} // namespace

TEST_F(whole_datastore, what_was_copied_to_startup_is_what_runs_after_a_restart_until_startup_is_deleted)
{
  commit(BASE);
  ASSERT_TRUE(session->ok(copy("<running/>", "startup")));
  EXPECT_EQ(dump(RUNNING_DB), dump(STARTUP_DB));
  commit("<hostname>later</hostname>");
  daemon.kill_now();
  ASSERT_TRUE(daemon.start());
  session = &connect();
  EXPECT_TRUE(holds("running", "<hostname>box</hostname>"));
  EXPECT_EQ(dump(RUNNING_DB), dump(STARTUP_DB));
  ASSERT_TRUE(session->ok(on("delete-config", "startup")));
  EXPECT_EQ(dump(STARTUP_DB), "");
  EXPECT_TRUE(holds("running", "<hostname>box</hostname>"));
  ASSERT_TRUE(daemon.restart());
  session = &connect();
  EXPECT_EQ(data("running"), "");
}

TEST_F(whole_datastore, a_copy_replaces_all_and_keeps_the_order_of_entries)
{
  const std::string other = "<location>hall</location><rule><id>c</id></rule><rule><id>a</id></rule>";
  commit(BASE);
  ASSERT_TRUE(session->ok(copy("<running/>", "startup")));
  ASSERT_TRUE(session->ok(copy(config(other), "running")));
  EXPECT_TRUE(holds("running", "hall"));
  EXPECT_FALSE(holds("running", "alice"));
  EXPECT_EQ(redis.command(RUNNING_DB, {"LRANGE", "/ex-sys/system/rule", "0", "-1"}),
            (std::vector<std::string>{"id=\"c\"", "id=\"a\""}));
  EXPECT_TRUE(serves_what_is_stored("running"));

  ASSERT_TRUE(session->ok(edit("<hostname>pending</hostname>")));
  ASSERT_TRUE(session->ok(copy("<startup/>", "candidate")));
  EXPECT_TRUE(serves_what_is_stored("candidate"));
  EXPECT_EQ(sorted("candidate"), sorted("startup"));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_EQ(sorted("running"), sorted("startup"));
  EXPECT_EQ(redis.command(RUNNING_DB, {"LRANGE", "/ex-sys/system/rule", "0", "-1"}),
            redis.command(STARTUP_DB, {"LRANGE", "/ex-sys/system/rule", "0", "-1"}));

  ASSERT_TRUE(session->ok(copy("<config/>", "candidate")));
  EXPECT_EQ(data("candidate"), "");
  ASSERT_TRUE(session->ok(copy("<running/>", "candidate"))); // and nothing is pending
  EXPECT_EQ(dump(CANDIDATE_DB), dump(RUNNING_DB));
  EXPECT_TRUE(serves_what_is_stored("candidate"));
  EXPECT_TRUE(session->ok(copy(config(other), "running")));
}

TEST_F(whole_datastore, a_copy_that_is_not_valid_changes_nothing)
{
  commit(BASE);
  ASSERT_TRUE(session->ok(copy("<running/>", "startup")));
  // As if startup had been written under another schema.
  std::string value = std::string("\x01\0\0\0", 4) + "no-number" + std::string(4, '\0');
  redis.command(STARTUP_DB, {"HSET", "/ex-sys/system", "port", value});
  std::string running = dump(RUNNING_DB);
  std::string candidate = sorted("candidate");
  EXPECT_EQ(session->error(copy("<startup/>", "running")).tag, "operation-failed");
  EXPECT_EQ(session->error(copy("<startup/>", "candidate")).tag, "operation-failed");
  for (const char *target : {"running", "candidate"}) {
    EXPECT_EQ(session->error(copy(config(std::string(BASE) + SAME_UID), target)).app_tag, "data-not-unique") << target;
    EXPECT_EQ(session->error(copy(config("<hostname nc:operation=\"delete\"/>"), target)).tag, "bad-attribute");
  }
  EXPECT_EQ(dump(RUNNING_DB), running);
  EXPECT_EQ(sorted("candidate"), candidate);
  EXPECT_TRUE(session->ok(edit("<hostname>next</hostname>"))); // locks and transactions were given back
}

TEST_F(whole_datastore, test_only_leaves_no_trace)
{
  commit(BASE);
  ASSERT_TRUE(session->ok(edit("<location>hall</location>")));
  auto state = [this] { return redis.dump(RUNNING_DB) + redis.dump(CANDIDATE_DB) + sorted("candidate"); };
  std::string before = state();
  const std::string test_only = "<test-option>test-only</test-option>";
  EXPECT_TRUE(session->ok(edit("<hostname>tested</hostname><user nc:operation=\"delete\"><name>alice</name></user>"
                               "<rule yang:insert=\"first\"><id>c</id></rule>",
                               test_only)));
  EXPECT_EQ(session->error(edit(SAME_UID, test_only)).app_tag, "data-not-unique");
  EXPECT_EQ(session->error(edit("<location nc:operation=\"create\">x</location>", test_only)).tag, "data-exists");
  EXPECT_EQ(state(), before);
  ASSERT_TRUE(session->ok(DISCARD_CHANGES));
  EXPECT_TRUE(session->ok(support::edit_config("running", system("<hostname>tested</hostname>"), test_only)));
  EXPECT_TRUE(holds("running", "<hostname>box</hostname>"));
  EXPECT_TRUE(serves_what_is_stored("running"));
}

TEST_F(whole_datastore, what_was_set_without_a_test_is_tested_before_it_runs)
{
  const std::string set = "<test-option>set</test-option>";
  commit(BASE);
  std::string running = dump(RUNNING_DB);
  EXPECT_EQ(session->error(support::edit_config("running", system(SAME_UID), set)).app_tag, "data-not-unique");
  ASSERT_TRUE(session->ok(edit(SAME_UID, set)));
  EXPECT_EQ(session->error(COMMIT).app_tag, "data-not-unique");
  EXPECT_EQ(dump(RUNNING_DB), running);
  EXPECT_TRUE(holds("candidate", "bob")); // to be mended
  EXPECT_TRUE(serves_what_is_stored("candidate"));
  EXPECT_EQ(session->error(edit("<location>hall</location>")).app_tag, "data-not-unique");
  EXPECT_EQ(session->error(edit("<hostname>box</hostname>")).app_tag, "data-not-unique"); // nor one without change
  ASSERT_TRUE(session->ok(edit("<location>hall</location>", set)));
  EXPECT_EQ(session->error(COMMIT).app_tag, "data-not-unique");
  ASSERT_TRUE(session->ok(edit("<user><name>bob</name><uid>8</uid></user>", set)));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_TRUE(holds("running", "bob"));
  EXPECT_TRUE(holds("running", "hall"));
  ASSERT_TRUE(session->ok(edit("<user><name>bob</name><uid>7</uid></user>", set)));
  ASSERT_TRUE(session->ok(DISCARD_CHANGES)); // nothing untested is left
  EXPECT_TRUE(session->ok(edit("<location>cellar</location>")));
}
