// Directories and child processes of a test. Everything made here is gone with its owner, also when the test failed.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace support {

// Generous: builds with sanitizers on a loaded machine are slow, and a test that passes does not wait for it.
constexpr std::chrono::milliseconds DEADLINE{30000};

// Asks until `is_reached` says yes or the time is over. Whether it said yes.
bool wait_until(const std::function<bool()> &is_reached, std::chrono::milliseconds timeout = DEADLINE);

// From byte `offset` on; empty when it cannot be read.
std::string read_file(const std::string &path, size_t offset = 0);
void write_file(const std::string &path, const std::string &text);

// What the variable says, for tests that can be run for longer or otherwise by hand.
unsigned long long number_from(const char *variable, unsigned long long otherwise);

// A directory below /tmp, removed with all it holds. Its path is short enough for sockets inside.
class temp_dir {
public:
  temp_dir();
  temp_dir(const temp_dir &) = delete;
  temp_dir &operator=(const temp_dir &) = delete;
  ~temp_dir();

  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

// One child process at a time. It is killed with its owner, and by the kernel when the test program itself dies.
class child_process {
public:
  child_process() = default;
  child_process(const child_process &) = delete;
  child_process &operator=(const child_process &) = delete;
  ~child_process();

  // Standard output and error are appended to `output_path`. False when no process could be made.
  bool start(const std::vector<std::string> &arguments, const std::string &output_path);
  pid_t pid() const { return pid_; } // 0 while there is none
  bool running();
  void signal(int number);
  // The wait status (see waitpid), kept until the next start; nothing when the process still runs at the time-out.
  std::optional<int> wait(std::chrono::milliseconds timeout = DEADLINE);
  void kill_now(); // SIGKILL, and waits

private:
  pid_t pid_ = 0;
  std::optional<int> status_;
};

} // namespace support
