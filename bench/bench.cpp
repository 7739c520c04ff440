// Measures a daemon from outside, as an agent sees it, and prints Markdown tables: what each operation takes at growing
// sizes of the datastore, how it grows, and how far it is from the floors.
//   ymgr-bench [ENTRIES...] [events] [secrets] [netconf]
//     1000, 10000 and 100000 entries and everything else when nothing is given
#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench_clock.h"
#include "bench_device.h"
#include "bench_document.h"
#include "bench_floor.h"
#include "bench_netconf.h"
#include "bench_notifications.h"
#include "bench_operations.h"
#include "bench_plugins.h"
#include "bench_secrets.h"
#include "bench_session.h"
#include "client/client.h"
#include "libredisapi/redisapi.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr int WHOLE_READS = 5;
constexpr int LEAF_EDITS_MAX = 200;
constexpr double LEAF_EDITS_MS = 20000; // no further edit is begun after this time
constexpr int EMPTY_REQUESTS = 5000;

typedef struct _bench_result {
  int entries = 0;
  double document_mb = 0;
  double load_ms = 0;   // edit-config of candidate
  double commit_ms = 0; // and its commit
  double get_ms = 0;
  double get_mb_per_s = 0;
  double leaf_median_ms = 0;
  double leaf_p99_ms = 0;
  double empty_per_s = 0;
  double resident_mb = 0;
  double start_ms = 0;
  bench_operations_t operations;
  bench_plugins_t plugins;
  bench_yang_floor_t yang;
  bench_redis_floor_t redis;
} bench_result_t;

double megabytes(size_t bytes)
{
  return static_cast<double>(bytes) / 1e6;
}

int measure_load(ymgr_client_t *client, const std::string &document, bench_result_t *result)
{
  bench_watch load;
  if (bench_ask(client, bench_edit(document)).empty()) {
    return -1;
  }
  result->load_ms = load.ms();
  bench_watch commit;
  if (bench_ask(client, "<commit/>").empty()) {
    return -1;
  }
  result->commit_ms = commit.ms();
  return 0;
}

int measure_whole_read(ymgr_client_t *client, const std::string &document, bench_result_t *result)
{
  std::vector<double> samples;
  size_t bytes = 0;
  for (int i = 0; i < WHOLE_READS; ++i) {
    bench_watch watch;
    bytes = bench_ask(client, "<get-config><source><running/></source></get-config>").size();
    samples.push_back(watch.ms());
    if (bytes < document.size()) {
      std::fprintf(stderr, "ymgr-bench: get-config is shorter than what was loaded\n");
      return -1;
    }
  }
  result->get_ms = bench_median(samples);
  result->get_mb_per_s = megabytes(bytes) / (result->get_ms / 1000);
  return 0;
}

int measure_one_leaf(ymgr_client_t *client, bench_result_t *result)
{
  std::vector<double> samples;
  bench_watch whole;
  for (int i = 0; i < LEAF_EDITS_MAX && whole.ms() < LEAF_EDITS_MS; ++i) {
    // Spread over the list; a value that is new each time.
    const int entry = static_cast<int>(7919LL * i % result->entries);
    bench_watch watch;
    if (bench_ask(client, bench_one_leaf_edit(entry, 4000000000U + static_cast<unsigned>(i))).empty() ||
        bench_ask(client, "<commit/>").empty()) {
      return -1;
    }
    samples.push_back(watch.ms());
  }
  result->leaf_median_ms = bench_median(samples);
  result->leaf_p99_ms = bench_quantile(samples, 0.99);
  return 0;
}

// A commit with nothing to commit: parsed, checked, routed and answered, without work of its own.
int measure_empty_request(ymgr_client_t *client, bench_result_t *result)
{
  bench_watch watch;
  for (int i = 0; i < EMPTY_REQUESTS; ++i) {
    if (bench_ask(client, "<commit/>").empty()) {
      return -1;
    }
  }
  result->empty_per_s = EMPTY_REQUESTS / (watch.ms() / 1000);
  return 0;
}

