#include "ymgrd/core/profile.h"

#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "unit/core/captured_log.h"
#include "ymgrd/broker/plugin.h"
#include "ymgrd/core/context.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_config.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/ymgrd.h"

namespace {

class profile : public testing::Test {
protected:
  void SetUp() override
  {
    for (auto init : {context_init, database_init, schema_init, plugin_init}) {
      ASSERT_EQ(init(STAGE_RESOURCE), 0);
    }
  }
  void TearDown() override
  {
    plugin_exit();
    schema_exit();
    database_exit();
    context_exit();
  }
  // What parsing logs; expects that it succeeds. The copy has no terminating zero, as a mapped file has none.
  static std::string parse(std::string_view text)
  {
    std::vector<char> bytes(text.begin(), text.end());
    return logged_by([&] { EXPECT_EQ(ymgrd_parse_config(bytes.data(), bytes.size()), 0); });
  }
  static std::string database_section(const std::string &key)
  {
    return R"({"database": {"type": "default", "driver": {"path": "unix://tmp/r", "api-version": "1.0"}, "working-key": [)" +
           key + "]}}";
  }
};

TEST_F(profile, scalars_become_options_and_the_later_value_wins)
{
  EXPECT_EQ(parse(R"({"session-spec": 4, "daemonize": true, "modules-dir": "/a", "unknown": {}, "session-spec": 5,
                      "daemonize": false})"),
            "");
  EXPECT_EQ(context_get_int("OPT-session-spec", -1), 5);
  EXPECT_EQ(context_get_int("OPT-daemonize", -1), 0);
  EXPECT_STREQ(static_cast<const char *>(context_get_option("OPT-modules-dir")), "/a");
}

TEST_F(profile, members_of_the_wrong_type_and_invalid_modules_are_ignored)
{
  std::string log = parse(R"({"session-spec": "10", "daemonize": 1, "plugins-dir": null, "schema": [], "modules":
      [{"name": "b", "revision": "r", "feature": ["f", 1, "g"], "deviation": ["d"]}, {"name": "no-revision"}, "text"]})");
  EXPECT_EQ(log.rfind("[WARN] Invalid yang-module(name=0x", 0), 0U) << log;
  for (const char *name : {"OPT-session-spec", "OPT-daemonize", "OPT-plugins-dir", "OPT-schema"}) {
    EXPECT_EQ(context_get_option(name), nullptr) << name;
  }
  ASSERT_EQ(context_list_size("LIST-model"), 1);
  const auto *module = static_cast<model_config_t *>(context_get_list_entry("LIST-model", 0));
  EXPECT_EQ(module->feature, (std::vector<std::string>{"f", "g"}));
  EXPECT_EQ(module->deviation, (std::vector<std::string>{"d"}));
}

TEST_F(profile, working_key_is_cut_at_sixteen_bytes_and_filled_with_zeros)
{
  const std::string too_long = "[ERROR] The length of working-key is more than 16.\n";
  const struct {
    std::string key;
    std::vector<unsigned char> bytes;
    std::string log;
  } cases[] = {
      {"1, 2, 259", {1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, ""},
      {"1, \"2\", 3", {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, too_long},
      {"1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, too_long},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(parse(database_section(c.key)), c.log);
    const auto *config = context_get_record<database_config>("OPT-database");
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(std::vector<unsigned char>(config->working_key, config->working_key + WORKING_KEY_LENGTH), c.bytes);
    EXPECT_EQ(config->validate_level, -1);
  }
}

TEST_F(profile, sensitive_leaves_are_registered_once)
{
  std::string log = parse(R"({"sensitive-key": ["/a:b/c", 5, "b/c", "/a:b/a:c", "/a:d"]})");
  EXPECT_EQ(log, "[ERROR] sensitive path format error.\n[WARN] Create sensitive key failed.\n"
                 "[ERROR] Save sensitive yang-module <a> path </a:b/c> failed.\n"
                 "[WARN] save sensitive <name=/a:b/a:c> failed.\n");
  EXPECT_EQ(encrypt_sensitives().size(), 2U);
}

TEST_F(profile, broken_text_is_refused_without_showing_it)
{
  std::string text = "{\"working-key\": [\n  200, 201 202]}";
  EXPECT_EQ(logged_by([&] { EXPECT_EQ(ymgrd_parse_config(text.data(), text.size()), -1); }),
            "[ERROR] Json parse error(line 2, column 12).\n");
}

} // namespace
