// The operation zentra-ymgrd:get-capability.
#pragma once

#include "ymgrd/rpc/lyxml.h"

int schema_reg_operation();
int oper_get_capability(int session_id, const char *data, lyxml_elem *rpc);