// From the start of the process until a session is open. Running is what startup holds: it is saved there first.
int measure_start(bench_device *device, bench_result_t *result)
{
  device->stop_daemon();
  redis_connection_ptr redis(redis_connect(device->redis_socket().c_str()));
  if (redis == nullptr || redis_select(redis.get(), REDIS_RUNNING_DB_MASTER) != 0 ||
      redis_copyimprove(redis.get(), "*", REDIS_RUNNING_DB_MASTER, REDIS_STARTUP_DB_MASTER) != 0) {
    return -1;
  }
  bench_watch watch;
  if (device->start_daemon() != 0 || bench_open_session(*device) == nullptr) {
    return -1;
  }
  result->start_ms = watch.ms();
  return 0;
}

int measure(int entries, bench_result_t *ret_result)
{
  bench_device device;
  if (device.start_redis() != 0 || device.start_daemon() != 0) {
    return -1;
  }
  ymgr_client_ptr client = bench_open_session(device);
  if (client == nullptr) {
    return -1;
  }
  const std::string document = bench_document(entries);
  bench_result_t result;
  result.entries = entries;
  result.document_mb = megabytes(document.size());
  if (measure_load(client.get(), document, &result) != 0 || measure_whole_read(client.get(), document, &result) != 0 ||
      measure_one_leaf(client.get(), &result) != 0 || measure_empty_request(client.get(), &result) != 0 ||
      bench_operations(device, client.get(), entries, &result.operations) != 0) {
    return -1;
  }
  std::this_thread::sleep_for(std::chrono::seconds(3)); // an idle daemon gives free memory back
  result.resident_mb = device.resident_mb();
  if (bench_plugins(device, client.get(), entries, &result.plugins) != 0) {
    return -1;
  }
  client.reset();
  if (measure_start(&device, &result) != 0 || bench_yang_floor(document, &result.yang) != 0 ||
      bench_redis_floor(device.redis_socket(), REDIS_RUNNING_DB_MASTER, &result.redis) != 0) {
    return -1;
  }
  *ret_result = result;
  return 0;
}

// --- Tables

typedef struct _bench_row {
  const char *name;
  double (*value)(const bench_result_t &result);
} bench_row_t;

double yang_floor(const bench_result_t &r)
{
  return r.yang.parse_ms + r.yang.validate_ms + r.yang.print_ms;
}

const bench_row_t time_rows[] = {
    {"document, MB", [](const bench_result_t &r) { return r.document_mb; }},
    {"bulk load into candidate, ms", [](const bench_result_t &r) { return r.load_ms; }},
    {"commit of the bulk load, ms", [](const bench_result_t &r) { return r.commit_ms; }},
    {"whole get-config, ms (median)", [](const bench_result_t &r) { return r.get_ms; }},
    {"whole get-config, MB/s", [](const bench_result_t &r) { return r.get_mb_per_s; }},
    {"one leaf edited and committed, ms (median)", [](const bench_result_t &r) { return r.leaf_median_ms; }},
    {"one leaf edited and committed, ms (p99)", [](const bench_result_t &r) { return r.leaf_p99_ms; }},
    {"one entry by its key, get-config, ms (median)", [](const bench_result_t &r) { return r.operations.entry_ms; }},
    {"the same read from Redis, ms (median)", [](const bench_result_t &r) { return r.operations.entry_redis_ms; }},
    {"get of the daemon's state, ms (median)", [](const bench_result_t &r) { return r.operations.state_ms; }},
    {"get of everything, ms (median)", [](const bench_result_t &r) { return r.operations.get_ms; }},
    {"copy-config of running to an empty startup, ms",
     [](const bench_result_t &r) { return r.operations.copy_first_ms; }},
    {"the same one leaf later, ms (median)", [](const bench_result_t &r) { return r.operations.copy_ms; }},
    {"pairs of lock and unlock a second", [](const bench_result_t &r) { return r.operations.locks_per_s; }},
    {"16 sessions at once: entries by key a second",
     [](const bench_result_t &r) { return r.operations.readers_per_s; }},
    {"16 sessions at once: whole get-config, MB/s",
     [](const bench_result_t &r) { return r.operations.readers_mb_per_s; }},
    {"resident memory after them, MB", [](const bench_result_t &r) { return r.operations.readers_resident_mb; }},
    {"empty requests a second", [](const bench_result_t &r) { return r.empty_per_s; }},
    {"resident memory, MB", [](const bench_result_t &r) { return r.resident_mb; }},
    {"start until a session is open, ms", [](const bench_result_t &r) { return r.start_ms; }},
    {"floor: libyang parse, ms", [](const bench_result_t &r) { return r.yang.parse_ms; }},
    {"floor: libyang validate, ms", [](const bench_result_t &r) { return r.yang.validate_ms; }},
    {"floor: libyang print, ms", [](const bench_result_t &r) { return r.yang.print_ms; }},
    {"floor: hashes read", [](const bench_result_t &r) { return static_cast<double>(r.redis.hashes); }},
    {"floor: pipelined HGETALL, ms", [](const bench_result_t &r) { return r.redis.read_ms; }},
};

