#include "bench_netconf.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench_clock.h"
#include "bench_device.h"
#include "bench_document.h"
#include "bench_session.h"
#include "libconf/unique_fd.h"

namespace {

constexpr int SIZES[] = {1000, 10000, 100000};
constexpr int WHOLE_READS = 7;
constexpr int SMALL_READS = 2000;
constexpr ymgr_duration PATIENCE{600000};
constexpr char GET_CONFIG[] = "<get-config><source><running/></source></get-config>";

// A session through ymgr-netconf, on two pipes as an SSH server may give it. Only the last bytes of a reply are looked
// at: what is measured is not this reader.
class netconf_peer {
public:
  netconf_peer() = default;
  netconf_peer(const netconf_peer &) = delete;
  netconf_peer &operator=(const netconf_peer &) = delete;
  ~netconf_peer()
  {
    to_.reset();
    from_.reset();
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }

  int start(const bench_device &device, const std::string &base_version);
  size_t ask(const std::string &operation); // bytes of the reply with its framing; 0 on failure
  double peak_mb() const;

private:
  int send(std::string_view bytes);
  size_t receive(std::string_view end);

  pid_t pid_ = 0;
  unique_fd to_;
  unique_fd from_;
  bool is_chunked_ = false;
};

int netconf_peer::start(const bench_device &device, const std::string &base_version)
{
  int input[2];
  int output[2];
  if (pipe2(input, O_CLOEXEC) != 0) {
    return -1;
  }
  unique_fd input_end(input[0]);
  to_.reset(input[1]);
  if (pipe2(output, O_CLOEXEC) != 0) {
    return -1;
  }
  unique_fd output_end(output[1]);
  from_.reset(output[0]);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(input_end.get(), STDIN_FILENO);
    dup2(output_end.get(), STDOUT_FILENO);
    execl(BENCH_NETCONF, BENCH_NETCONF, "--run-dir", device.dir().c_str(), nullptr);
    _exit(127);
  }
  input_end.reset();
  output_end.reset();
  const std::string hello = "<hello xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><capabilities><capability>"
                            "urn:ietf:params:netconf:base:" +
                            base_version + "</capability></capabilities></hello>]]>]]>";
  if (pid_ < 0 || receive("]]>]]>") == 0 || send(hello) != 0) {
    return -1;
  }
  is_chunked_ = base_version == "1.1";
  return 0;
}

