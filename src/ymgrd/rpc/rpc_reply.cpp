#include "ymgrd/rpc/rpc_reply.h"

#include <list>
#include <vector>

#include <libxml/tree.h>

#include "ymgrd/core/counters.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/sealed_text.h"
#include "ymgrd/rpc/rpc_reply_path.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/ymgrd.h"

namespace {

int (*next_subscriber_hook)(int session_id) = nullptr;

int copy_attributes(lyxml_elem *reply, const lyxml_elem *rpc)
{
  if (rpc->properties == nullptr) {
    return 0;
  }
  reply->properties = xmlCopyPropList(reply, rpc->properties);
  return reply->properties == nullptr ? -1 : 0;
}

// The elements of <rpc-error>, in the order of RFC 6241.
int add_error(lyxml_elem *reply, const reply_error_t &error)
{
  const struct {
    const char *name;
    const char *text;
  } fields[] = {
      {"error-type", error.type},       {"error-tag", error.tag},   {"error-severity", error.severity},
      {"error-app-tag", error.app_tag}, {"error-path", error.path}, {"error-message", error.message},
      {"error-info", error.info},
  };
  lyxml_elem *node = lyxml_new_elem(reply, "rpc-error", nullptr);
  if (node == nullptr) {
    log_error("Create children node <rpc-error> failed.");
    return -1;
  }
  for (const auto &field : fields) {
    bool is_path = field.text != nullptr && field.text == error.path;
    if (is_path ? rpc_add_error_path(node, field.text) != 0
                : field.text != nullptr && lyxml_new_elem(node, field.name, field.text) == nullptr) {
      log_error("Create children node <%s> failed.", field.name);
      return -1;
    }
  }
  return 0;
}

// An error is held back while a further subscriber of the operation takes the request: the agent gets one reply for
// all.
bool is_held_back(int session_id, const lyxml_elem *reply)
{
  rpc_oper_context_t *context = session_get_rpc_context(session_id);
  if (context == nullptr) {
    log_error("Session rpc context is null, when rpc send reply.");
    return false;
  }
  if (context->need_reply_ok == 0 || !rpc_reply_is_error(reply)) {
    return false;
  }
  context->need_reply_ok--;
  int result = next_subscriber_hook == nullptr ? -1 : next_subscriber_hook(session_id);
  context = session_get_rpc_context(session_id);
  if (context == nullptr) {
    return true; // the further subscriber's reply is out already
  }
  if (result != 0 || context->need_reply_ok == 0) {
    return false;
  }
  context->is_chained = true;
  return true;
}

// The sensitive values go out in clear; what is opened for that is gone when this returns.
int queue_pieces(int session_id, std::span<const std::string_view> pieces)
{
  std::vector<std::string_view> clear(pieces.begin(), pieces.end());
  std::list<wiped_string> opened; // which stay where they are
  for (std::string_view &piece : clear) {
    if (sealed_text_is_in(piece)) {
      sealed_text_open(piece, &opened.emplace_back());
      piece = opened.back();
    }
  }
  return session_cache_send_pieces(session_id, SESSION_MSG_REPLY, clear);
}

int send_pieces(int session_id, std::span<const std::string_view> pieces)
{
  session_del_rpc_context(session_id);
  if (pieces.front().empty()) {
    log_error("Print rpc-reply failed.");
    return -1;
  }
  int result = queue_pieces(session_id, pieces);
  rpc_log_reply(pieces);
  if (result != 0) {
    log_error("Cache rpc-reply to session send buffer failed.");
    return -1;
  }
  if (session_schedule(session_id) != 0) {
    log_warn("Schedule session %d failed.", session_id);
  }
  return 0;
}

std::string qualified_name(const lyxml_elem *elem)
{
  std::string name(lyxml_name(elem));
  if (elem->ns == nullptr || elem->ns->prefix == nullptr) {
    return name;
  }
  return std::string(reinterpret_cast<const char *>(elem->ns->prefix)) + ":" + name;
}

} // namespace

lyxml_ptr rpc_build_reply(const lyxml_elem *rpc)
{
  lyxml_ptr reply = lyxml_new_root("rpc-reply");
  if (reply == nullptr) {
    log_error("Create <rpc-reply> node failed.");
    return nullptr;
  }
  if (copy_attributes(reply.get(), rpc) != 0) {
    log_error("Copy properties of rpc node failed.");
    return nullptr;
  }
  if (lyxml_set_elem_ns(reply.get(), NETCONF_BASE_NS_1_0, nullptr) != 0) {
    log_error("Create namepsace failed.");
    return nullptr;
  }
  return reply;
}