const bench_row_t ratio_rows[] = {
    {"bulk load and commit / libyang parse, validate, print",
     [](const bench_result_t &r) { return (r.load_ms + r.commit_ms) / yang_floor(r); }},
    {"whole get-config / libyang print", [](const bench_result_t &r) { return r.get_ms / r.yang.print_ms; }},
    {"whole get-config / pipelined HGETALL", [](const bench_result_t &r) { return r.get_ms / r.redis.read_ms; }},
    {"one leaf / libyang parse, validate, print",
     [](const bench_result_t &r) { return r.leaf_median_ms / yang_floor(r); }},
    {"one leaf / pipelined HGETALL", [](const bench_result_t &r) { return r.leaf_median_ms / r.redis.read_ms; }},
};

// What one of many plugins adds, in microseconds.
double round_trip_us(const bench_result_t &r)
{
  return (r.plugins.many.ms - r.plugins.none.ms) * 1000 / BENCH_PLUGINS_MANY;
}

double round_trip_cpu_us(const bench_result_t &r)
{
  return (r.plugins.many.cpu_ms - r.plugins.none.cpu_ms) * 1000 / BENCH_PLUGINS_MANY;
}

double pull_us(const bench_result_t &r)
{
  return (r.plugins.pulling.ms - r.plugins.many.ms) * 1000 / BENCH_PLUGINS_MANY;
}

double pull_cpu_us(const bench_result_t &r)
{
  return (r.plugins.pulling.cpu_ms - r.plugins.many.cpu_ms) * 1000 / BENCH_PLUGINS_MANY;
}

const bench_row_t plugin_rows[] = {
    {"one leaf edited and committed, no plugin, ms (median)",
     [](const bench_result_t &r) { return r.plugins.none.ms; }},
    {"the same with 1 plugin", [](const bench_result_t &r) { return r.plugins.one.ms; }},
    {"the same with 8 plugins", [](const bench_result_t &r) { return r.plugins.few.ms; }},
    {"the same with 32 plugins", [](const bench_result_t &r) { return r.plugins.many.ms; }},
    {"commits a second without a plugin", [](const bench_result_t &r) { return 1000 / r.plugins.none.ms; }},
    {"commits a second with 32 plugins", [](const bench_result_t &r) { return 1000 / r.plugins.many.ms; }},
    {"one plugin more, us", round_trip_us},
    {"processor time of the daemon in it, us", round_trip_cpu_us},
    {"the pull of the changed entry by it, us", pull_us},
    {"processor time of the daemon in it, us", pull_cpu_us},
    {"32 plugins with 200 subscriptions each come, ms", [](const bench_result_t &r) { return r.plugins.come_ms; }},
    {"one leaf then, 32 changes handed over, ms (median)",
     [](const bench_result_t &r) { return r.plugins.subscribed_ms; }},
    {"200 leaves then, 6400 changes handed over, ms (median)",
     [](const bench_result_t &r) { return r.plugins.all_parts_ms; }},
    {"open descriptors before they came",
     [](const bench_result_t &r) { return static_cast<double>(r.plugins.descriptors_before); }},
    {"open descriptors after they went",
     [](const bench_result_t &r) { return static_cast<double>(r.plugins.descriptors_after); }},
    {"resident memory before, MB", [](const bench_result_t &r) { return r.plugins.resident_before_mb; }},
    {"resident memory after, MB", [](const bench_result_t &r) { return r.plugins.resident_after_mb; }},
    {"restore of a plugin entry by entry, ms", [](const bench_result_t &r) { return r.plugins.restore_entries_ms; }},
    {"restore of a plugin in one message, ms", [](const bench_result_t &r) { return r.plugins.restore_container_ms; }},
    {"the pull of all by the plugin, ms (median)", [](const bench_result_t &r) { return r.plugins.pull_ms; }},
    {"the same, MB/s", [](const bench_result_t &r) { return r.plugins.pull_mb / (r.plugins.pull_ms / 1000); }},
    {"get of a plugin's state, ms (median)", [](const bench_result_t &r) { return r.plugins.state_ms; }},
    {"operation of a plugin, ms (median)", [](const bench_result_t &r) { return r.plugins.operation_ms; }},
    {"floor: a change and its answer without a daemon, us",
     [](const bench_result_t &r) { return r.plugins.message_floor_us; }},
    {"one plugin more / floor", [](const bench_result_t &r) { return round_trip_us(r) / r.plugins.message_floor_us; }},
    {"restore entry by entry / floor",
     [](const bench_result_t &r) {
       return r.plugins.restore_entries_ms * 1000 / r.entries / r.plugins.message_floor_us;
     }},
};