int netconf_peer::send(std::string_view bytes)
{
  while (!bytes.empty()) {
    ssize_t count = write(to_.get(), bytes.data(), bytes.size());
    if (count <= 0) {
      return -1;
    }
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return 0;
}

size_t netconf_peer::receive(std::string_view end)
{
  std::array<char, 65536> piece;
  std::string tail;
  size_t bytes = 0;
  for (;;) {
    ssize_t count = read(from_.get(), piece.data(), piece.size());
    if (count <= 0) {
      std::fprintf(stderr, "ymgr-bench: ymgr-netconf has ended\n");
      return 0;
    }
    bytes += static_cast<size_t>(count);
    std::string_view got(piece.data(), static_cast<size_t>(count));
    tail.append(got.substr(got.size() > end.size() ? got.size() - end.size() : 0));
    tail.erase(0, tail.size() > end.size() ? tail.size() - end.size() : 0);
    if (tail == end) {
      return bytes;
    }
  }
}

size_t netconf_peer::ask(const std::string &operation)
{
  std::string message =
      "<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + operation + "</rpc>";
  message = is_chunked_ ? "\n#" + std::to_string(message.size()) + "\n" + message + "\n##\n" : message + "]]>]]>";
  return send(message) == 0 ? receive(is_chunked_ ? "\n##\n" : "]]>]]>") : 0;
}

double netconf_peer::peak_mb() const
{
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  for (std::string word; status >> word;) {
    double kilobytes = 0;
    if (word == "VmHWM:" && status >> kilobytes) {
      return kilobytes / 1024;
    }
  }
  return 0;
}

typedef struct _bench_netconf_result {
  std::array<double, 3> mb_per_s; // agent socket, chunks, end-of-message
  std::array<double, 3> small_ms;
  double peak_mb = 0; // of the hungrier of the two
} bench_netconf_result_t;

using ways_t = std::array<std::function<size_t(const std::string &)>, 3>;

// Medians of what one request takes each way, and the bytes of its reply. The ways take turns, so that what else the
// machine does meets all of them. 0 or -1.
int measure_ways(const ways_t &ways, int count, const std::function<std::string(int)> &request,
                 std::array<double, 3> *ret_ms, std::array<size_t, 3> *ret_bytes)
{
  std::array<std::vector<double>, 3> samples;
  std::array<size_t, 3> bytes = {};
  for (int i = 0; i < count; ++i) {
    for (size_t way = 0; way < ways.size(); ++way) {
      const std::string operation = request(i);
      bench_watch watch;
      bytes[way] = ways[way](operation);
      samples[way].push_back(watch.ms());
      if (bytes[way] == 0) {
        return -1;
      }
    }
  }
  for (size_t way = 0; way < ways.size(); ++way) {
    (*ret_ms)[way] = bench_median(samples[way]);
  }
  *ret_bytes = bytes;
  return 0;
}

int measure(int entries, bench_netconf_result_t *ret_result)
{
  bench_device device;
  if (device.start_redis() != 0 || device.start_daemon() != 0) {
    return -1;
  }
  ymgr_client_ptr client = bench_open_session(device);
  netconf_peer chunked;
  netconf_peer delimited;
  if (client == nullptr || bench_ask(client.get(), bench_edit(bench_document(entries))).empty() ||
      bench_ask(client.get(), "<commit/>").empty() || chunked.start(device, "1.1") != 0 ||
      delimited.start(device, "1.0") != 0) {
    return -1;
  }
  const ways_t ways = {
      [&](const std::string &operation) { return ymgr_rpc(client.get(), operation, PATIENCE).value_or("").size(); },
      [&](const std::string &operation) { return chunked.ask(operation); },
      [&](const std::string &operation) { return delimited.ask(operation); }};
  bench_netconf_result_t result;
  std::array<double, 3> whole_ms = {};
  std::array<size_t, 3> bytes = {};
  auto entry = [entries](int i) {
    return "<get-config><source><running/></source><filter type=\"subtree\">" +
           bench_entry_filter(static_cast<int>(7919LL * i % entries)) + "</filter></get-config>";
  };
  if (measure_ways(ways, SMALL_READS, entry, &result.small_ms, &bytes) != 0 ||
      measure_ways(
          ways, WHOLE_READS, [](int) { return std::string(GET_CONFIG); }, &whole_ms, &bytes) != 0) {
    return -1;
  }
  for (size_t way = 0; way < ways.size(); ++way) {
    if (bytes[way] < bytes[0]) {
      std::fprintf(stderr, "ymgr-bench: a reply through ymgr-netconf is shorter than the daemon's\n");
      return -1;
    }
    result.mb_per_s[way] = static_cast<double>(bytes[0]) / 1e6 / (whole_ms[way] / 1000);
  }
  result.peak_mb = std::max(chunked.peak_mb(), delimited.peak_mb());
  *ret_result = result;
  return 0;
}

typedef struct _bench_row {
  const char *name;
  double (*value)(const bench_netconf_result_t &);
} bench_row_t;
using result_t = const bench_netconf_result_t &;

const bench_row_t rows[] = {
    {"whole get-config at the agent socket, MB/s", [](result_t r) { return r.mb_per_s[0]; }},
    {"the same through ymgr-netconf, chunks", [](result_t r) { return r.mb_per_s[1]; }},
    {"the same, end-of-message", [](result_t r) { return r.mb_per_s[2]; }},
    {"chunks / agent socket", [](result_t r) { return r.mb_per_s[1] / r.mb_per_s[0]; }},
    {"end-of-message / agent socket", [](result_t r) { return r.mb_per_s[2] / r.mb_per_s[0]; }},
    {"one entry by its key at the agent socket, ms (median)", [](result_t r) { return r.small_ms[0]; }},
    {"the same through ymgr-netconf, chunks", [](result_t r) { return r.small_ms[1]; }},
    {"the same, end-of-message", [](result_t r) { return r.small_ms[2]; }},
    {"peak resident memory of ymgr-netconf, MB", [](result_t r) { return r.peak_mb; }},
};

} // namespace

int bench_netconf()
{
  std::array<bench_netconf_result_t, std::size(SIZES)> results;
  std::printf("\n| over NETCONF |");
  for (size_t i = 0; i < results.size(); ++i) {
    std::fprintf(stderr, "measuring NETCONF with %d entries\n", SIZES[i]);
    if (measure(SIZES[i], &results[i]) != 0) {
      return -1;
    }
    std::printf(" %d entries |", SIZES[i]);
  }
  std::printf("\n|---|---:|---:|---:|\n");
  for (const bench_row_t &row : rows) {
    std::printf("| %s |", row.name);
    for (result_t result : results) {
      std::printf(" %.4g |", row.value(result));
    }
    std::printf("\n");
  }
  return 0;
}
