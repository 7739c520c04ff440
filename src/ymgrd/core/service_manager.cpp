#include "ymgrd/core/service_manager.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>

#include "libconf/unique_fd.h"
#include "ymgrd/core/log.h"

namespace {

constexpr char SOCKET_VARIABLE[] = "NOTIFY_SOCKET";

// `path` is a file's, or the name of an abstract socket behind an "@".
int send_word(const std::string &path, const std::string &word)
{
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::copy(path.begin(), path.end(), address.sun_path);
  if (address.sun_path[0] == '@') {
    address.sun_path[0] = '\0';
  }
  unique_fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  ssize_t sent =
      sendto(sock.get(), word.data(), word.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address), length);
  return sent == static_cast<ssize_t>(word.size()) ? 0 : -1;
}

} // namespace

bool service_manager_waits()
{
  const char *path = getenv(SOCKET_VARIABLE);
  return path != nullptr && *path != '\0';
}

void service_manager_tell_ready()
{
  if (!service_manager_waits()) {
    return;
  }
  if (send_word(getenv(SOCKET_VARIABLE), "READY=1") != 0) {
    log_error("Cannot tell the service manager that the daemon is ready: %s.", strerror(errno));
  }
  (void)unsetenv(SOCKET_VARIABLE); // of a valid name
}
