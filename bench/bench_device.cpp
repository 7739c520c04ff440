#include "bench_device.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench_document.h"

namespace {

constexpr char PROFILE_BEGIN[] = R"({
  "daemonize": false,
  "session-spec": 32,
)";
constexpr char PROFILE_MODULES[] = R"(  "modules": [
    {"name": "ietf-netconf", "revision": "2011-06-01", "deviation": [],
     "feature": ["writable-running", "candidate", "rollback-on-error", "startup"]},
    {"name": "zentra-ymgrd", "revision": "2026-11-23", "feature": [], "deviation": []},
    {"name": "ex-bench", "revision": "2026-01-01", "feature": [], "deviation": []},
    {"name": "ex-bench-parts", "revision": "2026-01-01", "feature": [], "deviation": []}
  ],
  "database": {"type": "default", "driver": {"api-version": "1.0", "path": "unix://)";

void copy_modules(const char *from, const std::string &to)
{
  for (const auto &entry : std::filesystem::directory_iterator(from)) {
    std::filesystem::copy_file(entry.path(), to / entry.path().filename());
  }
}

// Whether somebody listens: the file is there a little earlier.
bool takes_connections(const std::string &path)
{
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool is_taken = sock >= 0 && connect(sock, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
  if (sock >= 0) {
    close(sock);
  }
  return is_taken;
}

// In the child: never returns.
[[noreturn]] void run(const std::vector<std::string> &command, const std::string &log)
{
  int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (fd >= 0) {
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
  }
  std::vector<char *> arguments;
  for (const std::string &word : command) {
    arguments.push_back(const_cast<char *>(word.c_str())); // execvp does not write to them
  }
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

} // namespace

int bench_process::start(const std::vector<std::string> &command, const std::string &log)
{
  stop();
  pid_t pid = fork();
  if (pid < 0) {
    return -1;
  }
  if (pid == 0) {
    run(command, log);
  }
  pid_ = pid;
  return 0;
}

bool bench_process::runs()
{
  if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) {
    pid_ = 0;
  }
  return pid_ > 0;
}

void bench_process::stop()
{
  if (runs()) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = 0;
}

int bench_process::wait()
{
  int status = -1;
  bool has_ended = pid_ > 0 && waitpid(pid_, &status, 0) == pid_;
  pid_ = 0;
  return has_ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bench_device::bench_device(const bench_device_options_t &options)
{
  // Not in TMPDIR: the path of a unix socket must be short.
  char name[] = "/tmp/ymgr-bench.XXXXXX";
  if (mkdtemp(name) == nullptr) {
    return;
  }
  dir_ = name;
  std::filesystem::create_directory(dir_ + "/modules");
  copy_modules(BENCH_MODULES, dir_ + "/modules");
  copy_modules(BENCH_SAMPLES, dir_ + "/modules");
  std::ofstream(dir_ + "/modules/ex-bench-parts.yang") << bench_parts_module();
  write_profile(options);
  bench_process keytool;
  if (options.has_working_key &&
      (keytool.start({BENCH_KEYTOOL, "provision", "--config-dir", dir_}, dir_ + "/keytool.log") != 0 ||
       keytool.wait() != 0)) {
    std::fprintf(stderr, "ymgr-bench: no working key, see %s/keytool.log\n", dir_.c_str());
    dir_.clear();
  }
}

void bench_device::write_profile(const bench_device_options_t &options) const
{
  std::ofstream profile(dir_ + "/ymgrd.conf");
  profile << PROFILE_BEGIN << options.sections << PROFILE_MODULES << redis_socket() << "\"}},\n"
          << R"(  "schema": {"db-enabled": true, "path": "unix://)" << redis_socket() << "\"}\n}\n";
}

bench_device::~bench_device()
{
  daemon_.stop();
  redis_.stop();
  if (!dir_.empty()) {
    std::error_code ignored; // what cannot be removed from /tmp is no reason to fail a measurement
    std::filesystem::remove_all(dir_, ignored);
  }
}

int bench_device::wait_for(bench_process *process, const std::string &socket)
{
  constexpr int TRIES = 60000;
  for (int i = 0; i < TRIES && process->runs(); ++i) {
    if (takes_connections(socket)) {
      return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::fprintf(stderr, "ymgr-bench: %s does not appear\n", socket.c_str());
  return -1;
}

int bench_device::start_redis()
{
  if (dir_.empty()) {
    return -1;
  }
  if (redis_.start({"redis-server", "--port", "0", "--unixsocket", redis_socket(), "--save", "", "--dir", dir_},
                   dir_ + "/redis.log") != 0) {
    return -1;
  }
  return wait_for(&redis_, redis_socket());
}

int bench_device::start_daemon()
{
  std::filesystem::remove(dir_ + "/agent.sock");
  if (daemon_.start(
          {BENCH_YMGRD, "--profile", dir_ + "/ymgrd.conf", "--run-dir", dir_, "--log-stderr", "--log-level", "error"},
          dir_ + "/ymgrd.log") != 0) {
    return -1;
  }
  return wait_for(&daemon_, dir_ + "/agent.sock") != 0 ? -1 : wait_for(&daemon_, dir_ + "/plugin.sock");
}

int bench_device::descriptors() const
{
  int count = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(daemon_.pid()) + "/fd")) {
    count += entry.is_symlink() ? 1 : 0;
  }
  return count;
}

double bench_device::cpu_ms() const
{
  std::ifstream times("/proc/" + std::to_string(daemon_.pid()) + "/schedstat");
  double nanoseconds = 0;
  times >> nanoseconds;
  return nanoseconds / 1e6;
}

double bench_device::resident_mb() const
{
  std::ifstream status("/proc/" + std::to_string(daemon_.pid()) + "/status");
  for (std::string word; status >> word;) {
    double kilobytes = 0;
    if (word == "VmRSS:" && status >> kilobytes) {
      return kilobytes / 1024;
    }
  }
  return 0;
}
