// A device is given its key by the tool: what the files are then, and what is refused.
#include <filesystem>

#include <gtest/gtest.h>

#include "keytool/profile_key.h"
#include "support/daemon_test.h"
#include "support/working_key.h"
#include "ymgrd/crypto/wb_table.h"

namespace {

namespace fs = std::filesystem;
using support::keytool_run_t;
using support::read_file;
using support::run_keytool;
using support::write_file;

testing::AssertionResult says(const std::string &output, const std::string &text)
{
  return output.find(text) == std::string::npos ? testing::AssertionFailure() << "'" << text << "' not in: " << output
                                                : testing::AssertionSuccess();
}

class keytool : public testing::Test {
protected:
  keytool() { write_file(profile_, PROFILE); }

  keytool_run_t provision() { return run_keytool({"provision", "--config-dir", dir_.path()}); }
  keytool_run_t force() { return run_keytool({"provision", "--config-dir", dir_.path(), "--force"}); }
  keytool_run_t check() { return run_keytool({"check", "--config-dir", dir_.path()}); }

  static constexpr char PROFILE[] = R"({"session-spec": 3, "database": {"type": "default"}, "x": [1.5, "\u00e9"]})";
  support::temp_dir dir_;
  const std::string profile_ = dir_ / "ymgrd.conf";
  const std::string table_ = dir_ / "table2.key";
};

} // namespace

TEST_F(keytool, provisioned_device_passes_the_check_and_no_key_is_shown)
{
  fs::rename(profile_, dir_ / "real.conf");
  fs::create_symlink("real.conf", profile_);
  keytool_run_t made = provision();
  EXPECT_EQ(0, made.exit_code) << made.output;
  keytool_run_t checked = check();
  EXPECT_EQ(0, checked.exit_code) << checked.output;
  EXPECT_TRUE(fs::is_symlink(profile_)); // and the check has looked at the modes
  std::string error;
  profile_file_t profile;
  key_bytes_t stored = {};
  ASSERT_EQ(0, profile_read(profile_, &profile, &error)) << error;
  ASSERT_EQ(PROFILE_KEY_PRESENT, profile_key(profile, &stored));
  cJSON_DeleteItemFromObject(profile.database, "working-key");
  EXPECT_TRUE(cJSON_Compare(profile.json.get(), cjson_ptr(cJSON_Parse(PROFILE)).get(), 1)) << read_file(profile_);

  wb_table_file_ptr table;
  ASSERT_EQ(WB_TABLE_WHOLE, wb_table_read(table_.c_str(), &table));
  key_bytes_t key;
  wb_tables_decrypt(table->tables, stored.data(), key.data());
  EXPECT_TRUE(wb_table_is_for(*table, key.data()));
  std::string shown = made.output + checked.output + read_file(profile_) + read_file(table_);
  EXPECT_FALSE(says(shown, std::string(key.begin(), key.end())));
  EXPECT_FALSE(says(shown, std::string(profile_key_fragment(key)).substr(16))) << "the numbers";
}

TEST_F(keytool, nothing_is_replaced_unless_forced)
{
  std::string key_array = support::provision_key(dir_.path());
  const std::string table = read_file(table_);
  for (const keytool_run_t &run : {provision(), run_keytool({"provision", "--print", "--table", table_})}) {
    EXPECT_EQ(1, run.exit_code);
    EXPECT_TRUE(says(run.output, table_ + " is there already"));
  }
  EXPECT_EQ(table, read_file(table_));
  // As after a crash between both files.
  EXPECT_TRUE(says(check().output, "FAULT: " + profile_ + ": has no working key"));
  write_file(profile_, R"({"database": {"working-key": )" + key_array + "}}");
  fs::permissions(profile_, fs::perms(0600));
  EXPECT_EQ(0, check().exit_code) << "what was printed belongs to the table";
  std::string profile = read_file(profile_);
  fs::remove(table_);
  EXPECT_TRUE(says(provision().output, profile_ + " has a working key already"));
  EXPECT_TRUE(profile == read_file(profile_) && !fs::exists(table_));
  EXPECT_EQ(0, force().exit_code);
  EXPECT_EQ(0, check().exit_code);
  EXPECT_NE(profile, read_file(profile_));
}

TEST_F(keytool, check_names_each_fault)
{
  ASSERT_EQ(0, provision().exit_code);
  const std::string profile = read_file(profile_);
  const std::string table = read_file(table_);
  const std::string short_key = R"({"database": {"working-key": [1, 2, 3]}})";
  const std::string foreign_key =
      R"({"database": {"working-key": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16]}})";
  const struct {
    std::string profile, table;
    unsigned mode;
    std::string line;
  } rows[] = {
      {profile, table, 0640, "FAULT: " + profile_ + ": mode 0640, others than its owner have access"},
      {profile, table, 0604, "FAULT: " + table_ + ": mode 0604, others than its owner have access"},
      {profile, table.substr(1), 0600, "FAULT: " + table_ + ": is damaged, or no key table"},
      {foreign_key, table, 0600, "FAULT: " + table_ + ": was not made for the profile's key"},
      {short_key, table, 0600, "FAULT: " + profile_ + ": its working-key is not an array of 16 numbers"},
      {"{}", table, 0600, "FAULT: " + profile_ + ": has no section \"database\""},
      {profile.substr(1), table, 0600, "FAULT: " + profile_ + ": not a JSON object"},
  };
  for (const auto &row : rows) {
    write_file(profile_, row.profile);
    write_file(table_, row.table);
    for (const std::string &path : {profile_, table_}) {
      fs::permissions(path, fs::perms(row.mode));
    }
    keytool_run_t run = check();
    EXPECT_EQ(1, run.exit_code);
    EXPECT_TRUE(says(run.output, row.line));
    EXPECT_EQ(row.mode == 0600, says(run.output, "with --force anew")) << "a good pair is not to be replaced";
  }
  fs::remove(table_);
  EXPECT_TRUE(says(check().output, "FAULT: " + table_ + ": there is no key table"));
  const std::vector<std::string> wrong_usage[] = {{}, {"mend"}, {"check", "--force"}, {"provision", "--table", table_}};
  for (const auto &words : wrong_usage) {
    EXPECT_EQ(2, run_keytool(words).exit_code);
  }
}

class working_key_at_start : public support::daemon_test {};

TEST_F(working_key_at_start, daemon_runs_without_a_key_table_and_says_what_is_lost)
{
  const std::string lost = "[ERROR] Sensitive values can be neither read nor set until the key table";
  daemon.options().profile["sensitive-key"] = R"(["/ex-sys:system/user/password"])";
  daemon.options().working_key = support::provision_key(dir.path());
  ASSERT_TRUE(daemon.start());
  EXPECT_FALSE(says(daemon.log_text(), lost));
  fs::remove(dir / "table2.key");
  ASSERT_TRUE(daemon.restart());
  EXPECT_TRUE(says(daemon.log_text(), lost));
  ASSERT_TRUE(daemon.stop());
  daemon.options().working_key.clear();
  ASSERT_TRUE(daemon.launch());
  EXPECT_TRUE(daemon.wait_for_log("[ERROR] have sen-k only."));
}
