#include "schema_fixture.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/schema/schema_internal.h"
#include "ymgrd/ymgrd.h"

void schema_fixture::SetUp()
{
  log_open(LOG_TO_STDERR, LOG_LEVEL_DEBUG);
  ly_log_options(LY_LOSTORE);
  std::filesystem::copy(YMGR_MODULES_DIR, dir / "modules");
}

void schema_fixture::TearDown()
{
  unload();
  if (HasFailure()) {
    std::cerr << log;
  }
}

void schema_fixture::write_file(const std::string &file_name, const std::string &text)
{
  support::write_file(dir / "modules/" + file_name, text);
}

void schema_fixture::write_module(const std::string &name, const std::string &revision, const std::string &linkage,
                                  const std::string &body)
{
  write_file(name + ".yang", "module " + name + " { yang-version 1.1; namespace \"urn:" + name + "\"; prefix p-" +
                                 name + "; " + linkage + " revision " + revision + "; " + body + " }");
}

int schema_fixture::load(const std::vector<model_config_t> &profile, const std::string &db_address)
{
  unload();
  EXPECT_EQ(0, context_init(STAGE_RESOURCE));
  EXPECT_EQ(0, schema_create_lists());
  std::string modules_dir = dir / "modules";
  context_save_option("OPT-modules-dir", modules_dir.c_str(), static_cast<int>(modules_dir.size()) + 1);
  context_save_record("OPT-database", &key_source);
  context_save_record("OPT-schema", new schema_config{1, db_address});
  for (const model_config_t &module : profile) {
    EXPECT_EQ(0, schema_save_modelcfg(new model_config_t(module)));
  }
  testing::internal::CaptureStderr();
  int result = schema_load_yang();
  log = testing::internal::GetCapturedStderr();
  return result;
}

void schema_fixture::unload()
{
  if (context_get_option("LIST-model") != nullptr) {
    schema_exit();
    context_exit();
  }
}

std::string schema_fixture::stored_record(const std::string &module_name)
{
  std::vector<std::string> reply = redis.command(0, {"HGET", "/", module_name});
  return reply.empty() ? "" : reply.front();
}

std::vector<std::string> schema_fixture::capabilities()
{
  std::vector<std::string> texts;
  for (int i = 0; i < context_list_size("LIST-cpblt"); i++) {
    texts.emplace_back(static_cast<const char *>(context_get_list_entry("LIST-cpblt", i)));
  }
  return texts;
}

long schema_fixture::announced(const std::string &capability)
{
  std::vector<std::string> all = capabilities();
  return std::count(all.begin(), all.end(), capability);
}
