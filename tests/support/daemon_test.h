// Fixture: a directory, a Redis server and a daemon of the test's own. A failing test prints frames and log.
#pragma once

#include <iostream>
#include <list>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "libconf/unique_fd.h"
#include "support/daemon_process.h"
#include "support/netconf_session.h"
#include "support/redis_server.h"

namespace support {

// The daemon is not started: a test or a derived SetUp adjusts daemon.options() first.
class daemon_test : public testing::Test {
protected:
  static constexpr int SCHEMA_DB = 0;
  static constexpr int STARTUP_DB = 2;
  static constexpr int RUNNING_DB = 4;
  static constexpr int CANDIDATE_DB = 6;
  static constexpr int STATUS_DB = 8;

  // A daemon that still runs must end in an orderly way, and under sanitizers without a report.
  void TearDown() override
  {
    if (daemon.running()) {
      EXPECT_TRUE(daemon.stop());
    }
    for (const char *report : {"AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
      EXPECT_EQ(daemon.log_text().find(report), std::string::npos) << report;
    }
    if (!HasFailure()) {
      return;
    }
    for (const netconf_session &session : sessions_) {
      std::cerr << "--- session " << session.id() << "\n" << session.conversation();
    }
    std::cerr << "--- the daemon's log\n" << daemon.log_tail() << "---\n";
  }

  // A new session with the daemon, which stays until the end of the test.
  netconf_session &connect(const std::string &username = "tester")
  {
    return sessions_.emplace_back(daemon.run_dir(), username);
  }

  // An event for the daemon, as plugins send it. Waits while the daemon does not take it; false when it is not there.
  bool emit(const std::string &content)
  {
    unique_fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {AF_UNIX, {}};
    (daemon.run_dir() + "/notify.sock").copy(address.sun_path, sizeof(address.sun_path) - 1);
    auto *place = reinterpret_cast<sockaddr *>(&address);
    return sendto(sock.get(), content.data(), content.size(), 0, place, sizeof(address)) >= 0;
  }

  static bool contains(const std::string &text, const std::string &part)
  {
    return text.find(part) != std::string::npos;
  }

  // What a database holds but for the persistent transaction state, which every edit changes.
  std::string tree(int db)
  {
    std::string text = redis.dump(db);
    return text.substr(0, text.find("hash ymgrd-info"));
  }

  temp_dir dir;
  redis_server redis{dir.path()};
  daemon_process daemon{dir.path(), redis.socket_path()};

private:
  std::list<netconf_session> sessions_; // closed before the daemon ends
};

} // namespace support
