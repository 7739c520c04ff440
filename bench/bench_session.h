// Sessions with the measured daemon, and requests that must succeed.
#pragma once

#include <string>

#include "bench_device.h"
#include "client/client.h"

ymgr_client_ptr bench_open_session(const bench_device &device); // null, and told, on failure

// The reply to an operation that must succeed; empty (and told) otherwise.
std::string bench_ask(ymgr_client_t *client, const std::string &operation);
