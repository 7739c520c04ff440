// Filters with many entries; get without publishers of state.
#include <cstring>

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
  constexpr int ENTRIES = 2000; // several pieces of text
  std::string users;
  std::string filter;
  for (int i = 0; i < ENTRIES; i++) {
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
  const std::string by_content = sys("<user><shell>/bin/sh</shell><name/></user>");
  for (int round = 0; round < 2; round++) {
    EXPECT_EQ(count(read("get-config", sys(filter)), "<name>u"), ENTRIES);
    EXPECT_EQ(count(read("get-config", by_content), "<name>u"), ENTRIES);
    write_from_outside();
  }
}

TEST_F(filtered_read, get_shows_running_and_nothing_of_an_earlier_get)
{
  auto read_all = [this] {
    std::string text = support::reply_data(session->rpc("<get/>"), support::siblings::sorted);
    size_t begin = text.find("<daemon "); // the daemon's own state, which differs each time
    size_t end = text.find("</daemon>\n");
    return begin < end ? text.erase(begin, end + std::strlen("</daemon>\n") - begin) : text;
  };
  std::string expected = support::reply_data(session->rpc(support::get_config("running")), support::siblings::sorted);
  EXPECT_EQ(read_all(), expected);
  redis.command(STATUS_DB, {"HSET", "/ex-sys", "state", std::string("\1\0\0\0\0\0\0\0", 8)});
  redis.command(STATUS_DB,
                {"HSET", "/ex-sys/state", "uptime", std::string("\1\0\0\0", 4) + "42" + std::string(4, '\0')});
  EXPECT_EQ(read_all(), expected);

  ASSERT_TRUE(session->ok(edit("<location>there</location>"))); // pending in candidate
  EXPECT_EQ(read("get", sys("<location/>")),
            support::reply_data("<data>" + sys("<location>here</location>") + "</data>"));
  ASSERT_TRUE(session->ok(support::COMMIT));
  EXPECT_EQ(read("get", sys("<location/>")),
            support::reply_data("<data>" + sys("<location>there</location>") + "</data>"));
}
