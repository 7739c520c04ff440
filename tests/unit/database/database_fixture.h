// The database component against a private server. Modules known to it: m (namespace "urn:m"), ext ("urn:ext", prefix
// "e").
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/redis_server.h"
#include "ymgrd/database/database.h"

class database_test : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override { stop_component(); }

  void start_component();
  void stop_component();

  // A handle with a write lock on everything and a transaction running.
  int begin(int target);
  void commit_and_close(int hdb);

  // Writes that must succeed.
  static void set(int hdb, const std::string &path, const std::string &text = "")
  {
    EXPECT_EQ(database_set(hdb, path.c_str(), DB_DATA_CONTENT, text.c_str()), 0) << path;
  }
  static void add(int hdb, const std::string &path, const char *coords = nullptr, int offset = 0)
  {
    EXPECT_EQ(database_new(hdb, path.c_str(), coords, offset, DB_DATA_CONTENT, nullptr), 0) << path;
  }
  static void remove(int hdb, const std::string &path) { EXPECT_EQ(database_delete(hdb, path.c_str()), 0) << path; }

  // "(null)" and "(failed)" are results too.
  static std::string get(int hdb, const std::string &path, int depth = DB_DEPTH_ALL, int tflag = DB_TFLAG_NOTRANS);
  std::string get_from(int target, const std::string &path, int depth = DB_DEPTH_ALL);

  // Whether the component logs `text` while `work` runs.
  static bool logs(const std::string &text, const std::function<void()> &work);
  // Commands that the server executes while `work` runs.
  long long commands_of(const std::function<void()> &work);

  // A container with a leaf, a leaf-list, two entries and an augmented container, in running or elsewhere.
  void fill(int target);

  support::temp_dir dir_;
  support::redis_server server_{dir_.path(), support::redis_data::kept};
};

constexpr int STARTUP = YMGRM_STARTUP_DB;
constexpr int RUNNING = YMGRM_RUNNING_DB;
constexpr int CANDIDATE = YMGRM_CANDIDATE_DB;
constexpr int STATUS = YMGRM_STATUS_DB;
