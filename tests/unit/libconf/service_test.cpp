#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "libconf/conf_client_area.h"
#include "libconf/conf_service.h"
#include "support/environment.h"

namespace {

// A run directory of the test's own.
class conf_run_dir_test : public testing::Test {
protected:
  void SetUp() override { conf_set_run_dir(run_dir().c_str()); }
  void TearDown() override { conf_clishm_destroy(); }

  std::string run_dir() const { return parent_ / "run"; }
  std::string area_path() const { return parent_ / "run/clients"; }

  support::temp_dir parent_;
};
using conf_service = conf_run_dir_test;
using conf_client_area = conf_run_dir_test;

mode_t mode_of(const std::string &path)
{
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

TEST_F(conf_service, modes_are_exact_whatever_the_umask)
{
  for (mode_t mask : {0U, 077U}) {
    mode_t before = umask(mask);
    int sock = conf_agent_service_enable();
    umask(before);
    ASSERT_GE(sock, 0);
    EXPECT_EQ(mode_of(run_dir()), 0750U);
    EXPECT_EQ(mode_of(run_dir() + "/agent.sock"), 0660U);
    EXPECT_TRUE(fcntl(sock, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(sock, F_GETFD) & FD_CLOEXEC);
    conf_agent_service_disable(sock);
    EXPECT_FALSE(std::filesystem::exists(run_dir() + "/agent.sock"));
    std::filesystem::remove_all(run_dir());
  }
}

TEST_F(conf_service, an_abandoned_socket_is_replaced_and_a_living_one_is_not)
{
  int (*const enable[])() = {conf_agent_service_enable, conf_plugin_notifier_enable};
  for (auto open_service : enable) {
    int dead = open_service();
    ASSERT_GE(dead, 0);
    close(dead); // the file stays, as after a crash
    int living = open_service();
    ASSERT_GE(living, 0);
    EXPECT_EQ(open_service(), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    conf_agent_service_disable(living);
  }
}

TEST_F(conf_service, a_file_that_is_no_socket_is_never_removed)
{
  ASSERT_EQ(conf_make_run_dir(), 0);
  support::write_file(run_dir() + "/plugin.sock", "precious");
  EXPECT_EQ(conf_plugin_service_enable(), -1);
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_EQ(support::read_file(run_dir() + "/plugin.sock"), "precious");
}

TEST_F(conf_client_area, agents_that_register_together_never_share_a_slot_and_leave_theirs)
{
  constexpr int AGENTS = 24;
  ASSERT_EQ(conf_clishm_create(AGENTS), 0);
  int start[2], done[2];
  ASSERT_EQ(pipe(start) + pipe(done), 0);
  pid_t agents[AGENTS];
  for (pid_t &agent : agents) {
    agent = fork();
    if (agent == 0) {
      char go = 0;
      close(start[1]);
      bool stored = read(start[0], &go, 1) == 0 && conf_register_client(run_dir(), {getpid(), AF_INET, {1}}) == 0;
      _exit(write(done[1], stored ? "1" : "0", 1) == 1 ? pause() : 1);
    }
  }
  close(start[1]); // now, all together
  for (int i = 0; i < AGENTS; i++) {
    char result = 0;
    EXPECT_TRUE(read(done[0], &result, 1) == 1 && result == '1');
  }
  conf_client_info_t found = {};
  for (pid_t agent : agents) {
    EXPECT_EQ(conf_get_client_info(agent, &found), 0);
  }
  EXPECT_EQ(conf_register_client(run_dir(), {getpid(), 0, {}}), -1);
  EXPECT_EQ(errno, ENOSPC);
  for (pid_t agent : agents) {
    kill(agent, SIGKILL);
    waitpid(agent, nullptr, 0);
  }
  EXPECT_EQ(conf_register_client(run_dir(), {getpid(), 0, {}}), 0);
  for (int end : {start[0], done[0], done[1]}) {
    close(end);
  }
}

TEST_F(conf_client_area, hostile_contents_harm_neither_side)
{
  ASSERT_EQ(conf_clishm_create(4), 0);
  conf_client_info_t info = {getpid(), AF_INET, {1}};
  ASSERT_EQ(conf_register_client(run_dir(), info), 0);
  conf_client_info_t found = {};
  {
    std::ofstream(area_path(), std::ios::in | std::ios::binary) << std::string(16 + 4 * 24, '\xff');
  }
  EXPECT_EQ(conf_register_client(run_dir(), info), -1); // the head is gone
  EXPECT_EQ(errno, EPROTO);
  EXPECT_EQ(conf_get_client_info(getpid(), &found), -1);
  ASSERT_EQ(truncate(area_path().c_str(), 20), 0);
  EXPECT_EQ(conf_get_client_info(getpid(), &found), -1);
  conf_free_client_info(getpid());

  ASSERT_EQ(conf_clishm_create(4), 0); // a restart makes a sound file again
  ASSERT_EQ(conf_register_client(run_dir(), info), 0);
  int32_t strange_family = 77;
  int fd = open(area_path().c_str(), O_WRONLY);
  ASSERT_EQ(pwrite(fd, &strange_family, sizeof(strange_family), 16 + 4), 4);
  close(fd);
  EXPECT_EQ(conf_get_client_info(getpid(), &found), -1);
}

} // namespace
