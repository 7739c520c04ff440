// A session by hand: sends each operation given and prints its reply. Ends with 0 only when no reply was an error.
//   ymgr-send RUN_DIR OPERATION...
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "client/client.h"
#include "demo_xml.h"

namespace {

int fail(const std::string &reason)
{
  std::fprintf(stderr, "ymgr-send: %s\n", reason.c_str());
  return 1;
}

const char *user_name()
{
  const char *name = std::getenv("USER");
  return name == nullptr ? "operator" : name;
}

} // namespace

int main(int argc, char **argv)
{
  if (argc < 3) {
    std::fprintf(stderr, "usage: ymgr-send RUN_DIR OPERATION...\n");
    return 2;
  }
  // A peer that ends shows as a failed write, not as the end of this program.
  std::signal(SIGPIPE, SIG_IGN);

  std::string reason;
  ymgr_client_ptr client = ymgr_connect(argv[1], &reason);
  if (client == nullptr) {
    return fail(reason);
  }
  if (!ymgr_create_session(client.get(), user_name()).has_value()) {
    return fail(ymgr_last_error(client.get()));
  }
  int errors = 0;
  for (int i = 2; i < argc; ++i) {
    std::optional<std::string> reply = ymgr_rpc(client.get(), argv[i]);
    if (!reply.has_value()) {
      return fail(ymgr_last_error(client.get()));
    }
    std::printf("%s", demo_pretty(*reply, "").c_str());
    errors += demo_texts(*reply, {"rpc-error"}).empty() ? 0 : 1;
  }
  return errors == 0 ? 0 : 1;
}
