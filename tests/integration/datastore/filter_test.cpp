// Filters with many entries; get without publishers of state.
#include "datastore_fixture.h"

namespace {

constexpr int STATUS_DB = 8;

std::string sys(const std::string &content)
{
  return "<system xmlns=\"urn:ex-sys\">" + content + "</system>";
}

class filtered_read : public datastore_fixture {
protected:
  void SetUp() override
  {
    datastore_fixture::SetUp();
    ASSERT_TRUE(session->ok(edit("<location>here</location><user><name>a</name></user>")));
    ASSERT_TRUE(session->ok(support::COMMIT));
  }

  std::string read(const std::string &operation, const std::string &filter)
  {
    std::string source = operation == "get" ? "" : "<source><running/></source>";
    return support::reply_data(
        session->rpc("<" + operation + ">" + source + "<filter>" + filter + "</filter></" + operation + ">"));
  }
  // A write of another process makes the daemon drop the tree that it keeps: the next reads go to the database.
  void write_from_outside() { redis.command(RUNNING_DB, {"SET", "/foreign", "1"}); }
};

} // namespace

TEST_F(filtered_read, more_entries_than_are_read_one_by_one)
{
  std::string users;
  std::string filter;
  for (int i = 0; i < 500; i++) {
    users += "<user><name>u" + std::to_string(i) + "</name></user>";
    filter += "<user><name>u" + std::to_string(i) + "</name><shell/></user>";
  }
  ASSERT_TRUE(session->ok(edit(users)));
  ASSERT_TRUE(session->ok(support::COMMIT));
  auto count = [](const std::string &text, const std::string &part) {
    int found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      found++;
    }
    return found;
  };
  EXPECT_EQ(count(read("get-config", sys(filter)), "<name>u"), 500);
  write_from_outside();
  EXPECT_EQ(count(read("get-config", sys(filter)), "<name>u"), 500);
}

TEST_F(filtered_read, get_shows_running_and_nothing_of_an_earlier_get)
{
  std::string expected = support::reply_data(session->rpc(support::get_config("running")), support::siblings::sorted);
  EXPECT_EQ(support::reply_data(session->rpc("<get/>"), support::siblings::sorted), expected);
  redis.command(STATUS_DB, {"HSET", "/ex-sys", "state", std::string("\1\0\0\0\0\0\0\0", 8)});
  redis.command(STATUS_DB,
                {"HSET", "/ex-sys/state", "uptime", std::string("\1\0\0\0", 4) + "42" + std::string(4, '\0')});
  EXPECT_EQ(support::reply_data(session->rpc("<get/>"), support::siblings::sorted), expected);

  ASSERT_TRUE(session->ok(edit("<location>there</location>"))); // pending in candidate
  EXPECT_EQ(read("get", sys("<location/>")),
            support::reply_data("<data>" + sys("<location>here</location>") + "</data>"));
  ASSERT_TRUE(session->ok(support::COMMIT));
  EXPECT_EQ(read("get", sys("<location/>")),
            support::reply_data("<data>" + sys("<location>there</location>") + "</data>"));
}
