// Between session.cpp and session_wire.cpp: receiving and writing frames of one session.
#pragma once

#include "ymgrd/rpc/session.h"

typedef enum _session_recv {
  SESSION_RECV_ERROR = -1,  // logged; the session is to be closed
  SESSION_RECV_MORE = 0,    // the message is not complete yet
  SESSION_RECV_MESSAGE = 1, // a whole message is at the front of the receive buffer
  SESSION_RECV_END = 2,     // the peer sends nothing more
} session_recv_t;

// Reads until a whole message is there, never beyond it: further requests stay in the socket.
session_recv_t session_core_recv(session_t &session);
// The message at the front of the receive buffer, received when it is not there yet. The payload lies in that buffer.
session_recv_t session_get_rpc(session_t &session, msg_head_t *ret_head, std::string_view *ret_payload);
void session_free_message(session_t &session, const msg_head_t &head);

bool session_has_unwritten(const session_t &session);
// Writes what the socket takes of the first queued messages, of all but the first only as many as do not keep other
// sessions waiting; a request whose reply is written is over. 0, or -1 (logged).
int session_core_send(session_t &session);
