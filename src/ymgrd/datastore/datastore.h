// The NETCONF datastores running, candidate and startup: the protocol operations on them (RFC 6241, sections 7 and 8),
// and the hand-over of accepted changes to the broker.
//
// differ_nodes, the pending diff of candidate against running, is empty exactly when candidate equals running. One
// publication runs at a time ("OPT-datastore" exists meanwhile); its reply is sent when the broker reports its end.
#pragma once

#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/rpc/rpc_error.h"

int datastore_init(int stage);
void datastore_exit();
int datastore_reg_operation(); // 0 or -1

// The end of a publication, reported by the broker: commits or discards the change and answers the session. 0 or -1.
int datastore_publish_callback(int is_rollback, reply_error_ptr errors);
// The end of a status subscription, reported by the broker: asks for the next path of the get in progress, or answers
// it. 0 or -1.
int ds_get_callback();

// Checks the input of a user-defined RPC against its schema, with references into running. 0 or -1.
int datastore_parse_rpc(const char *oper_name, lyxml_elem *rpc);

// A session ends: its NETCONF locks are released.
void ds_session_closed(int session_id);
