// Filtered reads: the same answer from the kept tree and from the database; get without publishers of state.
#include <cstring>

#include "datastore_fixture.h"

namespace {

constexpr int STATUS_DB = 8;

typedef struct _filter_case {
  std::string what;
  std::string filter;
  std::string expected; // content of <data>, siblings in any order
} filter_case_t;

std::string sys(const std::string &content)
{
  return "<system xmlns=\"urn:ex-sys\">" + content + "</system>";
}
std::string routes(const std::string &content)
{
  return "<routes xmlns=\"urn:ex-sys\">" + content + "</routes>";
}
std::string ntp(const std::string &content)
{
  return "<ntp xmlns=\"urn:ex-ext\">" + content + "</ntp>";
}

const std::string USER_A = "<user><name>a</name><uid>7</uid><shell>/bin/sh</shell><key><index>1</index><data>A1</data>"
                           "</key><key><index>2</index><data>A2</data></key></user>";

// Each asks for another way of reading.
const filter_case_t filter_cases[] = {
    {"entry by key", sys("<user><name> a </name></user>"), sys(USER_A)},
    {"child of an entry", sys("<user><name>b</name><uid/></user>"), sys("<user><name>b</name><uid>8</uid></user>")},
    {"absent entry", sys("<user><name>zz</name><uid/></user>"), ""},
    {"absent child of an entry", sys("<user><name>c</name><uid/></user>"), sys("<user><name>c</name></user>")},
    {"entry without content of its own", sys("<rule><id>say \"it's\"</id><source/></rule>"),
     sys("<rule><id>say \"it's\"</id></rule>")},
    {"quote in a key", sys("<rule><id>o'r2\\</id><id/></rule>"), sys("<rule><id>o'r2\\</id></rule>")},
    {"entry of an entry, key not canonical", sys("<user><name>a</name><key><index>02</index><data/></key></user>"),
     sys("<user><name>a</name><key><index>2</index><data>A2</data></key></user>")},
    {"entries and a leaf", sys("<user><name>b</name><uid/></user><location/><user><name>a</name><uid/></user>"),
     sys("<user><name>b</name><uid>8</uid></user><user><name>a</name><uid>7</uid></user><location>here</location>")},
    {"entry named twice", sys("<user><name>a</name><uid/></user>") + sys("<user><name>a</name><shell/></user>"),
     sys("<user><name>a</name><uid>7</uid><shell>/bin/sh</shell></user>")},
    {"two keys", routes("<route><mask>8</mask><dest>10.0.0.0</dest><next-hop/></route>"),
     routes("<route><dest>10.0.0.0</dest><mask>8</mask><next-hop>10.0.0.1</next-hop></route>")},
    {"one of two keys", routes("<route><mask>16</mask><dest/></route>"),
     routes("<route><dest>10.1.0.0</dest><mask>16</mask></route>")},
    {"content other than a key", sys("<user><uid>8</uid><name/></user>"),
     sys("<user><uid>8</uid><name>b</name></user>")},
    {"leaf-list content", sys("<dns>10.0.0.2</dns><location/>"), sys("<dns>10.0.0.2</dns><location>here</location>")},
    {"augmented", sys(ntp("<server><address>t</address><prefer/></server>")),
     sys(ntp("<server><address>t</address><prefer>true</prefer></server>"))},
    {"no namespace", "<system xmlns=\"\"><ntp><server><address>t</address><prefer/></server></ntp></system>",
     sys(ntp("<server><address>t</address><prefer>true</prefer></server>"))},
    {"identity with a prefix",
     "<x:system xmlns:x=\"urn:ex-sys\"><x:transport> x:ssh </x:transport></x:system>" +
         sys("<transport xmlns:y=\"urn:ex-sys\">y:ssh</transport><location/>"),
     "ALL"},
    {"state in a configuration", "<state xmlns=\"urn:ex-sys\"/>", ""},
    {"whole module", sys(""), "ALL"},
};

class filtered_read : public datastore_fixture {
protected:
  void SetUp() override
  {
    datastore_fixture::SetUp();
    ASSERT_TRUE(session->ok(
        edit("<location>here</location><transport>ssh</transport><dns>10.0.0.1</dns><dns>10.0.0.2</dns>" + USER_A +
             "<user><name>b</name><uid>8</uid></user><user><name>c</name></user>"
             "<rule><id>o'r2\\</id></rule><rule><id>say "
             "\"it's\"</id></rule><rule><id>r1</id><action>permit</action></rule>" +
             ntp("<server><address>t</address><prefer>true</prefer></server>"))));
    ASSERT_TRUE(session->ok(support::edit_config(
        "candidate", routes("<route><dest>10.0.0.0</dest><mask>8</mask><next-hop>10.0.0.1</next-hop></route>"
                            "<route><dest>10.1.0.0</dest><mask>16</mask></route>"))));
    ASSERT_TRUE(session->ok(support::COMMIT));
  }

  static std::string filtered(const std::string &operation, const std::string &filter)
  {
    std::string source = operation == "get" ? "" : "<source><running/></source>";
    return "<" + operation + ">" + source + "<filter>" + filter + "</filter></" + operation + ">";
  }
  std::string read(const std::string &operation, const std::string &filter,
                   support::siblings order = support::siblings::sorted)
  {
    return support::reply_data(session->rpc(filtered(operation, filter)), order);
  }
  // A write of another process makes the daemon drop the tree that it keeps: the next reads go to the database.
  void write_from_outside() { redis.command(RUNNING_DB, {"SET", "/foreign", "1"}); }
};

} // namespace

TEST_F(filtered_read, kept_tree_and_database_give_the_same_answer)
{
  std::string all = read("get-config", sys(""));
  for (const char *source : {"kept tree", "database"}) {
    for (const filter_case_t &row : filter_cases) {
      SCOPED_TRACE(source + (": " + row.what));
      std::string expected = row.expected == "ALL"
                                 ? all
                                 : support::reply_data("<data>" + row.expected + "</data>", support::siblings::sorted);
      EXPECT_EQ(read("get-config", row.filter), expected);
      EXPECT_EQ(read("get", row.filter), expected);
    }
    std::string in_user_order = sys("<rule><id>o'r2\\</id></rule><rule><id>r1</id></rule>");
    EXPECT_EQ(read("get-config", sys("<rule><id>r1</id><id/></rule><rule><id>o'r2\\</id><id/></rule>"),
                   support::siblings::in_order),
              support::reply_data("<data>" + in_user_order + "</data>"));
    write_from_outside();
  }
  EXPECT_EQ(daemon.log_text().find("[ERROR]"), std::string::npos); // nothing absent is a fault
}

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

TEST_F(filtered_read, unusable_filters_are_refused_by_both_operations)
{
  for (const char *operation : {"get-config", "get"}) {
    for (const std::string &filter : {sys("<no-such/>"), std::string("<system xmlns=\"urn:unknown\"/>"),
                                      std::string("<restart-service xmlns=\"urn:ex-sys\"/>"), sys("text"),
                                      sys("<location><deeper/></location>"), sys("mixed<location/>")}) {
      support::rpc_error_t error = session->error(filtered(operation, filter));
      EXPECT_EQ(error.tag, "operation-not-supported") << filter;
      EXPECT_EQ(error.message, "unexpected filter type.") << filter;
    }
    EXPECT_EQ(read(operation, ""), support::reply_data("<data/>"));
  }
  support::rpc_error_t error = session->error("<get><filter type=\"xpath\" select=\"/system\"/></get>");
  EXPECT_EQ(error.message, "unexpected filter type.");
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
