#include "ymgrd/core/keepalive.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include "unit/core/captured_log.h"
#include "ymgrd/core/context.h"
#include "ymgrd/ymgrd.h"

namespace {

TEST(keepalive, failures_of_the_library_are_logged_and_end_there)
{
  ASSERT_EQ(context_init(STAGE_RESOURCE), 0);
  setenv("KEEPALIVE_RECORD", "/dev/null", 1);
  const std::pair<std::string, std::string> cases[] = {
      {KEEPALIVE_REFUSING, "[ERROR] Try to execute keep-alive operate failed.\n"},
      {"/nonexistent/alive.so", "[ERROR] Load dynamic library </nonexistent/alive.so> failed("},
      {KEEPALIVE_WITHOUT_SYMBOL,
       "[ERROR] Load symbol <pdt_keep_alive> from " + std::string(KEEPALIVE_WITHOUT_SYMBOL) + ".so failed("},
  };
  for (const auto &[library, line] : cases) {
    context_save_option("OPT-keepalive-sopath", library.c_str(), static_cast<int>(library.size() + 1));
    EXPECT_TRUE(logged_by([] { ymgrd_send_keepalive_msg(90, 180); }).starts_with(line)) << library;
  }
  context_exit();
}

} // namespace
