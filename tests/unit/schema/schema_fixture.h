// A modules directory and a Redis server of its own for each test.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/redis_server.h"
#include "ymgrd/database/database_config.h"
#include "ymgrd/schema/schema.h"

class schema_fixture : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  void write_file(const std::string &file_name, const std::string &text);
  // Writes NAME.yang, with prefix p-NAME: `linkage` (imports, includes), revision, `body`.
  void write_module(const std::string &name, const std::string &revision, const std::string &linkage = "",
                    const std::string &body = "");

  // One life of the component; what it logged is in `log` afterwards. The result of schema_load_yang.
  int load(const std::vector<model_config_t> &profile, const std::string &db_address);
  int load(const std::vector<model_config_t> &profile) { return load(profile, "unix:/" + redis.socket_path()); }
  void unload();
  bool logged(const std::string &text) const { return log.find(text) != std::string::npos; }
  static std::vector<std::string> capabilities();
  static long announced(const std::string &capability); // how often

  // The module's record; empty when there is none.
  std::string stored_record(const std::string &module_name);

  support::temp_dir dir;
  support::redis_server redis{dir.path()};
  database_config key_source;
  std::string log;
};
