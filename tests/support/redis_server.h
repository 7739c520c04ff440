// A private Redis server, and an independent look into its databases.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/environment.h"

struct redisContext;

namespace support {

// Whether the data outlives the server process (needed for tests that end Redis and start it again).
enum class redis_data { lost_at_exit, kept };

class redis_server {
public:
  // Starts a server that listens on `dir`/redis.sock only. Throws when it does not come up.
  explicit redis_server(const std::string &dir, redis_data data = redis_data::lost_at_exit);
  ~redis_server();

  const std::string &socket_path() const { return socket_path_; }
  void start();
  void stop();     // orderly
  void kill_now(); // as if it had crashed

  // One command on its own in a database. The reply as texts: arrays are flattened, nil is nothing. Throws on an error
  // reply.
  std::vector<std::string> command(int db, const std::vector<std::string> &words);
  // All keys of a database with type and content, sorted; bytes that do not print are escaped. For comparing databases.
  std::string dump(int db);

private:
  struct context_delete {
    void operator()(redisContext *context) const;
  };
  std::vector<std::string> run(const std::vector<std::string> &words); // in the database last selected

  std::string dir_;
  std::string socket_path_;
  redis_data data_;
  child_process process_;
  std::unique_ptr<redisContext, context_delete> context_;
};

} // namespace support
