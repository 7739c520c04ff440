// The edit engine (RFC 6241, section 7.2): applies a parsed <config> to the data of one database, in memory and in the
// open transaction, and records what changed as a diff tree.
#pragma once

#include <libyang/libyang.h>

#include "ymgrd/broker/differ_tree.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/datastore/edit_changes.h"
#include "ymgrd/rpc/rpc_error.h"
#include "ymgrd/ymgrd.h"

typedef struct _edit_request {
  int hdb = 0;
  int tflag = 0;          // how the current data is read
  const char *path = "/"; // where it is read from
  bool done = true;       // write the changes into the database too
  NC_EDIT_OP_TYPE default_operation = NC_EDIT_OP_MERGE;
  const lyd_node *config = nullptr; // first top node; every node has its record (dbkey.h)
  edit_changes *changes = nullptr;  // takes the record of what was changed, on 0; may be null
} edit_request_t;

// On 0 `*ret_data` is the data after the edit (not validated), `*ret_tree` the diff tree (null when nothing differs);
// the caller owns both. `*ret_written` tells whether data and transaction were touched: an edit whose steps cancel each
// other has no diff, and may still leave entries in another order. On -1 `*ret_error` holds the NETCONF error if the
// engine knows one; what was written into the transaction must be discarded. A refused edit leaves the data kept
// (ds_kept.h) that it started from.
int edit_operations(const edit_request_t &request, lyd_tree_ptr *ret_data, differ_node_t **ret_tree, bool *ret_written,
                    reply_error_ptr *ret_error);

// The effective operation of a node whose own operation is `own` below one of operation `inherited`. 0 or -1 (logged).
int operations_check(NC_EDIT_OP_TYPE own, NC_EDIT_OP_TYPE inherited, bool is_list_key, NC_EDIT_OP_TYPE *ret_op);
