// A remote plugin of a test, played step by step: it speaks the bytes of the plugin socket itself.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "support/environment.h"

namespace support {

typedef struct _plugin_call {
  std::string method; // empty: none came, or the connection has ended
  int id = 0;
  std::string xml; // the whole message

  // Of a change: "OPER-TYPE PATH".
  std::string change() const;
} plugin_call_t;

class plugin_peer {
public:
  plugin_peer(const std::string &run_dir, const std::string &name);
  plugin_peer(plugin_peer &&other) noexcept;
  ~plugin_peer();

  // What register() will tell. The callback number is the priority.
  plugin_peer &config(const std::string &path, int priority);
  plugin_peer &status(const std::string &path);
  plugin_peer &operation(const std::string &path);

  // The error's text; empty on success.
  std::string register_now();
  std::string activate(const std::string &wishes = "<with-cfgr/>"); // registers before, if that is still to be done
  // Registers, activates and answers until the kickoff. The changes that were handed over meanwhile.
  std::vector<std::string> start(const std::string &wishes = "<with-cfgr/>");

  // The daemon's next request.
  plugin_call_t next(std::chrono::milliseconds timeout = DEADLINE);
  void accept(const plugin_call_t &call, const std::string &result = "");
  void refuse(const plugin_call_t &call, int code, const std::string &message);
  // Accepts the next request and tells its change.
  std::string take();

  // A request of the plugin: what stands in <result>, or "ERROR " and the message. Requests of the daemon that come
  // meanwhile are kept for next().
  std::string request(const std::string &method, const std::string &params);
  std::string pull(const std::string &path, bool old = false);

  void send_text(const std::string &xml, int id);
  void send_raw(const std::string &bytes);
  void die();        // the connection ends
  bool is_cut_off(); // the daemon has ended it; waits for that

private:
  std::optional<plugin_call_t> receive(std::chrono::milliseconds timeout);

  std::string name_;
  std::string registration_;
  bool is_registered_ = false;
  int sock_ = -1;
  int last_id_ = 0;
  std::string buffer_;
  std::deque<plugin_call_t> waiting_;
};

} // namespace support
