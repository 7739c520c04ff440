#include "ymgrd/rpc/session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "libconf/conf_client_area.h"
#include "libconf/conf_event.h"
#include "libconf/conf_service.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/rpc/session_internal.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr const char SESSION_LIST[] = "LIST-session";
constexpr int DEFAULT_SESSION_SPEC = 16;
constexpr int MAX_SESSION_SPEC = 0xffff; // an id has 16 bits in the event tag
constexpr size_t BUFFER_SIZE = 1024;
constexpr uint32_t SOCKET_FAILED = EPOLLERR | EPOLLHUP | EPOLLRDHUP;
constexpr const char CREATE_SESSION[] = "/zentra-ymgrd:create-session";
// Seconds for which a session that is to be closed waits for a peer that does not read, and for one that reads a
// little now and then.
constexpr uint32_t MAX_LINGER_PASSES = 5;
constexpr uint32_t MAX_LINGER_PASSES_IN_ALL = 60;

session_hooks_t session_hooks = {};

// NO_SHUTDOWN -> the id of the session that asked for it -> SHUTDOWN_ANSWERED once its reply is queued, or it has gone.
enum { NO_SHUTDOWN = -1, SHUTDOWN_ANSWERED = 0 };
int g_shutdown = NO_SHUTDOWN;
std::string g_shutdown_reply;

bool is_publishing(const session_t &session)
{
  return session.rpc_context != nullptr && session.rpc_context->is_publishing != 0;
}

bool has_unwritten_reply(const session_t &session)
{
  return session.sock >= 0 && session.reply_end > 0;
}

// A request that still waits for its turn does not keep a killed session.
bool may_close(const session_t &session)
{
  return session.bit_exit && !is_publishing(session) && !session_has_unwritten(session);
}

// An unwritten reply keeps a session from its next request: a peer that does not read cannot fill the memory. Other
// messages do not, for the stream of events of a subscriber may never end; who queues them bounds them.
bool may_receive(const session_t &session)
{
  return session.bit_rpc && !session.bit_exit && !has_unwritten_reply(session);
}

uint32_t awaited_events(const session_t &session)
{
  uint32_t events = 0;
  if (may_receive(session)) {
    events |= EPOLLIN | EPOLLPRI;
  }
  if (session_has_unwritten(session) || may_close(session)) {
    events |= EPOLLOUT;
  }
  return events;
}

// The event loop's descriptor, or -1 (logged).
int event_loop_fd()
{
  int epfd = context_get_int("OPT-ymgrd-epfd", -1);
  if (epfd < 0) {
    log_error("Ymgrd's epoll-fd is not ready.");
  }
  return epfd;
}

void log_peer(const session_t &session)
{
  conf_peer_t peer = {};
  if (conf_peer_credentials(session.sock, &peer) == 0) {
    log_debug("Session %d belongs to process %d of user %u, group %u.", session.session_id, static_cast<int>(peer.pid),
              static_cast<unsigned>(peer.uid), static_cast<unsigned>(peer.gid));
  }
}

int watch_socket(session_t &session)
{
  int epfd = event_loop_fd();
  if (epfd < 0) {
    return -1;
  }
  uint32_t events = awaited_events(session);
  uint32_t tag = ymgrd_event_tag(AGT_INST, static_cast<uint32_t>(session.session_id));
  if (conf_event_add(epfd, session.sock, events, tag) != 0) {
    log_error("Add session %d's event to epoll failed.", session.session_id);
    return -1;
  }
  session.awaited = events;
  return 0;
}

// Lets go of everything that belongs to the connection.
void close_connection(session_t &session)
{
  bool is_sent_away = session.bit_exit || session_is_shutting_down();
  session_report_end(&session, is_sent_away ? NC_SESSION_TERM_OTHER : NC_SESSION_TERM_DROPPED, 0);
  if (session_hooks.closing != nullptr) {
    session_hooks.closing(session.session_id);
  }
  int epfd = context_get_int("OPT-ymgrd-epfd", -1);
  if (epfd >= 0) {
    (void)conf_event_remove(epfd, session.sock); // close() alone leaves it watched while a child process holds a copy
  }
  close(session.sock);
  session.sock = -1;
  session.recv_buf.reset();
  session.send_buf.reset();
  session.username.clear();
  if (session.agent_ppid != 0) {
    conf_free_client_info(session.agent_ppid);
  }
  if (g_shutdown == session.session_id) { // its id may go to a session that never asked
    g_shutdown = SHUTDOWN_ANSWERED;
    g_shutdown_reply.clear();
    session.rpc_context.reset();
  }
}

