#include "bench_plugins.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include "bench_clock.h"
#include "bench_document.h"
#include "bench_floor.h"
#include "bench_plugin_peer.h"
#include "bench_session.h"

namespace {

constexpr int SAMPLES = 200;
constexpr int COMMITS = 1000;
constexpr int WHOLE_SAMPLES = 3;

constexpr char CONTAINER_PATH[] = "/ex-bench:bench";
constexpr char ENTRY_PATH[] = "/ex-bench:bench/entry";
constexpr char GET_PARTS_STATE[] =
    "<get><filter type=\"subtree\"><parts xmlns=\"urn:ex-bench-parts\"><state/></parts></filter></get>";

// Median of `count` requests or groups of them; -1 when one fails.
double median_of(int count, const std::function<int(int)> &request)
{
  std::vector<double> samples;
  for (int i = 0; i < count; ++i) {
    bench_watch watch;
    if (request(i) != 0) {
      return -1;
    }
    samples.push_back(watch.ms());
  }
  return bench_median(samples);
}

int commit_edit(ymgr_client_t *client, const std::string &edit)
{
  return bench_ask(client, edit).empty() || bench_ask(client, "<commit/>").empty() ? -1 : 0;
}

// A new value at each call, so that each commit changes something.
unsigned next_value()
{
  static unsigned value = 1000000;
  return ++value;
}

// Whether each plugin was handed `count` changes since the last look, the i-th to the callback `callback(i)`: none
// lost, doubled or out of turn.
bool heard_each(bench_plugin_host *host, size_t count, const std::function<int(size_t)> &callback)
{
  for (const auto &plugin : host->plugins()) {
    const std::vector<bench_change_t> changes = plugin->take_changes();
    if (changes.size() != count) {
      std::fprintf(stderr, "ymgr-bench: %zu changes were handed over instead of %zu\n", changes.size(), count);
      return false;
    }
    for (size_t i = 0; i < count; ++i) {
      const int expected = callback(i);
      if (changes[i].callback != expected) {
        std::fprintf(stderr, "ymgr-bench: change %zu came to callback %d\n", i, changes[i].callback);
        return false;
      }
    }
  }
  return true;
}

// One leaf of one entry after the other, which each of `plugins` is handed. 0 or -1.
int measure_entries(const bench_device &device, ymgr_client_t *client, int entries, int plugins, bool pulls,
                    bench_commit_t *ret_commit)
{
  bench_plugin_host host;
  if (host.start(device.dir(), plugins, {.config = {ENTRY_PATH}, .pulls = pulls}) != 0) {
    return -1;
  }
  bench_commit_t commit;
  const double cpu_before = device.cpu_ms();
  commit.ms = median_of(SAMPLES, [&](int i) {
    return commit_edit(client, bench_one_leaf_edit(static_cast<int>(7919LL * i % entries), next_value()));
  });
  commit.cpu_ms = (device.cpu_ms() - cpu_before) / SAMPLES;
  if (host.pause() != 0 || commit.ms < 0 || !heard_each(&host, SAMPLES, [](size_t) { return 0; })) {
    return -1;
  }
  *ret_commit = commit;
  return 0;
}

int measure_commits(const bench_device &device, ymgr_client_t *client, int entries, bench_plugins_t *result)
{
  const struct {
    int plugins;
    bool pulls;
    bench_commit_t *commit;
  } rows[] = {
      {0, false, &result->none},
      {1, false, &result->one},
      {BENCH_PLUGINS_FEW, false, &result->few},
      {BENCH_PLUGINS_MANY, false, &result->many},
      {BENCH_PLUGINS_MANY, true, &result->pulling},
  };
  // The first edit after other work may have to read everything.
  if (commit_edit(client, bench_one_leaf_edit(0, next_value())) != 0) {
    return -1;
  }
  for (const auto &row : rows) {
    if (measure_entries(device, client, entries, row.plugins, row.pulls, row.commit) != 0) {
      return -1;
    }
  }
  // At once, for what else the machine does comes and goes.
  result->message_floor_us = bench_message_floor(BENCH_PLUGINS_MANY);
  return result->message_floor_us < 0 ? -1 : 0;
}

int measure_parts(const bench_device &device, ymgr_client_t *client, bench_plugins_t *result)
{
  bench_plugin_role_t role;
  for (int i = 0; i < BENCH_PARTS; ++i) {
    role.config.push_back(bench_part_path(i));
  }
  bench_plugin_host host;
  bench_watch come;
  if (host.start(device.dir(), BENCH_PLUGINS_MANY, role) != 0) {
    return -1;
  }
  result->come_ms = come.ms();
  result->subscribed_ms = median_of(COMMITS, [client](int i) {
    return commit_edit(client, bench_parts_edit(i % BENCH_PARTS, i % BENCH_PARTS, next_value()));
  });
  if (host.pause() != 0 || result->subscribed_ms < 0 ||
      !heard_each(&host, COMMITS, [](size_t i) { return static_cast<int>(i % BENCH_PARTS); })) {
    return -1;
  }
  host.resume();
  result->all_parts_ms = median_of(
      WHOLE_SAMPLES, [client](int) { return commit_edit(client, bench_parts_edit(0, BENCH_PARTS - 1, next_value())); });
  if (host.pause() != 0 || result->all_parts_ms < 0 ||
      !heard_each(&host, WHOLE_SAMPLES * BENCH_PARTS, [](size_t i) { return static_cast<int>(i % BENCH_PARTS); })) {
    return -1;
  }
  return 0;
}

// An idle daemon gives free memory back, and has noticed who has gone.
void let_it_rest()
{
  std::this_thread::sleep_for(std::chrono::seconds(3));
}

// From the wish for the restore until the daemon counts on the plugin. -1 on failure, or when it was not handed
// `messages` changes.
double measure_restore(const bench_device &device, const char *path, size_t messages, bench_plugin *plugin)
{
  if (plugin->connect_to(device.dir()) != 0 || plugin->register_as("restored", {.config = {path}}) != 0) {
    return -1;
  }
  bench_watch watch;
  if (plugin->activate(true) != 0) {
    return -1;
  }
  const double ms = watch.ms();
  const size_t handed = plugin->take_changes().size();
  if (handed != messages) {
    std::fprintf(stderr, "ymgr-bench: the restore handed over %zu nodes instead of %zu\n", handed, messages);
    return -1;
  }
  return ms;
}

int measure_restores(const bench_device &device, int entries, bench_plugins_t *result)
{
  constexpr size_t ENTRY_BYTES = 200;
  {
    bench_plugin by_entries;
    result->restore_entries_ms = measure_restore(device, ENTRY_PATH, static_cast<size_t>(entries), &by_entries);
  }
  bench_plugin by_container;
  result->restore_container_ms = measure_restore(device, CONTAINER_PATH, 1, &by_container);
  if (result->restore_entries_ms < 0 || result->restore_container_ms < 0) {
    return -1;
  }
  std::string data;
  result->pull_ms = median_of(WHOLE_SAMPLES, [&](int) { return by_container.pull(CONTAINER_PATH, &data); });
  result->pull_mb = static_cast<double>(data.size()) / 1e6;
  if (result->pull_ms < 0 || data.size() < ENTRY_BYTES * static_cast<size_t>(entries)) {
    std::fprintf(stderr, "ymgr-bench: the plugin got %zu bytes\n", data.size());
    return -1;
  }
  return 0;
}

// What the plugin told must be in the reply.
int ask_for(ymgr_client_t *client, const char *request, const std::string &expected)
{
  if (bench_ask(client, request).find(expected) == std::string::npos) {
    std::fprintf(stderr, "ymgr-bench: no %s in the reply to %s\n", expected.c_str(), request);
    return -1;
  }
  return 0;
}

int measure_answers(const bench_device &device, ymgr_client_t *client, bench_plugins_t *result)
{
  bench_plugin_host host;
  if (host.start(device.dir(), 1,
                 {.status = BENCH_PARTS_STATE,
                  .operation = BENCH_PARTS_OPERATION,
                  .state = bench_parts_state(),
                  .output = bench_parts_echoed()}) != 0) {
    return -1;
  }
  const std::string echo = bench_parts_echo();
  result->state_ms = median_of(SAMPLES, [client](int) { return ask_for(client, GET_PARTS_STATE, BENCH_PARTS_WORDS); });
  result->operation_ms = median_of(SAMPLES, [&](int) { return ask_for(client, echo.c_str(), BENCH_PARTS_WORDS); });
  return result->state_ms < 0 || result->operation_ms < 0 ? -1 : host.pause();
}

} // namespace

int bench_plugins(const bench_device &device, ymgr_client_t *client, int entries, bench_plugins_t *ret_result)
{
  bench_plugins_t result;
  if (measure_commits(device, client, entries, &result) != 0) {
    return -1;
  }
  let_it_rest();
  result.descriptors_before = device.descriptors();
  result.resident_before_mb = device.resident_mb();
  if (measure_parts(device, client, &result) != 0) {
    return -1;
  }
  let_it_rest();
  result.descriptors_after = device.descriptors();
  result.resident_after_mb = device.resident_mb();
  if (measure_restores(device, entries, &result) != 0 || measure_answers(device, client, &result) != 0) {
    return -1;
  }
  *ret_result = result;
  return 0;
}
