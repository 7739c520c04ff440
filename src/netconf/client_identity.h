// Who the client is, as the SSH server has authenticated it.
#pragma once

#include <string>

#include "libconf/conf_client_area.h"

// Login name of the process's real user id. When that has several, the one in LOGNAME. Empty when it has none.
std::string client_login_name();

// The client's address from the value of SSH_CONNECTION ("ADDRESS PORT ADDRESS PORT", the client's first), for this
// process. False when it holds none; may be null.
bool client_address(const char *ssh_connection, conf_client_info_t *ret_info);
