// A gate between a daemon and its Redis server: forwards both ways, sees the daemon's writes, and stands still before a
// chosen one, so that a test can end the daemon at exactly that moment.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/environment.h"

namespace support {

// A command that changed data. A MULTI is one write, its EXEC: what was queued without it has no effect.
typedef struct _redis_write {
  int db = 0;
  std::vector<std::string> words;
} redis_write_t;

class redis_gate {
public:
  static constexpr size_t NEVER = SIZE_MAX;

  // Listens on `dir`/gate.sock. Throws when it cannot.
  redis_gate(const std::string &dir, const std::string &server_socket);
  redis_gate(const redis_gate &) = delete;
  redis_gate &operator=(const redis_gate &) = delete;
  ~redis_gate();

  const std::string &socket_path() const { return socket_path_; }

  // Counts writes anew. When `hold_before` writes have gone through, nothing more does: neither the next write nor
  // anything else, in either direction.
  void watch(size_t hold_before = NEVER);
  bool held();
  std::vector<redis_write_t> writes(); // since the last watch()
  // The server has executed what went through and has forgotten the connections; new ones pass.
  void open();

private:
  struct connection_t {
    int daemon = -1;
    int server = -1;
    std::string unparsed;  // of the daemon: the beginning of a command
    std::string to_server; // whole commands
    std::string to_daemon;
    int db = 0;
    bool in_multi = false;
    connection_t(int daemon_socket, int server_socket) : daemon(daemon_socket), server(server_socket) {}
    connection_t(const connection_t &) = delete;
    connection_t &operator=(const connection_t &) = delete;
    ~connection_t();
  };

  void run();
  void wait_for_traffic();
  void accept_all();
  bool pump(connection_t *connection); // false when it has ended
  void take_commands(connection_t *connection);
  bool passes(connection_t *connection, std::vector<std::string> words);
  void wake() const;

  std::string socket_path_;
  std::string server_path_;
  int listener_ = -1;
  int wake_ = -1; // an eventfd: something was changed by the test

  std::mutex mutex_; // guards all below
  std::list<connection_t> connections_;
  std::vector<redis_write_t> writes_;
  size_t hold_before_ = NEVER;
  bool held_ = false;
  bool ending_ = false;

  std::thread thread_;
};

} // namespace support
