// Replies to agents: <rpc-reply> trees in the NETCONF base namespace 1.0 (RFC 6241, section 4.2), and their sending.
#pragma once

#include <span>
#include <string_view>
#include <utility>

#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/rpc/rpc_error.h"

// <rpc-reply> with the attributes of the request's root. Null on failure (logged).
lyxml_ptr rpc_build_reply(const lyxml_elem *rpc);
lyxml_ptr rpc_build_reply_ok(const lyxml_elem *rpc);
// One <rpc-error> for each record, in chain order. Takes the chain over in every case.
lyxml_ptr rpc_build_reply_error(const lyxml_elem *rpc, reply_error_ptr error);

inline lyxml_ptr xml_rpc_build_reply(const xmlNode *rpc)
{
  return rpc_build_reply(rpc);
}
inline lyxml_ptr xml_rpc_build_reply_ok(const xmlNode *rpc)
{
  return rpc_build_reply_ok(rpc);
}
inline lyxml_ptr xml_rpc_build_reply_error(const xmlNode *rpc, reply_error_ptr error)
{
  return rpc_build_reply_error(rpc, std::move(error));
}

// Ends the session's request (unless the request goes on to a further subscriber) and queues the reply. 0 or -1.
int rpc_send_reply(int session_id, const lyxml_elem *reply);
inline int xml_rpc_send_reply(int session_id, const xmlNode *reply)
{
  return rpc_send_reply(session_id, reply);
}
// The same for a reply whose content is markup text that is not parsed again. It becomes the content of the only child
// of `reply`, an empty <data/>, or of `reply` itself when that has none. Sensitive values stand sealed in `data`
// (crypto/sealed_text.h): they are sent in clear and not logged.
int rpc_send_data_reply(int session_id, const lyxml_elem *reply, std::string_view data);

bool rpc_reply_is_ok(const lyxml_elem *reply);
bool rpc_reply_is_error(const lyxml_elem *reply);

// Shorthands of handlers: build, send, and give the handler's result (0 after ok, -1 after an error).
int rpc_answer_ok(int session_id, const lyxml_elem *rpc);
int rpc_answer_error(int session_id, const lyxml_elem *rpc, reply_error_ptr error);

// Set by start-up: offers the session's request to its next subscriber (0), or -1 when that fails.
void rpc_set_next_subscriber_hook(int (*publish_next)(int session_id));

// The operation log: a line for a request, and a line for every 1000 bytes of a reply, which may lie in several pieces.
void rpc_log(int session_id, const lyxml_elem *rpc);
void rpc_log_reply(std::span<const std::string_view> pieces);
