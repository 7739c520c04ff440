// What the tests of sessions share: a running daemon, cheap requests, and connections below the level of NETCONF.
#pragma once

#include "support/daemon_test.h"

constexpr char BASE_NS[] = "urn:ietf:params:xml:ns:netconf:base:1.0";
constexpr char PRIVATE_NS[] = "com:zentra:netconf:private:opal:device:ymgrd";
constexpr char GET_CAPABILITY[] = "<get-capability xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>";
constexpr char CREATE_SESSION[] = "<create-session xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>";
constexpr char SHUTDOWN[] = "<shutdown xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>";

class session_fixture : public support::daemon_test {
protected:
  void SetUp() override { ASSERT_TRUE(daemon.start()); }

  static bool contains(const std::string &text, const std::string &part)
  {
    return text.find(part) != std::string::npos;
  }
  static std::string rpc(const std::string &message_id, const std::string &operation)
  {
    return "<rpc message-id=\"" + message_id + "\" xmlns=\"" + BASE_NS + "\">" + operation + "</rpc>";
  }
  // A connection without create-session.
  ymgr_client_ptr connect_raw()
  {
    std::string reason;
    ymgr_client_ptr client = ymgr_connect(daemon.run_dir(), &reason);
    EXPECT_NE(client, nullptr) << reason;
    return client;
  }
  static bool is_closed_by_daemon(ymgr_client_t *client)
  {
    return !ymgr_receive(client) && contains(ymgr_last_error(client), "closed");
  }
  // Waits until the next frame, which is to be the reply to request `seq`; its payload.
  static std::string reply_to(ymgr_client_t *client, uint16_t seq)
  {
    std::optional<ymgr_frame_t> frame = ymgr_receive(client);
    if (!frame) {
      ADD_FAILURE() << "no reply to " << seq << ": " << ymgr_last_error(client);
      return "";
    }
    EXPECT_EQ(frame->seq, seq);
    return frame->payload;
  }
};
