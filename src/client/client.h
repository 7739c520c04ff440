// Client of the daemon's agent socket: one connection is one session.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Namespaces of what goes over the socket: NETCONF's own (RFC 6241), and the daemon's operations and state.
constexpr char YMGR_BASE_NAMESPACE[] = "urn:ietf:params:xml:ns:netconf:base:1.0";
constexpr char YMGR_DAEMON_NAMESPACE[] = "com:zentra:netconf:private:opal:device:ymgrd";

typedef struct _ymgr_client ymgr_client_t;

struct ymgr_client_delete_t {
  void operator()(ymgr_client_t *client) const;
};
using ymgr_client_ptr = std::unique_ptr<ymgr_client_t, ymgr_client_delete_t>;

typedef struct _ymgr_frame {
  uint16_t seq = 0; // 0: not a reply (a notification)
  std::string payload;
} ymgr_frame_t;

using ymgr_duration = std::chrono::milliseconds;
constexpr ymgr_duration YMGR_DEFAULT_TIMEOUT{30000};

// Connects to agent.sock in `run_dir`. Null on failure, with the reason in `ret_error` (may be null).
ymgr_client_ptr ymgr_connect(const std::string &run_dir, std::string *ret_error);

// Login name of the process's real user id. When that has several, the one in LOGNAME. Empty when it has none.
std::string ymgr_login_name();
// Performs create-session. The session id, or nothing on failure: ymgr_last_error() has the daemon's words when it has
// refused.
std::optional<int> ymgr_create_session(ymgr_client_t *client, const std::string &username);

// Sends one request: `payload` is the <rpc> document. Its sequence number (never 0), or nothing when the connection
// failed.
std::optional<uint16_t> ymgr_send(ymgr_client_t *client, std::string_view payload);
// The next frame; nothing on time-out or when the connection ended (ymgr_last_error says which).
std::optional<ymgr_frame_t> ymgr_receive(ymgr_client_t *client, ymgr_duration timeout = YMGR_DEFAULT_TIMEOUT);
// The same for the next notification (a frame with number 0); other frames are kept for ymgr_receive.
std::optional<ymgr_frame_t> ymgr_receive_notification(ymgr_client_t *client,
                                                      ymgr_duration timeout = YMGR_DEFAULT_TIMEOUT);
// Sends a request and waits for its reply; other frames that arrive meanwhile are kept for ymgr_receive.
std::optional<std::string> ymgr_request(ymgr_client_t *client, std::string_view payload,
                                        ymgr_duration timeout = YMGR_DEFAULT_TIMEOUT);
// The same for an operation: wraps `operation` (one element) in <rpc> with the next message-id.
std::optional<std::string> ymgr_rpc(ymgr_client_t *client, std::string_view operation,
                                    ymgr_duration timeout = YMGR_DEFAULT_TIMEOUT);

typedef struct _ymgr_progress {
  size_t sent = 0; // bytes of the request
  size_t size = 0; // of them in all
} ymgr_progress_t;
// For whoever waits with a person at the terminal: called while a request is sent and its reply awaited, after each
// piece and at least ten times a second. When it returns false the wait ends as with a time-out, the error being
// "interrupted"; unless all was sent the connection can then send nothing more, and the daemon drops what it has got.
using ymgr_progress_hook = std::function<bool(const ymgr_progress_t &progress)>;
void ymgr_set_progress(ymgr_client_t *client, ymgr_progress_hook hook);

// Raw access, for tests of the framing: writes bytes as they are; the descriptor of the connection.
bool ymgr_send_raw(ymgr_client_t *client, std::string_view bytes);
int ymgr_descriptor(const ymgr_client_t *client);
// A frame as it goes over the socket.
std::string ymgr_frame(std::string_view payload, uint16_t seq);

// For whoever reads and writes the descriptor by itself, from a moment on when no reply is awaited: the head in front
// of each payload.
constexpr size_t YMGR_FRAME_HEAD_SIZE = 12;
typedef struct _ymgr_frame_head {
  uint32_t length = 0; // of the payload
  uint16_t seq = 0;
} ymgr_frame_head_t;
std::string ymgr_frame_head(const ymgr_frame_head_t &head);
// False when the YMGR_FRAME_HEAD_SIZE bytes are none.
bool ymgr_read_frame_head(const char *bytes, ymgr_frame_head_t *ret_head);

const std::string &ymgr_last_error(const ymgr_client_t *client);