template <size_t rows>
void print_table(const char *title, const bench_row_t (&table)[rows], const std::vector<bench_result_t> &results)
{
  std::printf("\n| %s |", title);
  for (const bench_result_t &result : results) {
    std::printf(" %d entries |", result.entries);
  }
  std::printf(" growth |\n|---|");
  for (size_t i = 0; i <= results.size(); ++i) {
    std::printf("---:|");
  }
  std::printf("\n");
  for (const bench_row_t &row : table) {
    std::printf("| %s |", row.name);
    for (const bench_result_t &result : results) {
      std::printf(" %.4g |", row.value(result));
    }
    std::printf(" %.3g |\n", row.value(results.back()) / row.value(results.front()));
  }
}

typedef struct _bench_choice {
  std::vector<int> sizes;
  bool has_events = false;
  bool has_secrets = false;
  bool has_netconf = false;
} bench_choice_t;

const struct {
  std::string_view word;
  bool bench_choice_t::*is_chosen;
  int (*measure)();
} sections[] = {
    {"events", &bench_choice_t::has_events, bench_notifications},
    {"secrets", &bench_choice_t::has_secrets, bench_secrets},
    {"netconf", &bench_choice_t::has_netconf, bench_netconf},
};

int read_choice(int argc, char **argv, bench_choice_t *ret_choice)
{
  bench_choice_t choice;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    const auto *section = std::find_if(std::begin(sections), std::end(sections),
                                       [word](const auto &candidate) { return candidate.word == word; });
    if (section != std::end(sections)) {
      choice.*section->is_chosen = true;
      continue;
    }
    int size = 0;
    auto [rest, error] = std::from_chars(word.data(), word.data() + word.size(), size);
    if (error != std::errc() || rest != word.data() + word.size() || size < 1) {
      return -1;
    }
    choice.sizes.push_back(size);
  }
  *ret_choice = argc > 1 ? choice : bench_choice_t{{1000, 10000, 100000}, true, true, true};
  return 0;
}

int measure_sizes(const std::vector<int> &sizes)
{
  std::vector<bench_result_t> results;
  for (int size : sizes) {
    std::fprintf(stderr, "measuring %d entries\n", size);
    bench_result_t result;
    if (measure(size, &result) != 0) {
      return -1;
    }
    results.push_back(result);
  }
  if (!results.empty()) {
    print_table("what", time_rows, results);
    print_table("ratio to floor", ratio_rows, results);
    print_table("with plugins", plugin_rows, results);
  }
  return 0;
}

} // namespace

int main(int argc, char **argv)
{
  bench_choice_t choice;
  if (read_choice(argc, argv, &choice) != 0) {
    std::fprintf(stderr, "usage: ymgr-bench [ENTRIES...] [events] [secrets] [netconf]\n");
    return 2;
  }
  // A peer that ends shows as a failed write, not as the end of this program.
  std::signal(SIGPIPE, SIG_IGN);
  bool is_measured = measure_sizes(choice.sizes) == 0;
  for (const auto &section : sections) {
    is_measured = is_measured && (!(choice.*section.is_chosen) || section.measure() == 0);
  }
  return is_measured ? 0 : 1;
}
