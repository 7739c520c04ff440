#include "netconf/client_identity.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <arpa/inet.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

std::string client_login_name()
{
  const uid_t uid = getuid();
  const char *claimed = std::getenv("LOGNAME");
  const passwd *user = claimed == nullptr ? nullptr : getpwnam(claimed);
  if (user == nullptr || user->pw_uid != uid) {
    user = getpwuid(uid);
  }
  return user == nullptr ? "" : user->pw_name;
}

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
