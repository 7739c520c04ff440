#include "schema_fixture.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/ymgrd.h"

namespace {

pid_t start_redis(const std::filesystem::path &dir, const std::string &socket_path)
{
  pid_t pid = fork();
  if (pid == 0) {
    execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", socket_path.c_str(), "--save", "", "--dir",
           dir.c_str(), "--logfile", (dir / "redis.log").c_str(), nullptr);
    _exit(127);
  }
  return pid;
}

bool wait_for_redis(const std::string &socket_path, redis_connection_ptr *ret_connection)
{
  for (int tries = 0; tries < 500; tries++) {
    if (std::filesystem::exists(socket_path)) {
      ret_connection->reset(redis_connect(socket_path.c_str()));
      if (*ret_connection != nullptr && redis_ping(ret_connection->get()) == 0) {
        return true;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

} // namespace

void schema_fixture::SetUp()
{
  (void)std::signal(SIGPIPE, SIG_IGN);
  std::string path_template = (std::filesystem::temp_directory_path() / "schema-XXXXXX").string();
  ASSERT_NE(nullptr, mkdtemp(path_template.data()));
  dir_ = path_template;
  std::filesystem::create_directory(dir_ / "modules");
  log_open(LOG_TO_STDERR, LOG_LEVEL_DEBUG);
  ly_log_level(LY_LLERR);
  ly_log_options(LY_LOSTORE);
  redis_pid_ = start_redis(dir_, redis_socket());
  ASSERT_GT(redis_pid_, 0);
  ASSERT_TRUE(wait_for_redis(redis_socket(), &connection_));
  for (const char *module : {"ietf-netconf.yang", "zentra-ymgrd.yang"}) {
    std::filesystem::copy(std::filesystem::path(YMGR_MODULES_DIR) / module, dir_ / "modules");
  }
}

void schema_fixture::TearDown()
{
  unload();
  connection_.reset();
  if (redis_pid_ > 0) {
    kill(redis_pid_, SIGTERM);
    waitpid(redis_pid_, nullptr, 0);
  }
  std::filesystem::remove_all(dir_);
  if (HasFailure()) {
    std::cerr << log_;
  }
}

void schema_fixture::write_file(const std::string &file_name, const std::string &text)
{
  std::ofstream(dir_ / "modules" / file_name) << text;
}

void schema_fixture::write_module(const std::string &name, const std::string &revision, const std::string &body)
{
  std::ostringstream text;
  text << "module " << name << " { yang-version 1.1; namespace \"urn:" << name << "\"; prefix p-" << name << "; ";
  size_t split = body.find("/*linkage*/");
  split = split == std::string::npos ? 0 : split;
  text << body.substr(0, split) << " revision " << revision << "; " << body.substr(split) << " }";
  write_file(name + ".yang", text.str());
}

int schema_fixture::load(const std::vector<profile_module_t> &profile, const std::string &db_address)
{
  unload();
  EXPECT_EQ(0, context_init(STAGE_RESOURCE));
  EXPECT_EQ(0, schema_create_lists());
  std::string modules_dir = (dir_ / "modules").string();
  context_save_option("OPT-modules-dir", modules_dir.c_str(), static_cast<int>(modules_dir.size()) + 1);
  context_save_record("OPT-database", &database_config_);
  context_save_record("OPT-schema", new schema_config{1, db_address});
  for (const profile_module_t &module : profile) {
    model_config_t *mod_cfg = schema_create_modelcfg(module.name.c_str(), module.revision.c_str());
    for (const std::string &feature : module.feature) {
      EXPECT_EQ(0, schema_enable_feature(mod_cfg, feature.c_str()));
    }
    for (const std::string &deviation : module.deviation) {
      EXPECT_EQ(0, schema_attach_deviation(mod_cfg, deviation.c_str()));
    }
    EXPECT_EQ(0, schema_save_modelcfg(mod_cfg));
  }
  testing::internal::CaptureStderr();
  int result = schema_load_yang();
  log_ = testing::internal::GetCapturedStderr();
  return result;
}

void schema_fixture::unload()
{
  if (context_get_option("LIST-model") != nullptr) {
    schema_exit();
    context_exit();
  }
}

redis_reply_ptr schema_fixture::redis(const std::vector<std::string_view> &words)
{
  return redis_command(connection_.get(), words);
}

std::string schema_fixture::stored_record(const std::string &module_name)
{
  redis_reply_ptr reply = redis({"HGET", "/", module_name});
  return reply == nullptr || reply->str == nullptr ? "" : std::string(reply->str, reply->len);
}

long long schema_fixture::write_commands()
{
  redis_reply_ptr reply = redis({"INFO", "commandstats"});
  std::istringstream lines(std::string(reply->str, reply->len));
  long long count = 0;
  for (std::string line; std::getline(lines, line);) {
    for (const char *command : {"hset", "hdel", "del", "unlink", "exec", "flushdb"}) {
      std::string start = std::string("cmdstat_") + command + ":calls=";
      if (line.starts_with(start)) {
        count += std::stoll(line.substr(start.size()));
      }
    }
  }
  return count;
}

std::vector<std::string> schema_fixture::capabilities()
{
  std::vector<std::string> texts;
  for (int i = 0; i < context_list_size("LIST-cpblt"); i++) {
    texts.emplace_back(static_cast<const char *>(context_get_list_entry("LIST-cpblt", i)));
  }
  return texts;
}
