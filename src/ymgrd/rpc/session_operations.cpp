#include "ymgrd/rpc/session_operations.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <optional>

#include <sys/socket.h>

#include "libconf/conf_client_area.h"
#include "libconf/conf_service.h"
#include "libconf/safe_string.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/counters.h"
#include "ymgrd/core/log.h"
#include "ymgrd/notify/base_notification.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr int SESSION_LIST_SIZE = 8;

std::string strip_blanks(const std::string &text)
{
  static constexpr const char blanks[] = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Text of the operation's input leaf, blanks stripped; nothing when it is missing.
std::optional<std::string> input_leaf(lyxml_elem *rpc, const char *name)
{
  const lyxml_elem *operation = lyxml_first_child(rpc);
  const lyxml_elem *leaf = operation == nullptr ? nullptr : lyxml_find_child(operation, name);
  if (leaf == nullptr) {
    return std::nullopt;
  }
  return strip_blanks(lyxml_text(leaf));
}

int parse_decimal(const std::string &text, int *ret_value)
{
  int value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    return -1;
  }
  *ret_value = value;
  return 0;
}

void look_up_client(session_t *session)
{
  conf_client_info_t client = {};
  session->bit_ipv4 = false;
  session->bit_ipv6 = false;
  if (conf_get_client_info(session->agent_ppid, &client) != 0) {
    return;
  }
  session->bit_ipv6 = client.family == AF_INET6;
  session->bit_ipv4 = client.family == AF_INET;
  (void)memcpy_s(session->client_addr, sizeof(session->client_addr), client.address, sizeof(client.address));
}

void notify_session_start(const session_t &session)
{
  if (send_base_notification_event(NCNTF_BASE_SESSION_START, session_describe(session)) != 0) {
    log_error("send base notif failed(NCNTF_BASE_SESSION_START).");
  }
}

lyxml_ptr build_create_session_reply(int session_id, const lyxml_elem *rpc)
{
  lyxml_ptr reply = rpc_build_reply(rpc);
  if (reply == nullptr) {
    log_error("Build reply for <create-session> faild.");
    return nullptr;
  }
  lyxml_elem *id = lyxml_new_elem(reply.get(), "session-id", std::to_string(session_id).c_str());
  if (id == nullptr) {
    log_error("Create child node <session-id> faild.");
    return nullptr;
  }
  if (lyxml_set_elem_ns(id, YMGRD_PRIVATE_NS, "ymgrd") != 0) {
    log_error("Create namepsace failed.");
    return nullptr;
  }
  return reply;
}

// Every handler: `rpc` is gone once the reply was sent, as it belongs to the request.
int oper_create_session(int session_id, const char *, lyxml_elem *rpc)
{
  session_t *session = session_find(session_id);
  if (session == nullptr) {
    log_error("Get session %d failed.", session_id);
    return -1;
  }
  std::optional<std::string> username = input_leaf(rpc, "username");
  std::optional<std::string> agent_ppid = input_leaf(rpc, "agent-ppid");
  if (agent_ppid && parse_decimal(*agent_ppid, &session->agent_ppid) != 0) {
    return rpc_answer_error(session_id, rpc, reply_error_ptr(rpc_create_error(REPLY_ERR_INVALID_VALUE)));
  }
  if (username) {
    session->username = *username;
  }
  look_up_client(session);
  lyxml_ptr reply = build_create_session_reply(session_id, rpc);
  if (reply == nullptr || rpc_send_reply(session_id, reply.get()) != 0) {
    return -1;
  }
  session->bit_init = true;
  session->login_time = time(nullptr);
  g_daemon_counters.sessions++;
  notify_session_start(*session);
  return 0;
}

int oper_close_session(int session_id, const char *, lyxml_elem *rpc)
{
  lyxml_ptr reply = rpc_build_reply_ok(rpc);
  if (reply == nullptr) {
    log_error("Build reply for <close-session> faild.");
    return -1;
  }
  if (rpc_send_reply(session_id, reply.get()) != 0) {
    return -1;
  }
  session_t *session = session_find(session_id);
  if (session == nullptr) {
    log_error("Get session %d failed.", session_id);
    return -1;
  }
  session->bit_exit = true;
  session_report_end(session, NC_SESSION_TERM_CLOSED, 0);
  return 0;
}

