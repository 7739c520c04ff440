// What the daemon sends, on its way to the client: frames become messages in the client's framing. Long ones pass
// through in pieces; only short replies are looked at.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "client/client.h"
#include "libconf/wiped_string.h"
#include "netconf/netconf_framing.h"
#include "netconf/netconf_request.h"

class netconf_replies {
public:
  // What is written for the client is appended to `out`, which the caller empties.
  explicit netconf_replies(wiped_string *out) : out_(out) {}

  void set_framing(netconf_framing framing); // only between two messages

  // A request is on its way: its reply is awaited.
  void await(uint16_t seq, netconf_request_t request);
  // A request of this program's own: its reply does not go to the client.
  void await_own(uint16_t seq);
  bool is_awaiting() const { return awaited_seq_ != 0; }
  // The reply to the last own request, once; nothing before it is there.
  std::optional<std::string> take_own_reply();
  bool has_closed() const { return has_closed_; } // close-session was answered with <ok/>

  // Takes bytes from the daemon. False when they are no frames.
  bool take(std::string_view bytes);
  // A message of this program's own: goes out as soon as none of the daemon's is in the middle.
  void say(std::string message);
  bool has_unsaid() const { return !unsaid_.empty(); }
  bool is_in_message() const { return is_in_frame_; }

private:
  enum class way { to_client, looked_at, dropped };

  bool begin_frame();
  void take_payload(std::string_view piece);
  void end_frame();
  void end_reply();
  void write_whole(std::string_view message);

  wiped_string *out_;
  netconf_writer writer_;
  netconf_framing framing_ = netconf_framing::end_of_message;
  // The frame that arrives.
  std::string head_; // its bytes until they are all there
  bool is_in_frame_ = false;
  ymgr_frame_head_t frame_;
  uint32_t left_ = 0; // of its payload
  way way_ = way::dropped;
  wiped_string looked_at_;
  // The request whose reply is awaited.
  uint16_t awaited_seq_ = 0; // 0: none
  bool is_own_ = false;
  netconf_request_t request_;
  std::optional<std::string> own_reply_;
  bool has_closed_ = false;
  std::string unsaid_;
};
