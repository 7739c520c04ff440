#include "database_fixture.h"

#include <cstdlib>
#include <vector>

#include "libredisapi/redisapi.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

const std::vector<lys_module> modules = [] {
  std::vector<lys_module> made(3);
  const char *const texts[][3] = {{"m", "urn:m", "m"}, {"ext", "urn:ext", "e"}, {"odd", "urn:a&b", "o"}};
  for (size_t i = 0; i < made.size(); i++) {
    made[i].name = texts[i][0];
    made[i].ns = texts[i][1];
    made[i].prefix = texts[i][2];
  }
  return made;
}();

} // namespace

// The schema's look-ups, for the modules of these tests.
bool schema_has_any(std::string_view)
{
  return false;
}

ly_ctx *schema_ctx()
{
  return nullptr;
}

bool schema_is_any(std::string_view)
{
  return false;
}

bool schema_is_sensitive(std::string_view)
{
  return false;
}

bool schema_has_path_key(std::string_view)
{
  return false;
}

const lysc_node *schema_find_path_key(std::string_view)
{
  return nullptr;
}

const lys_module *schema_find_module(const char *token, size_t token_len)
{
  std::string_view text(token, token_len);
  for (const lys_module &module : modules) {
    if (text == module.name || text == module.prefix) {
      return &module;
    }
  }
  return nullptr;
}

std::string schema_get_module_ns(const std::string &module_name)
{
  const lys_module *module = schema_find_module(module_name.data(), module_name.size());
  return module == nullptr ? "" : module->ns;
}

void database_test::SetUp()
{
  log_open(LOG_TO_STDERR, LOG_LEVEL_INFO);
  redis_set_logger([](const char *text) { log_error("%s", text); });
  start_component();
}

void database_test::start_component()
{
  ASSERT_EQ(context_init(STAGE_RESOURCE), 0);
  ASSERT_EQ(database_init(STAGE_RESOURCE), 0);
  const unsigned char key[16] = {};
  database_save_conf("default", 0, key, 16, ("unix://" + server_.socket_path()).c_str(), "1.0");
  ASSERT_EQ(database_init(STAGE_CONFIG), 0);
}

void database_test::stop_component()
{
  database_exit();
  context_exit();
}

int database_test::begin(int target)
{
  int hdb = database_open(target);
  EXPECT_GT(hdb, 0);
  EXPECT_GT(database_lock(hdb, DB_LOCK_WRITE, "/"), 0);
  EXPECT_EQ(database_trans_start(hdb), 0);
  return hdb;
}

void database_test::commit_and_close(int hdb)
{
  EXPECT_EQ(database_trans_commit(hdb), 0);
  database_unlock(hdb, 1);
  database_close(hdb);
}

std::string database_test::get(int hdb, const std::string &path, int depth, int tflag)
{
  char *result = nullptr;
  if (database_get(hdb, tflag, path.c_str(), depth, &result) != 0) {
    return "(failed)";
  }
  std::string text = result != nullptr ? result : "(null)";
  free(result);
  return text;
}

std::string database_test::get_from(int target, const std::string &path, int depth)
{
  int hdb = database_open(target);
  std::string text = get(hdb, path, depth);
  database_close(hdb);
  return text;
}

bool database_test::logs(const std::string &text, const std::function<void()> &work)
{
  testing::internal::CaptureStderr();
  work();
  return testing::internal::GetCapturedStderr().find(text) != std::string::npos;
}

long long database_test::commands_of(const std::function<void()> &work)
{
  auto executed = [this] {
    std::string stats = server_.command(0, {"INFO", "stats"}).front();
    return std::atoll(stats.c_str() + stats.find("total_commands_processed:") + 25);
  };
  constexpr long long OWN_COMMANDS = 2; // SELECT and INFO
  long long before = executed();
  work();
  return executed() - before - OWN_COMMANDS;
}

void database_test::fill(int target)
{
  int hdb = begin(target);
  set(hdb, "/m:top");
  set(hdb, "/m:top/leaf", "text");
  add(hdb, "/m:top/dns[.=\"10.1.1.1\"]");
  add(hdb, "/m:top/user[name=\"a\"]");
  set(hdb, "/m:top/user[name=\"a\"]/group", "g");
  add(hdb, "/m:top/user[name=\"b\"]");
  set(hdb, "/m:top/ext:ntp");
  set(hdb, "/m:top/ext:ntp/server", "s");
  commit_and_close(hdb);
}
