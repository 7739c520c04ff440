#include "ymgrd/core/keepalive.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "unit/core/captured_log.h"
#include "ymgrd/core/context.h"
#include "ymgrd/ymgrd.h"

namespace {

class keepalive : public testing::Test {
protected:
  void SetUp() override
  {
    ASSERT_EQ(context_init(STAGE_RESOURCE), 0);
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    setenv("KEEPALIVE_RECORD", record_path().c_str(), 1);
  }
  void TearDown() override
  {
    context_exit();
    std::filesystem::remove_all(directory);
  }

  std::string record_path() const { return directory + "/calls"; }
  std::string calls() const
  {
    std::ostringstream text;
    text << std::ifstream(record_path()).rdbuf();
    return text.str();
  }
  static std::string log_of_call_to(const std::string &library)
  {
    context_save_option("OPT-keepalive-sopath", library.c_str(), static_cast<int>(library.size() + 1));
    return logged_by([] { ymgrd_send_keepalive_msg(90, 180); });
  }

  std::string directory = "/tmp/keepalive-test-XXXXXX";
};

TEST_F(keepalive, library_receives_both_times_and_only_when_one_is_named)
{
  ymgrd_send_keepalive_msg(1, 2);
  EXPECT_EQ(log_of_call_to(KEEPALIVE_GOOD), "");
  ymgrd_send_keepalive_msg(0, 0);
  EXPECT_EQ(calls(), "90 180\n0 0\n");
}

TEST_F(keepalive, failures_are_logged_and_end_there)
{
  EXPECT_EQ(log_of_call_to(KEEPALIVE_REFUSING), "[ERROR] Try to execute keep-alive operate failed.\n");
  EXPECT_EQ(calls(), "90 180\n");
  std::string missing = log_of_call_to("/nonexistent/alive.so");
  EXPECT_EQ(missing.rfind("[ERROR] Load dynamic library </nonexistent/alive.so> failed(", 0), 0U) << missing;
  std::string no_symbol = log_of_call_to(KEEPALIVE_WITHOUT_SYMBOL);
  std::string expected =
      std::string("[ERROR] Load symbol <pdt_keep_alive> from ") + KEEPALIVE_WITHOUT_SYMBOL + ".so failed(";
  EXPECT_EQ(no_symbol.rfind(expected, 0), 0U) << no_symbol;
}

} // namespace
