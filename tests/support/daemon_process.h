// A real daemon in a directory of its own: profile, modules, run directory, log.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/environment.h"

namespace support {

typedef struct _test_module {
  std::string name;
  std::vector<std::string> features = {};
  std::vector<std::string> deviations = {};
} test_module_t;

typedef struct _daemon_options {
  // The profile's "modules", in load order; revisions are taken from the module files.
  std::vector<test_module_t> modules = {
      {"ietf-netconf", {"writable-running", "candidate", "rollback-on-error", "startup"}},
      {"zentra-ymgrd"},
      {"ex-types"},
      {"ex-sys"}};
  // Members of the profile (name to JSON text) that replace or join the usual ones; an empty text leaves one out.
  std::map<std::string, std::string> profile;
  // The "working-key" of the usual "database" section, as provision_key() gives it; none when empty.
  std::string working_key;
  // Further words of the command line.
  std::vector<std::string> arguments;
  // The program, when it is not the daemon as installed.
  std::string binary;
} daemon_options_t;

class daemon_process {
public:
  // Below `dir`: ymgrd.conf, modules/ (copies of the modules of this source tree), plugins/, run/, ymgrd.log.
  daemon_process(const std::string &dir, const std::string &redis_socket, daemon_options_t options = {});

  // To be changed before the next start.
  daemon_options_t &options() { return options_; }
  void use_redis(const std::string &socket) { redis_socket_ = socket; }
  std::string modules_dir() const { return dir_ + "/modules"; }
  std::string run_dir() const { return dir_ + "/run"; }
  std::string profile_path() const { return dir_ + "/ymgrd.conf"; }
  std::string log_path() const { return dir_ + "/ymgrd.log"; }

  void write_profile() const;
  // Writes the profile, starts the daemon and waits until it is ready. A failure carries the log.
  testing::AssertionResult start();
  // The same, without waiting: for starts that are to fail.
  testing::AssertionResult launch();
  testing::AssertionResult stop(); // SIGTERM, and waits for its end
  testing::AssertionResult restart() { return stop() && start() ? testing::AssertionSuccess() : failure("restart"); }
  void kill_now() { process_.kill_now(); } // SIGKILL, and waits
  std::optional<int> wait(std::chrono::milliseconds timeout = DEADLINE) { return process_.wait(timeout); }
  bool running() { return process_.running(); }
  pid_t pid() const { return process_.pid(); }

  // What was logged since the last start.
  std::string log_text() const { return read_file(log_path(), log_begin_); }
  std::string log_tail() const; // its last part, for a failing test
  testing::AssertionResult wait_for_log(const std::string &text, std::chrono::milliseconds timeout = DEADLINE) const;

  long rss_kb() const;   // resident memory; -1 when it does not run
  long fd_count() const; // open descriptors; -1 when it does not run

private:
  testing::AssertionResult failure(const std::string &what) const;
  std::string profile_text() const;

  std::string dir_;
  std::string redis_socket_;
  daemon_options_t options_;
  child_process process_;
  size_t log_begin_ = 0;
};

} // namespace support
