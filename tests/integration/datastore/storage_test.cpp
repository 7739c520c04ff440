// What stands in Redis, byte for byte, read back with plain commands.
#include <cstring>

#include "datastore_fixture.h"

namespace {

class storage : public datastore_fixture {
protected:
  std::vector<std::string> hash(const std::string &key) { return redis.command(RUNNING_DB, {"HKEYS", key}); }
  std::string field(const std::string &key, const std::string &name)
  {
    std::vector<std::string> found = redis.command(RUNNING_DB, {"HGET", key, name});
    return found.empty() ? "(none)" : found.front();
  }
};

std::string db_value(int32_t type, const std::string &text)
{
  std::string bytes(sizeof(type), '\0');
  std::memcpy(bytes.data(), &type, sizeof(type));
  return bytes + text + std::string(4, '\0');
}

} // namespace

TEST_F(storage, layout_is_the_documented_one)
{
  ASSERT_TRUE(session->ok(
      edit("<hostname>box</hostname><logging><level>debug</level></logging><dns>10.0.0.2</dns><dns>10.0.0.1</dns>"
           "<tag>say \"hi\"</tag><user><name>alice</name><uid>7</uid><key><index>1</index><data>A</data></key>"
           "<quota xmlns=\"urn:ex-ext\">5</quota></user><read-only/>"
           "<ntp xmlns=\"urn:ex-ext\"><server><address>a.example</address><prefer>true</prefer></server></ntp>")));
  ASSERT_TRUE(session->ok(support::edit_config(
      "candidate", "<routes xmlns=\"urn:ex-sys\"><route><dest>10.0.0.0</dest><mask>8</mask></route></routes>")));
  ASSERT_TRUE(session->ok(support::COMMIT));

  EXPECT_EQ(field("/", "ex-sys"), db_value(1, ""));
  EXPECT_EQ(hash("/"), std::vector<std::string>{"ex-sys"});
  EXPECT_EQ(field("/ex-sys", "system"), db_value(1, ""));
  EXPECT_EQ(field("/ex-sys", "routes"), db_value(1, ""));
  EXPECT_EQ(field("/ex-sys/system", "hostname"), db_value(1, "box"));
  EXPECT_EQ(field("/ex-sys/system", "logging"), db_value(1, ""));
  EXPECT_EQ(field("/ex-sys/system", "read-only"), db_value(1, ""));
  EXPECT_EQ(field("/ex-sys/system/logging", "level"), db_value(1, "debug"));
  EXPECT_EQ(field("/ex-sys/system", "dns"), db_value(2, ""));
  EXPECT_EQ(redis.command(RUNNING_DB, {"LRANGE", "/ex-sys/system/dns", "0", "-1"}),
            (std::vector<std::string>{".=\"10.0.0.2\"", ".=\"10.0.0.1\""}));
  EXPECT_EQ(redis.command(RUNNING_DB, {"LRANGE", "/ex-sys/system/tag", "0", "-1"}),
            std::vector<std::string>{".=\"say \\\"hi\\\"\""});
  EXPECT_EQ(field("/ex-sys/system", "user"), db_value(2, ""));
  EXPECT_EQ(redis.command(RUNNING_DB, {"LRANGE", "/ex-sys/system/user", "0", "-1"}),
            std::vector<std::string>{"name=\"alice\""});
  EXPECT_EQ(field("/ex-sys/system/user[name=\"alice\"]", "uid"), db_value(1, "7"));
  EXPECT_EQ(field("/ex-sys/system/user[name=\"alice\"]", "name"), "(none)"); // keys stand in the predicate only
  EXPECT_EQ(field("/ex-sys/system/user[name=\"alice\"]", "ex-ext:quota"), db_value(1, "5"));
  EXPECT_EQ(field("/ex-sys/system/user[name=\"alice\"]/key[index=\"1\"]", "data"), db_value(1, "A"));
  EXPECT_EQ(field("/ex-sys/system", "ex-ext:ntp"), db_value(1, ""));
  EXPECT_EQ(field("/ex-sys/system/ex-ext:ntp/server[address=\"a.example\"]", "prefer"), db_value(1, "true"));
  EXPECT_EQ(redis.command(RUNNING_DB, {"LRANGE", "/ex-sys/routes/route", "0", "-1"}),
            std::vector<std::string>{"dest=\"10.0.0.0\",mask=\"8\""});
}

TEST_F(storage, deleting_everything_leaves_no_key_of_the_tree)
{
  ASSERT_TRUE(
      session->ok(edit("<hostname>box</hostname><user><name>a</name><key><index>1</index><data>A</data></key></user>"
                       "<user><name>b</name></user><dns>10.0.0.1</dns>")));
  ASSERT_TRUE(session->ok(support::COMMIT));
  ASSERT_TRUE(session->ok(
      edit("<user nc:operation=\"delete\"><name>a</name></user><user nc:operation=\"delete\"><name>b</name></user>")));
  ASSERT_TRUE(session->ok(support::COMMIT));
  EXPECT_EQ(field("/ex-sys/system", "user"), "(none)"); // the list went with its last entry
  EXPECT_TRUE(redis.command(RUNNING_DB, {"KEYS", "/ex-sys/system/user*"}).empty());
  ASSERT_TRUE(session->ok(support::edit_config(
      "candidate",
      "<system xmlns=\"urn:ex-sys\" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" nc:operation=\"delete\"/>")));
  ASSERT_TRUE(session->ok(support::COMMIT));
  EXPECT_TRUE(redis.command(RUNNING_DB, {"KEYS", "/ex-sys/*"}).empty());
}

TEST_F(storage, transaction_state_is_kept_beside_the_tree)
{
  ASSERT_TRUE(session->ok(edit("<hostname>box</hostname>")));
  auto state = [this](int db) {
    std::vector<std::string> found = redis.command(db, {"HGET", "ymgrd-info", "transact-state"});
    int32_t value = 0;
    if (found.size() == 1 && found.front().size() == sizeof(value)) {
      std::memcpy(&value, found.front().data(), sizeof(value));
    }
    return value;
  };
  EXPECT_EQ(state(CANDIDATE_DB), '5'); // published when it is committed
  EXPECT_EQ(state(RUNNING_DB), '1');
  EXPECT_EQ(state(STARTUP_DB), '1');
  ASSERT_TRUE(session->ok(support::COMMIT));
  EXPECT_EQ(state(CANDIDATE_DB), '8');
}

TEST_F(storage, anyxml_comes_back_as_the_markup_or_text_that_was_sent)
{
  for (const char *content : {"<a xmlns=\"urn:v\">1 &lt; 2<!-- --></a><b xmlns=\"urn:w\" x=\"&quot;\"><c/></b>",
                              "a &lt; b &amp; c", "<d/>"}) {
    std::string sent = std::string("<vendor-data>") + content + "</vendor-data>";
    ASSERT_TRUE(session->ok(edit(sent))) << sent;
    std::string kept = data("candidate");
    redis.command(CANDIDATE_DB, {"HSET", "/", "none", "none"}); // a foreign write: Redis is read again
    redis.command(CANDIDATE_DB, {"HDEL", "/", "none"});
    std::string stored = data("candidate");
    for (const std::string &got : {kept, stored}) {
      size_t begin = got.find("<vendor-data");
      std::string element = got.substr(begin, got.find("</vendor-data>") - begin) + "</vendor-data>";
      EXPECT_EQ(support::normalize("<system xmlns=\"urn:ex-sys\">" + element + "</system>"),
                support::normalize("<system xmlns=\"urn:ex-sys\">" + sent + "</system>"));
    }
  }
}
