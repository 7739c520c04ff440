#include "support/environment.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

bool wait_until(const std::function<bool()> &is_reached, std::chrono::milliseconds timeout)
{
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!is_reached()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string read_file(const std::string &path, size_t offset)
{
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(offset));
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string &path, const std::string &text)
{
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!(file << text << std::flush)) {
    throw std::runtime_error("cannot write " + path);
  }
}

unsigned long long number_from(const char *variable, unsigned long long otherwise)
{
  const char *text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

temp_dir::temp_dir()
{
  char name[] = "/tmp/ymgr-test-XXXXXX";
  if (mkdtemp(name) == nullptr) {
    throw std::runtime_error("cannot make a temporary directory");
  }
  path_ = name;
}

temp_dir::~temp_dir()
{
  std::error_code error;
  std::filesystem::remove_all(path_, error); // what cannot be removed stays for whoever looks into it
}

namespace {

// In the child, between fork and exec: only calls that are safe there. Does not return.
void become(char *const *arguments, int output, pid_t parent)
{
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int input = open("/dev/null", O_RDONLY);
  bool ready = getppid() == parent && dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
               dup2(output, STDERR_FILENO) >= 0;
  if (ready && close_range(STDERR_FILENO + 1, ~0U, 0) == 0) {
    execvp(arguments[0], arguments);
  }
  _exit(127);
}

} // namespace

child_process::~child_process()
{
  kill_now();
}

bool child_process::start(const std::vector<std::string> &arguments, const std::string &output_path)
{
  kill_now();
  std::vector<char *> words;
  for (const std::string &argument : arguments) {
    words.push_back(const_cast<char *>(argument.c_str())); // exec does not write to them
  }
  words.push_back(nullptr);
  int output = open(output_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (output < 0) {
    return false;
  }
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    become(words.data(), output, parent);
  }
  close(output);
  pid_ = pid > 0 ? pid : 0;
  status_.reset();
  return pid > 0;
}

bool child_process::running()
{
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = status;
    pid_ = 0;
  }
  return pid_ > 0;
}

void child_process::signal(int number)
{
  if (running()) {
    kill(pid_, number);
  }
}

std::optional<int> child_process::wait(std::chrono::milliseconds timeout)
{
  wait_until([this] { return !running(); }, timeout);
  return status_;
}

void child_process::kill_now()
{
  signal(SIGKILL);
  (void)wait();
}

} // namespace support