void end_session(int session_id)
{
  session_inst_exit(session_id);
  session_schedule_next(session_id);
}

int receive_request(session_t *session)
{
  int session_id = session->session_id;
  msg_head_t head = {};
  std::string_view payload;
  switch (session_get_rpc(*session, &head, &payload)) {
  case SESSION_RECV_ERROR:
    session->bit_exit = true; // it is the daemon that ends it
    end_session(session_id);
    return -1;
  case SESSION_RECV_END:
    log_debug("The peer of session %d has finished.", session_id);
    end_session(session_id);
    return 0;
  case SESSION_RECV_MORE:
    return 0;
  case SESSION_RECV_MESSAGE:
    break;
  }
  session->bit_rpc = false;
  session->requests++;
  session->wait_reply_seq = head.seq;
  int result = session_hooks.receive == nullptr ? -1 : session_hooks.receive(session_id, &head, payload);

  session = session_find(session_id);
  if (session == nullptr || session->sock < 0) {
    return 0;
  }
  if (result != 0) {
    session->bit_rpc = true;
    session->wait_reply_seq = 0;
  }
  session_free_message(*session, head);
  (void)session_schedule(session_id); // logged there
  return 0;
}

// True when the session holds a request that waited for the broker and may start now.
bool may_publish(const session_t &session)
{
  const rpc_oper_context_t *context = session.rpc_context.get();
  if (context == nullptr || context->is_publishing != 0 || session.bit_exit) {
    return false;
  }
  return session_hooks.is_busy == nullptr || !session_hooks.is_busy(context->oper.c_str());
}

void publish_waiting_request(session_t *session)
{
  int session_id = session->session_id;
  session->rpc_context->is_publishing = 1;
  if (session_hooks.publish != nullptr && session_hooks.publish(session_id) == 0) {
    return;
  }
  session = session_find(session_id);
  if (session == nullptr) {
    return;
  }
  session->rpc_context.reset();
  session->bit_rpc = true;
  session->wait_reply_seq = 0;
  (void)session_schedule(session_id); // logged there
}

void send_shutdown_reply()
{
  int session_id = std::exchange(g_shutdown, SHUTDOWN_ANSWERED);
  std::string reply = std::exchange(g_shutdown_reply, std::string());
  if (session_find(session_id) == nullptr) {
    log_error("Get session %d failed.", session_id);
    return;
  }
  session_del_rpc_context(session_id);
  if (session_cache_send(session_id, SESSION_MSG_REPLY, reply.data(), static_cast<int>(reply.size())) == 0) {
    (void)session_schedule(session_id); // logged there
  }
}

void shut_down()
{
  if (session_hooks.shut_down != nullptr) {
    session_hooks.shut_down();
  }
}

// A session whose peer reads nothing is idle too: it has no request in progress.
bool is_idle(const session_t &session)
{
  return session.bit_rpc || session.rpc_context == nullptr;
}

// Called about once a second: counts it when only unwritten messages keep the session.
bool is_to_be_closed(session_t &session)
{
  if (!session.bit_exit || is_publishing(session)) {
    return false;
  }
  return !session_has_unwritten(session) || ++session.exit_cnt > MAX_LINGER_PASSES ||
         ++session.linger_cnt > MAX_LINGER_PASSES_IN_ALL;
}

// Closes what is to be closed; while shutting down, marks the idle rest for a later pass. The ids that are left.
std::vector<int> sweep_sessions()
{
  std::vector<int> remaining;
  int size = context_list_size(SESSION_LIST);
  for (int session_id = 1; session_id <= size; session_id++) {
    session_t *session = session_find(session_id);
    if (session == nullptr) {
      continue;
    }
    if (is_to_be_closed(*session)) {
      session_inst_exit(session_id);
      continue;
    }
    remaining.push_back(session_id);
    if (session_is_shutting_down() && session_id != g_shutdown && is_idle(*session)) {
      session->bit_exit = true;
    }
  }
  return remaining;
}

} // namespace

void session_set_hooks(const session_hooks_t &hooks)
{
  session_hooks = hooks;
}

session_t *session_find(int session_id)
{
  return session_id < 1 ? nullptr : static_cast<session_t *>(context_get_list_entry(SESSION_LIST, session_id - 1));
}

int session_spec()
{
  return context_get_int("OPT-session-spec", DEFAULT_SESSION_SPEC);
}

int session_count()
{
  int count = 0;
  int size = context_list_size(SESSION_LIST);
  for (int index = 0; index < size; index++) {
    count += context_get_list_entry(SESSION_LIST, index) == nullptr ? 0 : 1;
  }
  return count;
}

