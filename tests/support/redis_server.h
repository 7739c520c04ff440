// A private Redis server, and an independent look into its databases.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/environment.h"

struct redisContext;

namespace support {

// Whether the data outlives the server process (needed for tests that end Redis and start it again).
enum class redis_data { lost_at_exit, kept };

typedef struct _redis_value {
  std::string type;               // hash, list, string
  std::vector<std::string> texts; // of a hash: each field and its value, in no order
} redis_value_t;

// Bytes that do not print, and backslashes, give way to escapes.
std::string escaped(const std::string &bytes);

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
  std::map<std::string, redis_value_t> content(int db); // of all keys
  // The same as text, sorted and escaped. For comparing databases.
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
