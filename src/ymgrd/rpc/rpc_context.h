// The frame head of the agent socket, and the request in progress of one session.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "libconf/wiped_string.h"
#include "ymgrd/rpc/lyxml.h"

constexpr uint32_t MSG_MAGIC = 0xFEDCBAFFU;

// Machine byte order, followed directly by `length` bytes of payload. A plugin frame has a head of the same form.
typedef struct _msg_head {
  uint32_t magic;
  uint32_t length; // of the payload
  uint16_t seq;    // a reply carries its request's; other messages 0
  uint16_t format; // 0
} msg_head_t;
static_assert(sizeof(msg_head_t) == 12 && std::is_trivially_copyable_v<msg_head_t>);

// Owned by the session, at most one at a time. `cur_oper_sub` is the broker's cursor over the operation subscribers:
// the serial number of the one tried last, 0 before the first.
typedef struct _rpc_oper_context {
  int session_id = 0;
  int is_publishing = 0;
  std::string oper;           // "/MODULE:NAME"
  wiped_string data;          // the request text
  lyxml_ptr rpc;              // the request
  unsigned need_reply_ok = 0; // subscribers that were handed the request and owe a reply
  bool is_chained = false;    // an error was held back because a further subscriber took the request
  unsigned have_subscriber = 0;
  uint64_t cur_oper_sub = 0;
} rpc_oper_context_t;