lyxml_ptr rpc_build_reply_ok(const lyxml_elem *rpc)
{
  if (rpc == nullptr) {
    log_error("Error input parameter(rpc=NULL).");
    return nullptr;
  }
  lyxml_ptr reply = rpc_build_reply(rpc);
  if (reply == nullptr) {
    log_error("Build reply faild.");
    return nullptr;
  }
  if (lyxml_new_elem(reply.get(), "ok", nullptr) == nullptr) {
    log_error("Create children node <ok> failed.");
    return nullptr;
  }
  return reply;
}

lyxml_ptr rpc_build_reply_error(const lyxml_elem *rpc, reply_error_ptr error)
{
  if (error == nullptr) {
    return nullptr;
  }
  if (rpc == nullptr) {
    log_error("rpc is NULL.");
    return nullptr;
  }
  lyxml_ptr reply = rpc_build_reply(rpc);
  if (reply == nullptr) {
    log_error("Build reply faild.");
    return nullptr;
  }
  for (const reply_error_t *record = error.get(); record != nullptr; record = record->next) {
    if (add_error(reply.get(), *record) != 0) {
      return nullptr;
    }
  }
  return reply;
}

int rpc_send_reply(int session_id, const lyxml_elem *reply)
{
  if (reply == nullptr) {
    log_error("reply content is empty.");
    return -1;
  }
  if (is_held_back(session_id, reply)) {
    return 0;
  }
  if (rpc_reply_is_error(reply)) {
    g_daemon_counters.errors++;
  }
  std::string text = lyxml_print_mem(reply);
  const std::string_view pieces[] = {text};
  return send_pieces(session_id, pieces);
}

int rpc_send_data_reply(int session_id, const lyxml_elem *reply, std::string_view data)
{
  const lyxml_elem *child = reply == nullptr ? nullptr : lyxml_first_child(reply);
  const lyxml_elem *content = child == nullptr ? reply : child;
  if (content == nullptr || content->children != nullptr || (child != nullptr && lyxml_next(child) != nullptr)) {
    log_error("reply content is empty.");
    return -1;
  }
  if (is_held_back(session_id, reply)) {
    return 0;
  }
  // The empty element is the last tag of that form: <rpc-reply ...><data/></rpc-reply>, or <rpc-reply .../>.
  std::string envelope = lyxml_print_mem(reply);
  size_t tag_end = envelope.rfind("/>");
  if (data.empty() || tag_end == std::string::npos) {
    const std::string_view pieces[] = {envelope};
    return send_pieces(session_id, pieces);
  }
  std::string tail = "</" + qualified_name(content) + envelope.substr(tag_end + 1);
  envelope.replace(tag_end, std::string::npos, ">");
  const std::string_view pieces[] = {envelope, data, tail};
  return send_pieces(session_id, pieces);
}

bool rpc_reply_is_ok(const lyxml_elem *reply)
{
  if (reply == nullptr || lyxml_name(reply) != "rpc-reply") {
    return false;
  }
  const lyxml_elem *child = lyxml_first_child(reply);
  return child != nullptr && lyxml_name(child) == "ok";
}

bool rpc_reply_is_error(const lyxml_elem *reply)
{
  return reply != nullptr && lyxml_find_child(reply, "rpc-error") != nullptr;
}

int rpc_answer_ok(int session_id, const lyxml_elem *rpc)
{
  lyxml_ptr reply = rpc_build_reply_ok(rpc);
  return reply == nullptr ? -1 : rpc_send_reply(session_id, reply.get());
}

int rpc_answer_error(int session_id, const lyxml_elem *rpc, reply_error_ptr error)
{
  lyxml_ptr reply = rpc_build_reply_error(rpc, std::move(error));
  if (reply != nullptr) {
    (void)rpc_send_reply(session_id, reply.get()); // logged there; the request has failed either way
  }
  return -1;
}

void rpc_set_next_subscriber_hook(int (*publish_next)(int session_id))
{
  next_subscriber_hook = publish_next;
}
