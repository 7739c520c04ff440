// The schema database over restarts, and what the daemon says it can do.
#include <charconv>
#include <map>

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
    const std::string name = "rdb_changes_since_last_save:";
    std::string info = schema_redis.command(SCHEMA_DB, {"INFO", "persistence"}).front();
    size_t at = info.find(name);
    long value = -1;
    if (at != std::string::npos) {
      std::from_chars(info.data() + at + name.size(), info.data() + info.size(), value);
    }
    return value;
  }

  void replace_in_module(const std::string &file, const std::string &from, const std::string &to)
  {
    std::string path = daemon.modules_dir() + "/" + file;
    std::string text = support::read_file(path);
    size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos);
    support::write_file(path, text.replace(at, from.size(), to));
  }

  std::string capabilities()
  {
    return connect().rpc("<get-capability xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>");
  }

  support::temp_dir schema_dir;
  support::redis_server schema_redis{schema_dir.path()};
};

// The one capability of the module, as it stands in the reply; empty when there is none or more than one.
std::string capability_of(const std::string &reply, const std::string &module)
{
  size_t name = reply.find("&amp;module=" + module);
  while (name != std::string::npos && reply[name + 12 + module.size()] != '<' &&
         reply[name + 12 + module.size()] != '&') {
    name = reply.find("&amp;module=" + module, name + 1);
  }
  if (name == std::string::npos) {
    return "";
  }
  size_t begin = reply.rfind('>', name) + 1;
  return reply.substr(begin, reply.find('<', name) - begin);
}

} // namespace

TEST_F(schema_database, restart_with_the_same_modules_writes_nothing)
{
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(records().contains("ex-bench"));
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
  replace_in_module("ex-bench.yang", "revision 2026-01-01", "revision 2026-09-09");
  ASSERT_TRUE(daemon.restart());
  std::map<std::string, std::string> new_records = records();
  EXPECT_EQ(new_records["ex-bench"].substr(0, 10), "2026-09-09");
  EXPECT_LE(changes() - before, 2); // out and in again
  old_records.erase("ex-bench");
  new_records.erase("ex-bench");
  EXPECT_EQ(new_records, old_records);
}

TEST_F(schema_database, a_module_that_left_the_profile_leaves_the_database)
{
  ASSERT_TRUE(daemon.start());
  std::map<std::string, std::string> expected = records();
  expected.erase("ex-bench");
  daemon.options().modules.pop_back();
  ASSERT_TRUE(daemon.restart());
  EXPECT_EQ(records(), expected);
  EXPECT_EQ(capability_of(capabilities(), "ex-bench"), "");
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
  // The features and the deviation are in force.
  support::netconf_session &session = connect();
  EXPECT_TRUE(
      session.ok(support::edit_config("candidate", "<system xmlns=\"urn:ex-sys\"><ftp><root>/</root></ftp></system>")));
  EXPECT_FALSE(session.error(support::edit_config("candidate", "<system xmlns=\"urn:ex-sys\"><vendor-data/></system>"))
                   .tag.empty());
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
  EXPECT_FALSE(connect().error(support::edit_config("candidate", "<x xmlns=\"urn:undated\">y</x>")).tag.empty());
  EXPECT_TRUE(connect().ok(
      support::edit_config("candidate", "<bench xmlns=\"urn:ex-bench\"><entry><name>a</name></entry></bench>")));
}
