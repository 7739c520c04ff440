// The operation create-subscription (RFC 5277, section 2.1.1).
#pragma once

#include "ymgrd/rpc/lyxml.h"

constexpr const char CREATE_SUBSCRIPTION[] = "notifications:create-subscription";

int oper_create_subscription(int session_id, const char *data, lyxml_elem *rpc);