bool session_is_overload()
{
  return session_count() >= std::min(session_spec(), MAX_SESSION_SPEC);
}

int agent_service_sock()
{
  return context_get_int("OPT-agent-sock", -1);
}

int agent_service_wakeup(uint32_t event)
{
  if ((event & SOCKET_FAILED) != 0) {
    log_debug("There is error(0x%x) on agent-service socket.", event);
    (void)context_save_int("OPT-quit-flag", 1); // without memory the lost socket itself ends the loop
    return -1;
  }
  if ((event & (EPOLLIN | EPOLLPRI)) == 0) {
    return 0;
  }
  for (;;) {
    int sock = accept4(agent_service_sock(), nullptr, nullptr, SOCK_CLOEXEC);
    if (sock < 0 && (errno == EINTR || errno == ECONNABORTED)) {
      continue;
    }
    if (sock < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return 0;
    }
    if (sock < 0) {
      log_error("Accept on agent connect failed(%s).", std::strerror(errno));
      return -1;
    }
    if (session_inst_init(sock) != 0) {
      log_error("Initialize session instance failed.");
      close(sock);
    }
  }
}

int session_inst_init(int sock)
{
  if (session_is_overload()) {
    log_debug("Session list is full.");
    return -1;
  }
  if (conf_non_block_fd(sock) != 0) {
    log_error("Make session's socket to non-blocking failed.");
    return -1;
  }
  conf_buffer_ptr send_buf(conf_buffer_create(BUFFER_SIZE));
  conf_buffer_ptr recv_buf(conf_buffer_create(BUFFER_SIZE));
  if (send_buf == nullptr || recv_buf == nullptr) {
    log_error("Create buffer failed(send=%p, recv=%p).", static_cast<void *>(send_buf.get()),
              static_cast<void *>(recv_buf.get()));
    return -1;
  }
  std::unique_ptr<session_t> session(new (std::nothrow) session_t());
  int index = session == nullptr ? -1 : context_save_list_entry(SESSION_LIST, session.get());
  if (index < 0) {
    log_error("Allocate memory failed(%s).", std::strerror(errno));
    return -1;
  }
  session->session_id = index + 1;
  session->sock = sock;
  session->send_buf = std::move(send_buf);
  session->recv_buf = std::move(recv_buf);
  if (watch_socket(*session) != 0) {
    context_del_list_entry(SESSION_LIST, index);
    return -1;
  }
  log_peer(*session);
  log_debug("Create session instance(session-id=%d).", session->session_id);
  (void)session.release(); // the list's, until session_inst_exit
  return 0;
}

int session_inst_wakeup(int session_id, uint32_t event)
{
  if ((event & SOCKET_FAILED) != 0) {
    log_debug("There is error(0x%x) on session %d socket.", event, session_id);
    end_session(session_id);
    return 0;
  }
  session_t *session = session_find(session_id);
  if (session == nullptr || session->sock < 0) {
    log_error("Does not find session %d in context.", session_id);
    session_schedule_next(session_id);
    return -1;
  }
  if ((event & EPOLLOUT) != 0) {
    bool had_reply = has_unwritten_reply(*session);
    if (session_core_send(*session) != 0) {
      end_session(session_id);
      return -1;
    }
    if (had_reply && !has_unwritten_reply(*session)) {
      session_schedule_next(session_id);
      session = session_find(session_id);
    }
    if (session == nullptr) {
      return 0;
    }
  }
  if (may_close(*session)) {
    end_session(session_id);
    return 0;
  }
  if ((event & (EPOLLIN | EPOLLPRI)) == 0) {
    return 0;
  }
  if (!may_receive(*session)) {
    log_warn("Session %d is processing another rpc.", session_id);
    return 0;
  }
  return receive_request(session);
}

void session_inst_exit(int session_id)
{
  session_t *session = session_find(session_id);
  if (session == nullptr) {
    log_error("Does not find session %d in context.", session_id);
    return;
  }
  if (session->sock >= 0) {
    close_connection(*session);
  }
  session->bit_exit = true;
  if (is_publishing(*session)) {
    // The record keeps its id until the request is over: its reply must not reach a session that gets that id next.
    log_debug("Session %d waits for the end of its request.", session_id);
    return;
  }
  context_del_list_entry(SESSION_LIST, session_id - 1);
  std::unique_ptr<session_t> owned(session);
  log_debug("Session %d exit.", session_id);
}

