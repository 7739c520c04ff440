#include "support/daemon_process.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>

namespace support {

namespace {

namespace fs = std::filesystem;

#ifdef YMGRD_BINARY
constexpr char DAEMON_BINARY[] = YMGRD_BINARY;
#else
constexpr char DAEMON_BINARY[] = ""; // the daemon is not part of this build: starting it fails
#endif

constexpr char READY_TEXT[] = "Ymgrd initialized successfully.";

void copy_modules(const fs::path &from, const fs::path &to)
{
  for (const fs::directory_entry &entry : fs::directory_iterator(from)) {
    fs::copy_file(entry.path(), to / entry.path().filename(), fs::copy_options::overwrite_existing);
  }
}

// The newest revision in the module's file; empty when there is none.
std::string find_revision(const std::string &modules_dir, const std::string &name)
{
  const std::regex form("[^-a-z]revision\\s+\"?([0-9]{4}-[0-9]{2}-[0-9]{2})");
  std::string text = read_file(modules_dir + "/" + name + ".yang");
  std::string newest;
  for (std::sregex_iterator match(text.begin(), text.end(), form), end; match != end; ++match) {
    newest = std::max(newest, (*match)[1].str());
  }
  return newest;
}

// Names of modules, features and paths need no escapes.
std::string json_string(const std::string &text)
{
  return "\"" + text + "\"";
}

std::string json_array(const std::vector<std::string> &items)
{
  std::string text;
  for (const std::string &item : items) {
    text += (text.empty() ? "" : ", ") + item;
  }
  return "[" + text + "]";
}

std::string json_strings(std::vector<std::string> texts)
{
  std::transform(texts.begin(), texts.end(), texts.begin(), json_string);
  return json_array(texts);
}

// The number behind "NAME:" in /proc/PID/status.
long status_number(pid_t pid, const std::string &name)
{
  std::string text = read_file("/proc/" + std::to_string(pid) + "/status");
  size_t at = text.find("\n" + name + ":");
  return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + name.size() + 2, nullptr, 10);
}

} // namespace

daemon_process::daemon_process(const std::string &dir, const std::string &redis_socket, daemon_options_t options)
    : dir_(dir), redis_socket_(redis_socket), options_(std::move(options))
{
  fs::create_directories(modules_dir());
  fs::create_directories(dir_ + "/plugins");
  copy_modules(fs::path(YMGR_SOURCE_DIR) / "modules", modules_dir());
  copy_modules(fs::path(YMGR_SOURCE_DIR) / "examples/modules", modules_dir());
}

std::string daemon_process::profile_text() const
{
  std::vector<std::string> modules;
  for (const test_module_t &module : options_.modules) {
    modules.push_back("{\"name\": " + json_string(module.name) +
                      ", \"revision\": " + json_string(find_revision(modules_dir(), module.name)) + ", \"feature\": " +
                      json_strings(module.features) + ", \"deviation\": " + json_strings(module.deviations) + "}");
  }
  std::string address = json_string("unix:/" + redis_socket_);
  std::string working_key = options_.working_key.empty() ? "" : "\"working-key\": " + options_.working_key + ", ";
  std::map<std::string, std::string> members = {
      {"daemonize", "false"},
      {"session-spec", "16"},
      {"modules-dir", json_string(modules_dir())},
      {"plugins-dir", json_string(dir_ + "/plugins")},
      {"database",
       "{" + working_key + "\"type\": \"default\", \"driver\": {\"path\": " + address + ", \"api-version\": \"1.0\"}}"},
      {"schema", "{\"db-enabled\": true, \"path\": " + address + "}"},
      {"modules", json_array(modules)},
  };
  for (const auto &[name, text] : options_.profile) {
    members[name] = text;
  }
  std::string text;
  for (const auto &[name, value] : members) {
    if (!value.empty()) {
      text += (text.empty() ? "" : ",\n") + std::string("  ") + json_string(name) + ": " + value;
    }
  }
  return "{\n" + text + "\n}\n";
}

void daemon_process::write_profile() const
{
  write_file(profile_path(), profile_text());
}

testing::AssertionResult daemon_process::launch()
{
  write_profile();
  std::error_code no_log_yet;
  auto size = fs::file_size(log_path(), no_log_yet);
  log_begin_ = no_log_yet ? 0 : static_cast<size_t>(size);
  std::vector<std::string> arguments = {options_.binary.empty() ? DAEMON_BINARY : options_.binary,
                                        "--profile",
                                        profile_path(),
                                        "--run-dir",
                                        run_dir(),
                                        "--log-stderr",
                                        "--log-level",
                                        "debug"};
  arguments.insert(arguments.end(), options_.arguments.begin(), options_.arguments.end());
  return process_.start(arguments, log_path()) ? testing::AssertionSuccess() : failure("fork");
}

testing::AssertionResult daemon_process::start()
{
  testing::AssertionResult launched = launch();
  if (!launched) {
    return launched;
  }
  auto ready = [this] { return log_text().find(READY_TEXT) != std::string::npos; };
  wait_until([&] { return !running() || ready(); });
  return running() && ready() ? testing::AssertionSuccess() : failure("the daemon did not become ready");
}

testing::AssertionResult daemon_process::stop()
{
  process_.signal(SIGTERM);
  return wait() ? testing::AssertionSuccess() : failure("the daemon did not end on SIGTERM");
}

std::string daemon_process::log_tail() const
{
  constexpr size_t LONGEST_TAIL = 20000;
  std::string text = log_text();
  return text.substr(text.size() - std::min(text.size(), LONGEST_TAIL));
}

testing::AssertionResult daemon_process::wait_for_log(const std::string &text, std::chrono::milliseconds timeout) const
{
  bool found = wait_until([&] { return log_text().find(text) != std::string::npos; }, timeout);
  return found ? testing::AssertionSuccess() : failure("not logged: " + text);
}

long daemon_process::rss_kb() const
{
  return status_number(pid(), "VmRSS");
}

long daemon_process::fd_count() const
{
  std::error_code error;
  fs::directory_iterator entries("/proc/" + std::to_string(pid()) + "/fd", error);
  return error ? -1 : std::distance(entries, fs::directory_iterator());
}

testing::AssertionResult daemon_process::failure(const std::string &what) const
{
  return testing::AssertionFailure() << what << "\n--- the daemon's log\n" << log_tail() << "---";
}

} // namespace support
