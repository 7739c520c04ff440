#include "schema_fixture.h"
#include "ymgrd/core/context.h"

using namespace std::string_literals;

namespace {

class schema_database : public schema_fixture {
protected:
  // A record such as the modules' nodes have.
  void plant(std::string_view key) { EXPECT_NE(nullptr, redis({"HSET", key, "field", "value"})); }
  bool exists(std::string_view key)
  {
    redis_reply_ptr reply = redis({"EXISTS", key});
    return reply != nullptr && reply->integer == 1;
  }
  bool logged(const std::string &text) const { return log().find(text) != std::string::npos; }
};

const std::vector<profile_module_t> both = {{"ex", "2026-01-01", {}, {}}, {"ex-a", "2026-01-01", {}, {}}};

} // namespace

TEST_F(schema_database, record_holds_revision_prefix_and_namespace)
{
  const std::string long_prefix(40, 'x');
  write_module("ex", "2026-01-01", "");
  write_file("long.yang", "module long { namespace 'urn:long'; prefix " + long_prefix + "; revision 2026-02-02; }");
  ASSERT_EQ(0, load({{"ex", "2026-01-01", {}, {}}, {"long", "2026-02-02", {}, {}}}));
  EXPECT_EQ("2026-01-01\0p-ex"s + std::string(28, '\0') + "urn:ex\0"s, stored_record("ex"));
  EXPECT_EQ("2026-02-02\0"s + long_prefix.substr(0, 32) + "urn:long\0"s, stored_record("long"));
}

TEST_F(schema_database, imported_module_without_revision_is_saved_with_a_blank_one)
{
  write_file("bare.yang", "module bare { namespace 'urn:bare'; prefix b; }");
  write_module("ex", "2026-01-01", "import bare { prefix b; } /*linkage*/");
  ASSERT_EQ(0, load({{"ex", "2026-01-01", {}, {}}}));
  EXPECT_EQ(std::string(11, '\0') + "b" + std::string(31, '\0') + "urn:bare\0"s, stored_record("bare"));
  long long before = write_commands();
  ASSERT_EQ(0, load({{"ex", "2026-01-01", {}, {}}}));
  EXPECT_EQ(before, write_commands());
}

TEST_F(schema_database, restart_with_the_same_modules_writes_nothing)
{
  write_module("ex", "2026-01-01", "");
  write_module("ex-a", "2026-01-01", "");
  ASSERT_EQ(0, load(both));
  long long before = write_commands();
  EXPECT_GE(before, 4);
  size_t announced = capabilities().size();
  ASSERT_EQ(0, load(both));
  EXPECT_EQ(before, write_commands());
  EXPECT_EQ(announced, capabilities().size());
}

TEST_F(schema_database, changed_revision_rewrites_only_that_module)
{
  write_module("ex", "2026-01-01", "");
  write_module("ex-a", "2026-01-01", "");
  ASSERT_EQ(0, load(both));
  for (const char *key : {"/ex", "/ex/c/l[]", "/ex-a", "/ex-a/c", "/e"}) {
    plant(key);
  }
  write_module("ex", "2026-05-05", "");
  ASSERT_EQ(0, load({{"ex", "2026-05-05", {}, {}}, both[1]}));
  EXPECT_EQ("2026-05-05", stored_record("ex").substr(0, 10));
  EXPECT_FALSE(exists("/ex"));
  EXPECT_FALSE(exists("/ex/c/l[]"));
  EXPECT_TRUE(exists("/ex-a") && exists("/ex-a/c") && exists("/e"));
}

TEST_F(schema_database, removed_module_disappears)
{
  write_module("ex", "2026-01-01", "");
  write_module("ex-a", "2026-01-01", "");
  ASSERT_EQ(0, load(both));
  plant("/ex-a/c");
  plant("/ex/c");
  // A name that would match everything if it were taken as a pattern.
  EXPECT_NE(nullptr, redis({"HSET", "/", "*", "rubbish"}));
  ASSERT_EQ(0, load({both[0]}));
  EXPECT_EQ("", stored_record("ex-a"));
  EXPECT_EQ("", stored_record("*"));
  EXPECT_FALSE(exists("/ex-a/c"));
  EXPECT_TRUE(exists("/ex/c"));
  EXPECT_NE("", stored_record("ex"));
}

TEST_F(schema_database, damaged_record_is_written_again)
{
  write_module("ex", "2026-01-01", "");
  ASSERT_EQ(0, load({both[0]}));
  std::string good = stored_record("ex");
  EXPECT_NE(nullptr, redis({"HSET", "/", "ex", good.substr(0, 20)}));
  ASSERT_EQ(0, load({both[0]}));
  EXPECT_EQ(good, stored_record("ex"));
}

TEST_F(schema_database, database_of_another_shape_stops_the_start)
{
  write_module("ex", "2026-01-01", "");
  EXPECT_NE(nullptr, redis({"SET", "/", "no hash"}));
  EXPECT_EQ(-1, load({both[0]}));
  EXPECT_TRUE(logged("[ERROR] Schema save modules failed.\n"));
}

TEST_F(schema_database, unusable_address_stops_the_start)
{
  EXPECT_EQ(-1, load({}, "file:///var/schema"));
  EXPECT_TRUE(logged("[ERROR] file:///var/schema for schema.path is NOT supported now.\n")) << log();
  EXPECT_EQ(-1, load({}, "unix:redis.sock"));
  EXPECT_TRUE(logged("[ERROR] Unix path(unix:redis.sock) for schema db is invalid.\n")) << log();
  EXPECT_EQ(-1, load({}, "unix:/" + redis_socket() + ".absent"));
  EXPECT_TRUE(logged("[ERROR] Connect schema db error on initialization.\n")) << log();
}

TEST_F(schema_database, sensitive_leaves_without_a_key_stop_the_start)
{
  write_module("ex", "2026-01-01", "");
  int leaf = 0;
  schema_on_exit([] { context_del_list_entry("LIST-sencitive", 0); });
  ASSERT_EQ(0, load({both[0]}));
  context_save_list_entry("LIST-sencitive", &leaf);
  EXPECT_EQ(-1, schema_load_yang());
}
