#include "ymgrd/core/service_manager.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "libconf/unique_fd.h"

TEST(service_manager, is_told_once_at_a_path_or_an_abstract_address)
{
  for (std::string path :
       {testing::TempDir() + "ymgr-notify-" + std::to_string(getpid()), "@ymgr-notify-" + std::to_string(getpid())}) {
    unique_fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    address.sun_path[0] = path[0] == '@' ? '\0' : path[0];
    auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    ASSERT_EQ(bind(sock.get(), reinterpret_cast<sockaddr *>(&address), length), 0);
    ASSERT_EQ(setenv("NOTIFY_SOCKET", path.c_str(), 1), 0);
    EXPECT_TRUE(service_manager_waits());
    service_manager_tell_ready();
    service_manager_tell_ready();
    unlink(path.c_str());

    char word[64] = "";
    EXPECT_EQ(recv(sock.get(), word, sizeof(word) - 1, 0), 7) << path;
    EXPECT_STREQ(word, "READY=1");
    EXPECT_EQ(recv(sock.get(), word, sizeof(word), 0), -1) << "told twice";
    EXPECT_FALSE(service_manager_waits());
  }
}
