// The conversation between a client and the daemon, from the hellos to the end.
#pragma once

#include <string>

#include "client/client.h"

typedef struct _netconf_relay_ends {
  int client_in;         // what the client sends
  int client_out;        // what it reads; may be the same descriptor
  ymgr_client_t *daemon; // with a session, and no reply awaited
} netconf_relay_ends_t;

// Sends `hello` and passes messages on until one side ends the session. 0 when the client has ended it, by
// close-session or by leaving between two messages; 1 otherwise, with the reason told. Holds one request
// at a time, bounded by the daemon's max-message-size, and of what the daemon sends one piece. SIGPIPE must be ignored.
int netconf_relay(const netconf_relay_ends_t &ends, const std::string &hello);

// A line on standard error, for whoever runs the program by hand, and to the system log: an SSH server drops what its
// subsystems write to standard error.
void netconf_tell(const std::string &message);
