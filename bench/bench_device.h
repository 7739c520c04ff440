// A private device: a Redis server and a daemon of their own in a temporary directory, ended and removed with the
// object.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

// A child process that is ended and waited for with its owner.
class bench_process {
public:
  bench_process() = default;
  bench_process(const bench_process &) = delete;
  bench_process &operator=(const bench_process &) = delete;
  ~bench_process() { stop(); }

  // Its output goes to the file `log`. 0 or -1.
  int start(const std::vector<std::string> &command, const std::string &log);
  bool runs(); // false as well when it has just ended
  void stop();
  int wait(); // until it ends by itself: its exit status, -1 when it has none
  pid_t pid() const { return pid_; }

private:
  pid_t pid_ = 0;
};

typedef struct _bench_device_options {
  std::string sections;         // further members of the profile, each with a comma behind it
  bool has_working_key = false; // for sensitive leaves
} bench_device_options_t;

class bench_device {
public:
  explicit bench_device(const bench_device_options_t &options = {});
  ~bench_device();

  int start_redis(); // 0 or -1
  int start_daemon();
  void stop_daemon() { daemon_.stop(); }

  const std::string &dir() const { return dir_; } // also the daemon's run directory
  std::string redis_socket() const { return dir_ + "/redis.sock"; }
  double resident_mb() const; // of the daemon; 0 when it does not run
  int descriptors() const;    // open ones of the running daemon
  double cpu_ms() const;      // that the daemon has used

private:
  void write_profile(const bench_device_options_t &options) const;
  int wait_for(bench_process *process, const std::string &socket);

  std::string dir_; // empty when the device could not be made
  bench_process redis_;
  bench_process daemon_;
};
