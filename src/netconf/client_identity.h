// Where the client is, as the SSH server tells it. Who it is, the process's user says: ymgr_login_name().
#pragma once

#include "libconf/conf_client_area.h"

// The client's address from the value of SSH_CONNECTION ("ADDRESS PORT ADDRESS PORT", the client's first), for this
// process. False when it holds none; may be null.
bool client_address(const char *ssh_connection, conf_client_info_t *ret_info);
