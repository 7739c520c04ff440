// Which driver is chosen, and that calls reach an external one.
#include "database_fixture.h"

#include <cstdlib>

#include "ymgr/driver.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"

// The public header's numbers are the daemon's.
static_assert(static_cast<int>(YMGR_DB_STATUS) == YMGRM_STATUS_DB);
static_assert(static_cast<int>(YMGR_DATA_NODE) == DB_DATA_NODE &&
              static_cast<int>(YMGR_DATA_CONTENT) == DB_DATA_CONTENT);
static_assert(static_cast<int>(YMGR_READ_DECRYPT) == DB_TFLAG_DECRYPT &&
              static_cast<int>(YMGR_READ_BACKUP) == DB_TFLAG_BACKUP);
static_assert(static_cast<int>(YMGR_LOCK_WRITE) == DB_LOCK_WRITE);

namespace {

class database_driver : public testing::Test {
protected:
  void SetUp() override
  {
    log_open(LOG_TO_STDERR, LOG_LEVEL_INFO);
    ASSERT_EQ(context_init(STAGE_RESOURCE), 0);
    ASSERT_EQ(database_init(STAGE_RESOURCE), 0);
  }
  void TearDown() override
  {
    database_exit();
    context_exit();
  }

  // Result of the second stage with this profile, and what it logs.
  static int init_with(const char *type, const std::string &path, const char *version, std::string *ret_log)
  {
    database_save_conf(type, 0, nullptr, 0, path.c_str(), version);
    testing::internal::CaptureStderr();
    int result = database_init(STAGE_CONFIG);
    *ret_log = testing::internal::GetCapturedStderr();
    return result;
  }
};

TEST_F(database_driver, profiles_that_name_no_usable_driver_end_the_start)
{
  struct row_t {
    const char *type;
    std::string path;
    const char *version;
    const char *log;
  };
  const row_t rows[] = {
      {"default", "unix:///none", "1.00", "[ERROR] Api version is NOT 1.0.\n"},
      {"default", "unix:/none", "1.0", ""}, // no "/" behind the scheme
      {"null", "", "1.0", "[WARN] Database.type \"null\" is NOT supported now.\n"},
      {"other", "", "1.0", "[ERROR] Database.type(other) is NOT supported.\n"},
      {"external", "/no/such/file", "1.0",
       "[ERROR] Failed to get the driver path, errcode:No such file or directory.\n"},
      {"external", "/etc/passwd", "1.0", "[ERROR] Load dynamic library failed("},
      {"external", SHORT_DRIVER, "1.0", "[ERROR] Load symbol(unlock) from database drviver library failed("},
  };
  for (const row_t &row : rows) {
    std::string log;
    EXPECT_EQ(init_with(row.type, row.path, row.version, &log), -1) << row.type << row.path;
    EXPECT_NE(log.find(row.log), std::string::npos) << log;
    EXPECT_EQ(database_open(RUNNING), -1);
  }
}

TEST_F(database_driver, an_external_driver_gets_all_calls)
{
  std::string log;
  ASSERT_EQ(init_with("external", TEST_DRIVER, "1.0", &log), 0) << log;
  char *result = nullptr;
  EXPECT_EQ(database_open(CANDIDATE), -1);
  EXPECT_EQ(database_open(RUNNING), 7);
  EXPECT_EQ(database_set(7, "/m:top", DB_DATA_CONTENT, "kept"), 0);
  EXPECT_EQ(database_get(7, 0, "/", DB_DEPTH_ALL, &result), 0);
  EXPECT_STREQ(result, "kept");
  free(result);
  EXPECT_EQ(database_list(7, 0, "/m:top/l", &result), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(database_copy(RUNNING, STARTUP), 21);
  EXPECT_EQ(database_clean(STATUS), STATUS);
  EXPECT_EQ(database_delete(7, "/m:top"), 8);
  EXPECT_EQ(database_new(7, "/m:top/l[k=\"a\"]", nullptr, -1, DB_DATA_CONTENT, nullptr), 9);
  EXPECT_EQ(database_move(7, "/m:top/l[k=\"a\"]", nullptr, 5), 12);
  EXPECT_EQ(database_index(7, DB_TFLAG_TRANS, "/m:top"), 8);
  EXPECT_EQ(database_trans_start(7), 0);
  EXPECT_EQ(database_flush(7), 0);
  EXPECT_EQ(database_trans_commit(7), 0);
  EXPECT_EQ(database_trans_discard(7), 0);
  EXPECT_EQ(database_lock(7, DB_LOCK_WRITE, "/"), 9);
  database_unlock(7, 9);
  database_close(7);
  EXPECT_EQ(database_set(0, "/m:top", DB_DATA_CONTENT, "x"), -1); // no handle: not passed on
}

} // namespace
