#include "ymgrd/core/options.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "unit/core/captured_log.h"

namespace {

int parse(std::vector<std::string> arguments, ymgrd_options_t *options, std::string *error)
{
  arguments.insert(arguments.begin(), "ymgrd");
  std::vector<char *> argv;
  for (std::string &argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  return ymgrd_parse_args(static_cast<int>(arguments.size()), argv.data(), options, error);
}

TEST(options, paths_are_made_absolute_and_options_may_follow_the_library)
{
  ymgrd_options_t options;
  std::string error;
  std::string here = std::filesystem::current_path().string();
  ASSERT_EQ(parse({"lib/alive.so", "--profile", "../p.conf", "--run-dir=run", "--log-level", "warn", "--log-stderr"},
                  &options, &error),
            0);
  EXPECT_EQ(options.keepalive_so, here + "/lib/alive.so");
  EXPECT_EQ(options.profile, std::filesystem::path(here).parent_path() / "p.conf");
  EXPECT_EQ(options.run_dir, here + "/run");
  EXPECT_EQ(options.log_level, LOG_LEVEL_WARN);
  EXPECT_TRUE(options.log_stderr);
  EXPECT_FALSE(options.smooth);
}

TEST(options, missing_and_invalid_values_are_errors_that_name_them)
{
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--log-level", "loud"}, "loud"},
      {{"-s", "--profile"}, "--profile"},
      {{"--run-dir="}, "invalid path"},
  };
  for (const auto &[arguments, part] : cases) {
    ymgrd_options_t options;
    std::string error;
    EXPECT_EQ(parse(arguments, &options, &error), -1);
    EXPECT_NE(error.find(part), std::string::npos) << error;
    EXPECT_FALSE(options.smooth) << "written although parsing failed";
  }
}

} // namespace
