// A modules directory and a Redis server of its own for each test.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libredisapi/redisapi.h"
#include "ymgrd/crypto/encrypt_key.h"
#include "ymgrd/schema/schema.h"

typedef struct _profile_module {
  std::string name;
  std::string revision;
  std::vector<std::string> feature;
  std::vector<std::string> deviation;
} profile_module_t;

class schema_fixture : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  // Writes NAME.yang, with prefix p-NAME. The revision stands where `body` has "/*linkage*/" behind its imports and
  // includes, else before it.
  void write_module(const std::string &name, const std::string &revision, const std::string &body);
  void write_file(const std::string &file_name, const std::string &text);

  // One life of the component: its log is in log() afterwards. The result of schema_load_yang.
  int load(const std::vector<profile_module_t> &profile, const std::string &db_address);
  int load(const std::vector<profile_module_t> &profile) { return load(profile, "unix:/" + redis_socket()); }
  void unload();

  std::string redis_socket() const { return (dir_ / "redis.sock").string(); }
  redis_reply_ptr redis(const std::vector<std::string_view> &words);
  std::string stored_record(const std::string &module_name);
  long long write_commands(); // that the server has executed so far

  static std::vector<std::string> capabilities();
  const std::string &log() const { return log_; }

private:
  std::filesystem::path dir_;
  pid_t redis_pid_ = -1;
  redis_connection_ptr connection_;
  database_config database_config_;
  std::string log_;
};