void session_forget_all()
{
  int size = context_list_size(SESSION_LIST);
  for (int session_id = 1; session_id <= size; session_id++) {
    std::unique_ptr<session_t> owned(session_find(session_id));
    if (owned != nullptr) {
      context_del_list_entry(SESSION_LIST, session_id - 1);
    }
  }
}

void session_timeout()
{
  if (session_is_shutting_down() && session_count() == 0) {
    shut_down();
    return;
  }
  std::vector<int> remaining = sweep_sessions();
  if (session_is_shutting_down() && remaining.empty()) {
    shut_down();
    return;
  }
  if (g_shutdown > 0 && remaining.size() == 1 && remaining.front() == g_shutdown) {
    send_shutdown_reply();
  }
  // A publication may have ended for a session that has gone: then no written reply starts the next request.
  session_schedule_next(0);
}

int session_schedule(int session_id)
{
  session_t *session = session_find(session_id);
  if (session == nullptr || session->sock < 0) {
    log_error("Does not find session %d in context.", session_id);
    return -1;
  }
  int epfd = event_loop_fd();
  if (epfd < 0) {
    return -1;
  }
  uint32_t events = awaited_events(*session);
  if (events == session->awaited) { // as for the second of many messages
    return 0;
  }
  uint32_t tag = ymgrd_event_tag(AGT_INST, static_cast<uint32_t>(session_id));
  if (conf_event_reset(epfd, session->sock, events, tag) != 0) {
    log_error("Reset session %d's event to epoll failed.", session_id);
    return -1;
  }
  session->awaited = events;
  return 0;
}

void session_schedule_next(int session_id)
{
  int size = context_list_size(SESSION_LIST);
  for (int step = 0; step < size; step++) {
    session_t *session = session_find((session_id + step) % size + 1);
    if (session != nullptr && may_publish(*session)) {
      publish_waiting_request(session);
      return;
    }
  }
}

rpc_oper_context_t *session_get_rpc_context(int session_id)
{
  const session_t *session = session_find(session_id);
  return session == nullptr ? nullptr : session->rpc_context.get();
}

int session_save_rpc_context(int session_id, std::unique_ptr<rpc_oper_context_t> context)
{
  session_t *session = session_find(session_id);
  if (session == nullptr) {
    log_error("Save session rpc context error, session is null.");
    return -1;
  }
  if (session->rpc_context != nullptr) {
    log_error("Save session rpc context error, rpc context is not null.");
    return -1;
  }
  session->rpc_context = std::move(context);
  return 0;
}

void session_del_rpc_context(int session_id)
{
  session_t *session = session_find(session_id);
  if (session != nullptr) {
    session->rpc_context.reset();
  }
}

int session_check_operation(int session_id, const char *oper_name)
{
  const session_t *session = session_find(session_id);
  if (session == nullptr) {
    log_error("Does not find session %d in context.", session_id);
    return -1;
  }
  bool is_create = std::strcmp(oper_name, CREATE_SESSION) == 0;
  return session->bit_exit || is_create == session->bit_init ? -1 : 0;
}

std::string session_client_address(const session_t &session)
{
  char text[INET6_ADDRSTRLEN] = "";
  if (session.bit_ipv6) {
    inet_ntop(AF_INET6, session.client_addr, text, sizeof(text));
  } else if (session.bit_ipv4) {
    inet_ntop(AF_INET, session.client_addr, text, sizeof(text));
  }
  return text;
}

base_notification_info_t session_describe(const session_t &session)
{
  base_notification_info_t info;
  info.session_id = session.session_id;
  info.username = session.username;
  info.ipaddr = session_client_address(session);
  return info;
}

void session_report_end(session_t *session, NC_SESSION_TERM_REASON reason, int killed_by)
{
  if (!session->bit_init || session->bit_end_told) {
    return;
  }
  session->bit_end_told = true;
  base_notification_info_t info = session_describe(*session);
  info.termination_reason = reason;
  info.killed_by = killed_by;
  if (send_base_notification_event(NCNTF_BASE_SESSION_END, info) != 0) {
    log_error("send base notif failed(NCNTF_BASE_SESSION_END).");
  }
}

void session_report_ends()
{
  int size = context_list_size(SESSION_LIST);
  for (int session_id = 1; session_id <= size; session_id++) {
    session_t *session = session_find(session_id);
    if (session != nullptr) {
      session_report_end(session, NC_SESSION_TERM_OTHER, 0);
    }
  }
}

bool session_is_shutting_down()
{
  return g_shutdown != NO_SHUTDOWN;
}

void session_begin_shutdown(int session_id, std::string reply_text)
{
  g_shutdown = session_id;
  g_shutdown_reply = std::move(reply_text);
}
