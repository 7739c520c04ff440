// What other processes leave in Redis, and what requests that change nothing say.
#include "datastore_fixture.h"

using support::COMMIT;
using support::copy_config;
using support::DISCARD_CHANGES;

namespace {

class datastore : public datastore_fixture {
protected:
  void write_from_outside(int db, const std::string &key, const std::string &field, const std::string &text)
  {
    redis.command(db, {"HSET", key, field, std::string("\x01\0\0\0", 4) + text + std::string(4, '\0')});
  }
};

} // namespace

TEST_F(datastore, what_comes_to_nothing_is_logged)
{
  std::string running = tree(RUNNING_DB);
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_TRUE(daemon.wait_for_log("Nothing to be committed."));
  ASSERT_TRUE(session->ok(DISCARD_CHANGES));
  EXPECT_TRUE(daemon.wait_for_log("Nothing to be discarded."));
  EXPECT_EQ(tree(RUNNING_DB), running);
  (void)session->error(edit("<user nc:operation=\"delete\"><name>a</name><uid nc:operation=\"create\">1</uid></user>"));
  EXPECT_TRUE(daemon.wait_for_log("operation (3) differ from parent (4)"));
}

TEST_F(datastore, a_write_of_another_process_is_seen_by_the_next_request)
{
  ASSERT_TRUE(session->ok(edit("<hostname>box</hostname>")));
  ASSERT_TRUE(session->ok(COMMIT));
  ASSERT_TRUE(holds("running", "<hostname>box</hostname>")); // from here on the daemon need not read Redis
  write_from_outside(RUNNING_DB, "/ex-sys/system", "hostname", "foreign");
  EXPECT_TRUE(holds("running", "<hostname>foreign</hostname>"));
  write_from_outside(RUNNING_DB, "/ex-sys/system", "hostname", "foreign-again");
  ASSERT_TRUE(session->ok(edit("<location>hall</location>")));
  EXPECT_TRUE(holds("candidate", "<hostname>foreign-again</hostname>"));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_EQ(tree(RUNNING_DB), tree(CANDIDATE_DB));
  EXPECT_TRUE(holds("running", "<hostname>foreign-again</hostname>"));
  EXPECT_TRUE(holds("running", "<location>hall</location>"));
}

TEST_F(datastore, a_startup_of_another_schema_is_not_copied)
{
  ASSERT_TRUE(session->ok(edit("<hostname>box</hostname>")));
  ASSERT_TRUE(session->ok(COMMIT));
  ASSERT_TRUE(session->ok(copy_config("startup", "<running/>")));
  write_from_outside(STARTUP_DB, "/ex-sys/system", "port", "no-number");
  std::string running = tree(RUNNING_DB);
  std::string candidate = data("candidate");
  EXPECT_EQ(session->error(copy_config("running", "<startup/>")).tag, "operation-failed");
  EXPECT_EQ(session->error(copy_config("candidate", "<startup/>")).tag, "operation-failed");
  EXPECT_EQ(tree(RUNNING_DB), running);
  EXPECT_EQ(data("candidate"), candidate);
  EXPECT_TRUE(session->ok(edit("<hostname>next</hostname>"))); // locks and transactions were given back
}

TEST_F(datastore, get_shows_nothing_of_an_earlier_get)
{
  redis.command(STATUS_DB, {"HSET", "/ex-sys", "state", std::string("\1\0\0\0\0\0\0\0", 8)});
  write_from_outside(STATUS_DB, "/ex-sys/state", "uptime", "42");
  EXPECT_FALSE(contains(session->rpc("<get/>"), "uptime>42<"));
}

TEST_F(datastore, entries_that_fill_several_pieces_are_read_whole)
{
  constexpr int ENTRIES = 2000;
  std::string users;
  std::string selected;
  for (int i = 0; i < ENTRIES; i++) {
    users += "<user><name>u" + std::to_string(i) + "</name></user>";
    selected += "<user><name>u" + std::to_string(i) + "</name><shell/></user>";
  }
  ASSERT_TRUE(session->ok(edit(users)));
  ASSERT_TRUE(session->ok(COMMIT));
  for (const std::string &filter : {system(selected), system("<user><shell>/bin/sh</shell><name/></user>")}) {
    const std::string read = "<get-config><source><running/></source><filter>" + filter + "</filter></get-config>";
    std::string kept = session->rpc(read);
    redis.command(RUNNING_DB, {"SET", "/foreign", "1"}); // from here on Redis is read
    std::string stored = session->rpc(read);
    for (int i = 0; i < ENTRIES; i++) {
      std::string name = "<name>u" + std::to_string(i) + "</name>";
      ASSERT_TRUE(contains(kept, name) && contains(stored, name)) << i;
    }
  }
}

TEST_F(datastore, mixed_content_of_an_anyxml_gains_no_blanks)
{
  const std::string content = "<x xmlns=\"urn:v\">1 &lt; 2<y/></x>";
  ASSERT_TRUE(session->ok(edit("<vendor-data>" + content + "</vendor-data>")));
  EXPECT_TRUE(holds("candidate", content));
}
