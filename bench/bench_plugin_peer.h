// Plugins as the measured daemon sees them. They speak the bytes of the plugin socket themselves and do next to nothing
// for a message, so that what is measured is the daemon and not them.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// What a plugin registers, and how it answers.
typedef struct _bench_plugin_role {
  std::vector<std::string> config = {}; // subscribed paths; the callback number of each is its index
  std::string status = {};              // empty: none
  std::string operation = {};           // empty: none
  std::string state = {};               // the answer to a get
  std::string output = {};              // the answer to an operation
  bool pulls = false;                   // reads the node of each change before accepting it
} bench_plugin_role_t;

// A change that was handed over.
typedef struct _bench_change {
  int callback = 0;
  std::string path;
} bench_change_t;

// Functions that return int give 0, or -1 after telling why.
class bench_plugin {
public:
  bench_plugin() = default;
  bench_plugin(const bench_plugin &) = delete;
  bench_plugin &operator=(const bench_plugin &) = delete;
  ~bench_plugin();

  int connect_to(const std::string &run_dir);
  void adopt(int sock) { sock_ = sock; } // a connection that exists; closed with the object
  int sock() const { return sock_; }

  int register_as(const std::string &name, bench_plugin_role_t role);
  // Accepts what the daemon hands over until it counts on the plugin.
  int activate(bool is_restored);
  // A request to the daemon; what the daemon asks meanwhile is answered. `*ret_result` is the markup in <result>.
  int ask(const std::string &method, const std::string &params, std::string *ret_result);
  int pull(const std::string &path, std::string *ret_data);
  // Waits for bytes and answers what is complete.
  int serve();

  std::vector<bench_change_t> take_changes(); // all since the last time, in the order in which they came

private:
  int receive();
  int next_message(std::string *ret_text); // 1: one, 0: none is complete, -1
  int send_message(std::string_view text, int id);
  int answer_received(); // what is complete
  int answer(const std::string &request);
  int answer_publish(const std::string &request, std::string *ret_result);

  int sock_ = -1;
  bench_plugin_role_t role_;
  int last_id_ = 0;
  bool is_kicked_off_ = false;
  std::string received_; // the first `read_` bytes are used up
  size_t read_ = 0;
  std::vector<bench_change_t> changes_;
};

// Plugins that are served by one thread.
class bench_plugin_host {
public:
  bench_plugin_host() = default;
  bench_plugin_host(const bench_plugin_host &) = delete;
  bench_plugin_host &operator=(const bench_plugin_host &) = delete;
  ~bench_plugin_host();

  // `count` plugins of the same role, ready, without a restore.
  int start(const std::string &run_dir, int count, const bench_plugin_role_t &role);
  // Serves the other ends of these connections, which are taken over.
  int start_on(const std::vector<int> &socks);
  // Ends the serving, not the connections. -1 as well when serving had failed.
  int pause();
  void resume();

  std::vector<std::unique_ptr<bench_plugin>> &plugins() { return plugins_; } // only while nothing is served

private:
  void serve();

  std::vector<std::unique_ptr<bench_plugin>> plugins_;
  std::thread thread_;
  int wake_ = -1;
  std::atomic<bool> has_failed_ = false;
};
