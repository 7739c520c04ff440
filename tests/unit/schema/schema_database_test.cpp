#include "schema_fixture.h"
#include "ymgrd/crypto/encrypt_registry.h"

using namespace std::string_literals;

namespace {

const model_config_t ex = {"ex", "2026-01-01", {}, {}};

class schema_database : public schema_fixture {
protected:
  void SetUp() override
  {
    schema_fixture::SetUp();
    write_module("ex", "2026-01-01");
  }
};

} // namespace

TEST_F(schema_database, record_holds_revision_prefix_and_namespace)
{
  const std::string long_prefix(40, 'x');
  write_file("long.yang", "module long { namespace 'urn:long'; prefix " + long_prefix + "; revision 2026-02-02; }");
  write_file("bare.yang", "module bare { namespace 'urn:bare'; prefix b; }");
  write_module("importer", "2026-01-01", "import bare { prefix b; }");
  ASSERT_EQ(0, load({ex, {"long", "2026-02-02", {}, {}}, {"importer", "2026-01-01", {}, {}}}));
  EXPECT_EQ("2026-01-01\0p-ex"s + std::string(28, '\0') + "urn:ex\0"s, stored_record("ex"));
  EXPECT_EQ("2026-02-02\0"s + long_prefix.substr(0, 32) + "urn:long\0"s, stored_record("long"));
  EXPECT_EQ(std::string(11, '\0') + "b" + std::string(31, '\0') + "urn:bare\0"s, stored_record("bare"));
}

TEST_F(schema_database, unusable_database_or_missing_key_stops_the_start)
{
  EXPECT_EQ(-1, load({}, "unix:redis.sock"));
  EXPECT_TRUE(logged("[ERROR] Unix path(unix:redis.sock) for schema db is invalid.\n")) << log;
  EXPECT_EQ(-1, load({}, "unix:/" + redis.socket_path() + ".absent"));
  EXPECT_TRUE(logged("[ERROR] Connect schema db error on initialization.\n")) << log;

  redis.command(0, {"SET", "/", "no hash"});
  EXPECT_EQ(-1, load({ex}));
  EXPECT_TRUE(logged("[ERROR] Schema save modules failed.\n")) << log;

  redis.command(0, {"DEL", "/"});
  ASSERT_EQ(0, load({ex}));
  ASSERT_EQ(0, encrypt_save_sensitive(encrypt_create_sensitives("/ex:secret")));
  testing::internal::CaptureStderr();
  EXPECT_EQ(-1, schema_load_yang());
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("[ERROR] have sen-k only.\n"));
}
