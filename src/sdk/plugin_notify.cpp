#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

#include "libconf/unique_fd.h"
#include "sdk/plugin_internal.h"

namespace {

constexpr char SOCKET_NAME[] = "notify.sock";

int send_datagram(ymgr_plugin_t *plugin, std::string_view text)
{
  std::string path = plugin->run_dir + "/" + SOCKET_NAME;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (strncpy_s(address.sun_path, sizeof(address.sun_path), path.c_str(), path.size()) != 0) {
    return sdk_fail(plugin, "The path of the socket %s is too long.", path.c_str());
  }
  unique_fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (sock.get() < 0 || sendto(sock.get(), text.data(), text.size(), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0) {
    return sdk_fail(plugin, "Send an event of %zu bytes to %s failed(%s).", text.size(), path.c_str(),
                    std::strerror(errno));
  }
  return 0;
}

} // namespace

int ymgr_plugin_notify(ymgr_plugin_t *plugin, const char *xml)
{
  return sdk_guard(plugin, [&] {
    if (xml == nullptr || plugin_parse_message(xml) == nullptr) {
      return sdk_fail(plugin, "The event is not one well-formed element.");
    }
    return send_datagram(plugin, xml);
  });
}
