// Requests from agents: parsing, checking of the NETCONF rpc layer, naming, and hand-over to the broker.
#pragma once

#include <string>
#include <string_view>

#include "ymgrd/rpc/rpc_context.h"

// Handles one complete request. 0 when it went to the broker or waits for it, -1 when an error reply was sent at once.
int rpc_recv_proc(int session_id, const msg_head_t *head, std::string_view payload);

// Hands the request that the session holds to its subscribers. 0 while it is in progress or was answered, -1 when it
// ended in an error reply: when no subscriber has sent one, this function does.
int rpc_publish_request(int session_id);

// Checks requests of the protocol's own operations against their schema, the content of anyxml nodes excepted. Others
// pass.
int rpc_validate_standard_rpc(lyxml_elem *root); // 0 or -1
// 0 when a namespace other than the protocol's is declared on the root or the operation, -1 when all are the
// protocol's.
int rpc_is_not_standard_rpc(const lyxml_elem *root);
// "/MODULE:NAME" of the request, or the bare name when no module has its namespace; empty when the request has no
// single operation.
std::string rpc_operation_name(const lyxml_elem *rpc);
std::string rpc_get_msgid(const lyxml_elem *rpc); // empty when there is none
