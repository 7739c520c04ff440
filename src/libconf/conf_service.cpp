#include "libconf/conf_service.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "libconf/conf_misc.h"
#include "libconf/default_paths.h"
#include "libconf/safe_string.h"

namespace {

constexpr mode_t RUN_DIR_MODE = 0750;
constexpr mode_t SOCKET_MODE = 0660;

std::string run_dir_path = DEFAULT_RUN_DIR;

typedef struct _service {
  const char *name;
  int type;
} service_t;

constexpr service_t AGENT_SERVICE = {"agent.sock", SOCK_STREAM};
constexpr service_t PLUGIN_SERVICE = {"plugin.sock", SOCK_STREAM};
constexpr service_t NOTIFY_SERVICE = {"notify.sock", SOCK_DGRAM};

const sockaddr *generic(const sockaddr_un *address)
{
  return reinterpret_cast<const sockaddr *>(address);
}

int make_address(const char *name, sockaddr_un *ret_address)
{
  std::string path = run_dir_path + "/" + name;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (strncpy_s(address.sun_path, sizeof(address.sun_path), path.c_str(), path.size()) != 0) {
    errno = ENAMETOOLONG;
    return -1;
  }
  *ret_address = address;
  return 0;
}

// True when the address is a socket file whose owner is gone: nobody takes a connection there any more.
bool is_abandoned(const sockaddr_un &address, int type)
{
  struct stat status = {};
  if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) {
    return false;
  }
  int probe = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) {
    return false;
  }
  bool refused = connect(probe, generic(&address), sizeof(address)) != 0 && errno == ECONNREFUSED;
  close(probe);
  return refused;
}

int bind_address(int sock, const sockaddr_un &address, int type)
{
  if (bind(sock, generic(&address), sizeof(address)) == 0) {
    return 0;
  }
  if (errno != EADDRINUSE) {
    return -1;
  }
  if (!is_abandoned(address, type)) {
    errno = EADDRINUSE;
    return -1;
  }
  conf_dbg(DBG_INFO, "Replace the abandoned socket %s.", address.sun_path);
  if (unlink(address.sun_path) != 0) {
    return -1;
  }
  return bind(sock, generic(&address), sizeof(address));
}

int open_service(int sock, const sockaddr_un &address, int type)
{
  // The mode of the descriptor becomes that of the file, less the umask: the file is never open wider than it should
  // be.
  if (fchmod(sock, SOCKET_MODE) != 0 || bind_address(sock, address, type) != 0) {
    return -1;
  }
  if (chmod(address.sun_path, SOCKET_MODE) == 0 && (type != SOCK_STREAM || listen(sock, SOMAXCONN) == 0)) {
    return 0;
  }
  int cause = errno;
  unlink(address.sun_path);
  errno = cause;
  return -1;
}

int enable_service(const service_t &service)
{
  sockaddr_un address;
  if (make_address(service.name, &address) != 0 || conf_make_run_dir() != 0) {
    return -1;
  }
  int sock = socket(AF_UNIX, service.type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (sock < 0) {
    return -1;
  }
  if (open_service(sock, address, service.type) != 0) {
    int cause = errno;
    conf_dbg(DBG_ERROR, "Open service socket %s failed(%s).", address.sun_path, strerror(cause));
    close(sock);
    errno = cause;
    return -1;
  }
  return sock;
}

void disable_service(int sock)
{
  if (sock < 0) {
    return;
  }
  sockaddr_un address = {};
  socklen_t size = sizeof(address);
  if (getsockname(sock, reinterpret_cast<sockaddr *>(&address), &size) == 0 && address.sun_path[0] != '\0') {
    unlink(address.sun_path);
  }
  close(sock);
}

} // namespace

void conf_set_run_dir(const char *run_dir)
{
  // Made absolute now: the process may change its directory before it uses the path.
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(run_dir, error);
  run_dir_path = error ? run_dir : absolute.string();
}

const char *conf_run_dir()
{
  return run_dir_path.c_str();
}

int conf_make_run_dir()
{
  if (mkdir(run_dir_path.c_str(), RUN_DIR_MODE) == 0) {
    return chmod(run_dir_path.c_str(), RUN_DIR_MODE); // whatever the umask is
  }
  if (errno != EEXIST) {
    int cause = errno;
    conf_dbg(DBG_ERROR, "Make run directory %s failed(%s).", run_dir_path.c_str(), strerror(cause));
    errno = cause;
    return -1;
  }
  return 0;
}

int conf_agent_service_enable()
{
  return enable_service(AGENT_SERVICE);
}
int conf_plugin_service_enable()
{
  return enable_service(PLUGIN_SERVICE);
}
int conf_plugin_notifier_enable()
{
  return enable_service(NOTIFY_SERVICE);
}

void conf_agent_service_disable(int sock)
{
  disable_service(sock);
}
void conf_plugin_service_disable(int sock)
{
  disable_service(sock);
}
void conf_plugin_notifier_disable(int sock)
{
  disable_service(sock);
}

int conf_peer_credentials(int sock, conf_peer_t *ret_peer)
{
  ucred credentials = {};
  socklen_t size = sizeof(credentials);
  if (getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return -1;
  }
  *ret_peer = {credentials.pid, credentials.uid, credentials.gid};
  return 0;
}

int conf_non_block_fd(int fd)
{
  int flags = fcntl(fd, F_GETFL);
  return flags < 0 ? -1 : fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}