// The session that the request names, when it may be killed; null otherwise.
session_t *find_victim(int session_id, lyxml_elem *rpc)
{
  int victim_id = 0;
  std::optional<std::string> text = input_leaf(rpc, "session-id");
  if (text) {
    (void)parse_decimal(*text, &victim_id); // what is no number is no session either
  }
  session_t *victim = victim_id > 0 && victim_id != session_id ? session_find(victim_id) : nullptr;
  if (victim == nullptr) {
    log_debug("The %d session cann't be killed(current or not exist).", victim_id);
  }
  return victim;
}

int oper_kill_session(int session_id, const char *, lyxml_elem *rpc)
{
  session_t *victim = find_victim(session_id, rpc);
  if (victim == nullptr) {
    lyxml_ptr reply = rpc_build_reply_error(rpc, reply_error_ptr(rpc_create_error(REPLY_ERR_INVALID_VALUE)));
    if (reply == nullptr) {
      log_error("Build reply for <kill-session> faild.");
      return -1;
    }
    (void)rpc_send_reply(session_id, reply.get()); // logged there
    return -1;
  }
  lyxml_ptr reply = rpc_build_reply_ok(rpc);
  if (reply == nullptr) {
    log_error("Build reply for <kill-session> faild.");
    return -1;
  }
  session_report_end(victim, NC_SESSION_TERM_KILLED, session_id);
  victim->bit_exit = true;
  if (victim->sock >= 0) {
    (void)session_schedule(victim->session_id); // logged there; session_timeout closes it otherwise
  }
  return rpc_send_reply(session_id, reply.get());
}

int oper_shutdown(int session_id, const char *, lyxml_elem *rpc)
{
  log_info("Receive shutdown rpc!!!");
  lyxml_ptr reply = rpc_build_reply_ok(rpc);
  if (reply == nullptr) {
    log_error("Build reply for <shutdown> faild.");
    return -1;
  }
  if (session_find(session_id) == nullptr) {
    log_error("Get shutdown session %d failed.", session_id);
    return -1;
  }
  if (session_is_shutting_down()) { // one reply can be kept; the first request has it
    return rpc_send_reply(session_id, reply.get());
  }
  session_begin_shutdown(session_id, lyxml_print_mem(reply.get()));
  return 0;
}

const oper_registration_t session_operations[] = {
    {"zentra-ymgrd:create-session", oper_create_session},
    {"ietf-netconf:close-session", oper_close_session},
    {"ietf-netconf:kill-session", oper_kill_session},
    {"zentra-ymgrd:shutdown", oper_shutdown},
};

int create_client_area()
{
  if (conf_clishm_create(session_spec()) != 0) {
    log_error("Create client area failed(%s).", std::strerror(errno));
    return -1;
  }
  return 0;
}

int enable_agent_service()
{
  int sock = conf_agent_service_enable();
  if (sock < 0) {
    log_error("Enable agent service failed.");
    return -1;
  }
  if (context_save_int("OPT-agent-sock", sock) != 0) {
    log_error("Save agent service socket to context failed.");
    conf_agent_service_disable(sock);
    return -1;
  }
  return 0;
}

} // namespace

int session_reg_operation()
{
  const char *failed = "";
  if (broker_reg_inside_operations(session_operations, std::size(session_operations), &failed) != 0) {
    log_error("Session register operation %s callback failed.", failed);
    return -1;
  }
  return 0;
}

int session_init(int stage)
{
  switch (stage) {
  case STAGE_RESOURCE:
    return context_create_list("LIST-session", SESSION_LIST_SIZE);
  case STAGE_CONFIG:
    return session_reg_operation();
  case STAGE_RESTORE:
    return create_client_area();
  case STAGE_KICKOFF:
    return enable_agent_service();
  default:
    return 0;
  }
}

void session_exit()
{
  int sock = agent_service_sock();
  if (sock >= 0) {
    context_remove_option("OPT-agent-sock");
    conf_agent_service_disable(sock);
  }
  conf_clishm_destroy();
  session_forget_all();
}
