// Operations and notifications as YANG data: what clients and plugins send is checked against its definition.
#pragma once

#include <libyang/libyang.h>

#include "ymgrd/core/handles.h"

// Parses one element, the input or output of an operation or a notification (LYD_TYPE_..._YANG), and validates it; when
// it can refer to the configuration, against running, which is read for that. 0 with the whole tree and the node of the
// operation or notification in it, or -1 with the cause in libyang's record.
int ds_parse_operation(const char *text, lyd_type type, lyd_tree_ptr *ret_tree, lyd_node **ret_operation);
