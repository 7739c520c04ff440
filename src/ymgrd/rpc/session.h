// Agent sessions: connections on the agent socket, their framing, their request in progress, their queue of replies.
// Knows neither the broker nor the operations: what happens with a complete request is registered by start-up.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "libconf/conf_buffer.h"
#include "ymgrd/notify/base_notification.h"
#include "ymgrd/rpc/rpc_context.h"

// A session is idle (bit_rpc set) or processes one request (bit_rpc clear): further requests stay in the socket.
// Messages wait in `send_buf` in the order of their queueing, a reply among notifications.
typedef struct _session {
  int session_id = 0;   // index in "LIST-session" plus one
  int sock = -1;        // -1 once closed, when the record only waits for its publication to end
  std::string username; // of create-session, blanks stripped
  int agent_ppid = 0;
  time_t login_time = 0;     // of create-session
  uint64_t requests = 0;     // received
  bool bit_init = false;     // create-session has completed
  bool bit_rpc = true;       // may take a new request
  bool bit_exit = false;     // to be closed once its reply has gone
  bool bit_end_told = false; // its end was reported
  bool bit_ipv4 = false;
  bool bit_ipv6 = false;
  uint32_t client_addr[4] = {};
  uint32_t exit_cnt = 0;    // seconds since the last write for which a session with bit_exit was kept open
  uint32_t linger_cnt = 0;  // the same, writes or not
  uint32_t send_cursor = 0; // bytes of the first queued message already written
  size_t send_begin = 0;    // where that message begins in `send_buf`; what is before it has been written and cleared
  size_t reply_end = 0;     // where the reply that waits to be written ends there; 0 when none waits
  uint32_t awaited = 0;     // epoll events that the event loop waits for
  uint16_t wait_reply_seq = 0;
  conf_buffer_ptr recv_buf;
  conf_buffer_ptr send_buf;
  std::unique_ptr<rpc_oper_context_t> rpc_context;
} session_t;

enum { SESSION_MSG_OTHER = 0, SESSION_MSG_REPLY = 1 };

// What the layers above do for the sessions. Set once by start-up before the agent socket opens.
typedef struct _session_hooks {
  // Handles one complete request: 0 when it is in progress (a reply follows), -1 when it is over. The payload is only
  // valid during the call.
  int (*receive)(int session_id, const msg_head_t *head, std::string_view payload);
  // True while the operation must wait for a publication or status subscription.
  bool (*is_busy)(const char *oper);
  // Starts the request that the session holds: 0, or -1 when it is over.
  int (*publish)(int session_id);
  // The session is about to end: locks and subscriptions are released. It can still be looked up.
  void (*closing)(int session_id);
  // Every session has gone after a shutdown request: does not return.
  void (*shut_down)();
} session_hooks_t;
void session_set_hooks(const session_hooks_t &hooks);

session_t *session_find(int session_id); // null when there is none
int session_spec();                      // most sessions at once
int session_count();
bool session_is_overload();
uint32_t session_max_message_size(); // most bytes of one message; of plugins too

int agent_service_sock(); // -1 before the agent service is open
int agent_service_wakeup(uint32_t event);
int session_inst_init(int sock);                         // 0 or -1; on -1 the caller still owns the socket
int session_inst_wakeup(int session_id, uint32_t event); // 0 or -1
// Closes the connection. The record stays, with its id, while a request of the session is still with its subscribers.
void session_inst_exit(int session_id);
void session_timeout(); // about once a second
// At the end of the process: frees the records of the open sessions, leaving their sockets to the kernel.
void session_forget_all();

// Queues a framed message; it is written when the socket takes it. 0, or -1 (logged): also for a message other than a
// reply when the session is to be closed.
int session_cache_send(int session_id, int type, const char *buf, int len);
// The same for a message that lies in several pieces, of which it consists in that order.
int session_cache_send_pieces(int session_id, int type, std::span<const std::string_view> pieces);
// Bytes of messages that the session's peer has not taken yet; 0 also when there is no such session.
size_t session_queued(int session_id);
// Tells the event loop what the session waits for: a request while it may take one, room in the socket while messages
// are queued or the session is only to be closed. To be called after each change of these. 0 or -1.
int session_schedule(int session_id);
// Starts the next waiting request of any session, the ones after `session_id` first.
void session_schedule_next(int session_id);

rpc_oper_context_t *session_get_rpc_context(int session_id);
// The session takes the context over. -1 when it has one already or does not exist; the context is then freed.
int session_save_rpc_context(int session_id, std::unique_ptr<rpc_oper_context_t> context);
void session_del_rpc_context(int session_id);
// 0 when the session may run the operation now, -1 otherwise.
int session_check_operation(int session_id, const char *oper_name);

// The client's address as text, empty when unknown.
std::string session_client_address(const session_t &session);
// What a base notification says of a session: number, user, address.
base_notification_info_t session_describe(const session_t &session);
// Reports that the session ends, once; a connection that never was a session is not reported.
void session_report_end(session_t *session, NC_SESSION_TERM_REASON reason, int killed_by);
void session_report_ends(); // of all, when the daemon ends in an orderly way

bool session_is_shutting_down();
// A daemon-wide shutdown, asked for by a session, whose reply is kept until the other sessions have gone.
void session_begin_shutdown(int session_id, std::string reply_text);
