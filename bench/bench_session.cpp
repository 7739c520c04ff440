#include "bench_session.h"

#include <cstdio>

namespace {

constexpr ymgr_duration PATIENCE{600000};

} // namespace

std::string bench_ask(ymgr_client_t *client, const std::string &operation)
{
  std::optional<std::string> reply = ymgr_rpc(client, operation, PATIENCE);
  if (!reply.has_value()) {
    std::fprintf(stderr, "ymgr-bench: no reply: %s\n", ymgr_last_error(client).c_str());
    return {};
  }
  if (reply->find("rpc-error") != std::string::npos) {
    std::fprintf(stderr, "ymgr-bench: refused: %.2000s\n", reply->c_str());
    return {};
  }
  return *reply;
}

ymgr_client_ptr bench_open_session(const bench_device &device)
{
  std::string reason;
  ymgr_client_ptr client = ymgr_connect(device.dir(), &reason);
  if (client == nullptr) {
    std::fprintf(stderr, "ymgr-bench: %s\n", reason.c_str());
    return nullptr;
  }
  if (!ymgr_create_session(client.get(), "bench").has_value()) {
    std::fprintf(stderr, "ymgr-bench: no session: %s\n", ymgr_last_error(client.get()).c_str());
    return nullptr;
  }
  return client;
}
