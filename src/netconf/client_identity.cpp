#include "netconf/client_identity.h"

#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

bool client_address(const char *ssh_connection, conf_client_info_t *ret_info)
{
  std::string_view words = ssh_connection == nullptr ? "" : ssh_connection;
  // A link-local address has its interface behind a percent sign, which means nothing elsewhere.
  const std::string address(words.substr(0, words.find_first_of(" %")));
  for (int family : {AF_INET, AF_INET6}) {
    conf_client_info_t info = {};
    if (inet_pton(family, address.c_str(), info.address) == 1) {
      info.pid = getpid();
      info.family = family;
      *ret_info = info;
      return true;
    }
  }
  return false;
}
