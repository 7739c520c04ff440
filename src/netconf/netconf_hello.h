// What client and server say to each other first (RFC 6241 8.1).
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The capabilities in the daemon's reply to get-capability; empty when it holds none.
std::vector<std::string> netconf_hello_capabilities(std::string_view reply);

// The server's hello: both base capabilities, then the others, each once.
std::string netconf_hello(const std::vector<std::string> &capabilities, int session_id);

// Reads the client's hello. 0, and whether both sides will speak in chunks from now on; -1 when it cannot be accepted,
// with the reason.
int netconf_hello_accept(std::string_view text, bool *ret_is_chunked, std::string *ret_reason);
