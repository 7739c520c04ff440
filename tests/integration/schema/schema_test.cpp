// The schema database over restarts, and what the daemon says it can do.
#include <cstdlib>
#include <map>
#include <regex>

#include "support/daemon_test.h"

namespace {

constexpr int SCHEMA_DB = 0;

class schema_database : public support::daemon_test {
protected:
  void SetUp() override
  {
    // On a server of its own, so that only its writes are counted.
    daemon.options().profile["schema"] = R"({"db-enabled": true, "path": "unix:/)" + schema_redis.socket_path() + "\"}";
    daemon.options().modules.push_back({"ex-bench"});
  }

  // The records of the modules by name.
  std::map<std::string, std::string> records()
  {
    std::vector<std::string> texts = schema_redis.command(SCHEMA_DB, {"HGETALL", "/"});
    std::map<std::string, std::string> by_name;
    for (size_t i = 0; i + 1 < texts.size(); i += 2) {
      by_name[texts[i]] = texts[i + 1];
    }
    return by_name;
  }

  // How often the content was changed since the server's start.
  long changes()
  {
    std::string info = schema_redis.command(SCHEMA_DB, {"INFO", "persistence"}).front();
    std::smatch found;
    return std::regex_search(info, found, std::regex("rdb_changes_since_last_save:(\\d+)"))
               ? std::strtol(found[1].str().c_str(), nullptr, 10)
               : -1;
  }

  std::string capabilities()
  {
    return connect().rpc("<get-capability xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>");
  }

  support::temp_dir schema_dir;
  support::redis_server schema_redis{schema_dir.path()};
};

// The module's capability as it stands in the reply; empty when there is none.
std::string capability_of(const std::string &reply, const std::string &module)
{
  std::smatch found;
  std::regex form(">([^<]*&amp;module=" + module + "(&[^<]*)?)<");
  return std::regex_search(reply, found, form) ? found[1].str() : "";
}

} // namespace

TEST_F(schema_database, restart_with_the_same_modules_writes_nothing)
{
  ASSERT_TRUE(daemon.start());
  std::string content = schema_redis.dump(SCHEMA_DB);
  long before = changes();
  ASSERT_GT(before, 0);
  std::string announced = capabilities();
  ASSERT_TRUE(daemon.restart());
  EXPECT_EQ(changes(), before);
  EXPECT_EQ(schema_redis.dump(SCHEMA_DB), content);
  for (const auto &[module, record] : records()) { // unchanged modules are announced as well
    EXPECT_EQ(capability_of(capabilities(), module), capability_of(announced, module));
    EXPECT_NE(capability_of(announced, module), "") << module;
  }
}

TEST_F(schema_database, a_new_revision_rewrites_only_its_module)
{
  ASSERT_TRUE(daemon.start());
  std::map<std::string, std::string> old_records = records();
  long before = changes();
  std::string file = daemon.modules_dir() + "/ex-bench.yang";
  support::write_file(file, std::regex_replace(support::read_file(file), std::regex("2026-01-01"), "2026-09-09"));
  ASSERT_TRUE(daemon.restart());
  std::map<std::string, std::string> new_records = records();
  EXPECT_EQ(new_records["ex-bench"].substr(0, 10), "2026-09-09");
  EXPECT_LE(changes() - before, 2); // out and in again
  old_records.erase("ex-bench");
  new_records.erase("ex-bench");
  EXPECT_EQ(new_records, old_records);
}

TEST_F(schema_database, capabilities_show_features_and_deviations)
{
  daemon.options().modules = {{"ex-types"}, {"ex-sys", {"*"}, {"ex-sys-dev"}}, {"ex-sys-dev"}, {"ex-bench"}};
  daemon.options().profile["capabilities"] =
      R"([{"capid": "urn:extra", "enable": true}, {"capid": "urn:hidden", "enable": false}, {"capid": 7}, "x"])";
  ASSERT_TRUE(daemon.start());
  std::string announced = capabilities();
  std::string system = capability_of(announced, "ex-sys");
  // The deviation is younger than the module, which is announced with its revision.
  EXPECT_EQ(system.find("urn:ex-sys?revision=2026-03-01&amp;module=ex-sys&amp;feature="), 0U) << system;
  for (const char *feature : {"ftp", "ftp-tls", "multipath"}) {
    EXPECT_NE(system.find(feature), std::string::npos) << system;
  }
  const std::string deviations = "&amp;deviations=ex-sys-dev";
  EXPECT_EQ(system.rfind(deviations) + deviations.size(), system.size()) << system;
  EXPECT_EQ(capability_of(announced, "ex-bench"), "urn:ex-bench?revision=2026-01-01&amp;module=ex-bench");
  EXPECT_NE(announced.find("<capability>urn:extra</capability>"), std::string::npos);
  EXPECT_EQ(announced.find("urn:hidden"), std::string::npos);
}

TEST_F(schema_database, a_module_without_revision_is_refused_and_the_others_load)
{
  support::write_file(daemon.modules_dir() + "/undated.yang",
                      "module undated { namespace \"urn:undated\"; prefix u; leaf x { type string; } }");
  daemon.options().modules.insert(daemon.options().modules.begin(), {"undated"});
  ASSERT_TRUE(daemon.start());
  EXPECT_NE(daemon.log_text().find("[ERROR] model undated have no revision.\n\n"), std::string::npos);
  EXPECT_NE(daemon.log_text().find("[WARN] Schema add module undated failed.\n"), std::string::npos);
  EXPECT_FALSE(records().contains("undated"));
  EXPECT_EQ(capability_of(capabilities(), "undated"), "");
  EXPECT_TRUE(records().contains("ex-bench"));
}
