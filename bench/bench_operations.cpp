#include "bench_operations.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include "bench_clock.h"
#include "bench_document.h"
#include "bench_session.h"
#include "libredisapi/redisapi.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr int SAMPLES = 200;
constexpr int WHOLE_SAMPLES = 3;
constexpr int LOCK_PAIRS = 2000;
constexpr int READERS = 16;
constexpr int READS_EACH = 100;

constexpr char COPY_TO_STARTUP[] = "<copy-config><target><startup/></target><source><running/></source></copy-config>";
constexpr char GET_CONFIG[] = "<get-config><source><running/></source></get-config>";
constexpr char GET_STATE[] = "<get><filter type=\"subtree\">"
                             "<daemon xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/></filter></get>";

// Spread over the list.
int sample_entry(int sample, int entries)
{
  return static_cast<int>(7919LL * sample % entries);
}

std::string get_entry(int entry)
{
  return "<get-config><source><running/></source><filter type=\"subtree\">" + bench_entry_filter(entry) +
         "</filter></get-config>";
}

// Median of `count` requests, each of which must bring `least` bytes. -1 on failure.
double median_of(ymgr_client_t *client, int count, size_t least, const std::function<std::string(int)> &request)
{
  std::vector<double> samples;
  for (int i = 0; i < count; ++i) {
    std::string operation = request(i);
    bench_watch watch;
    size_t bytes = bench_ask(client, operation).size();
    samples.push_back(watch.ms());
    if (bytes < least) {
      std::fprintf(stderr, "ymgr-bench: %zu bytes are too few for %.200s\n", bytes, operation.c_str());
      return -1;
    }
  }
  return bench_median(samples);
}

// A write by another process: the daemon must not answer from what it keeps.
int write_from_outside(const bench_device &device)
{
  redis_connection_ptr redis(redis_connect(device.redis_socket().c_str()));
  if (redis == nullptr || redis_select(redis.get(), REDIS_RUNNING_DB_MASTER) != 0) {
    return -1;
  }
  redis_batch_ptr batch(redis_batch_create());
  redis_batch_add(batch.get(), {"HSET", "/bench-foreign", "field", "value"});
  redis_batch_add(batch.get(), {"DEL", "/bench-foreign"});
  return redis_batch_run_atomic(redis.get(), batch.get());
}

int measure_reads(const bench_device &device, ymgr_client_t *client, int entries, bench_operations_t *result)
{
  constexpr size_t ENTRY_BYTES = 200;
  auto entry = [entries](int sample) { return get_entry(sample_entry(sample, entries)); };
  if (bench_ask(client, bench_one_leaf_edit(0, 1)).empty() || bench_ask(client, "<commit/>").empty()) {
    return -1; // from here on the configuration is kept
  }
  result->entry_ms = median_of(client, SAMPLES, ENTRY_BYTES, entry);
  if (write_from_outside(device) != 0) {
    return -1;
  }
  result->entry_redis_ms = median_of(client, SAMPLES, ENTRY_BYTES, entry);
  result->state_ms = median_of(client, SAMPLES, ENTRY_BYTES, [](int) { return GET_STATE; });
  result->get_ms = median_of(client, WHOLE_SAMPLES, ENTRY_BYTES * static_cast<size_t>(entries),
                             [](int) { return std::string("<get/>"); });
  return result->entry_ms < 0 || result->entry_redis_ms < 0 || result->state_ms < 0 || result->get_ms < 0 ? -1 : 0;
}

int measure_copy(ymgr_client_t *client, bench_operations_t *result)
{
  bench_watch first;
  if (bench_ask(client, COPY_TO_STARTUP).empty()) {
    return -1;
  }
  result->copy_first_ms = first.ms();
  std::vector<double> samples;
  for (unsigned i = 0; i < WHOLE_SAMPLES; ++i) {
    if (bench_ask(client, bench_one_leaf_edit(0, 100 + i)).empty() || bench_ask(client, "<commit/>").empty()) {
      return -1;
    }
    bench_watch watch;
    if (bench_ask(client, COPY_TO_STARTUP).empty()) {
      return -1;
    }
    samples.push_back(watch.ms());
  }
  result->copy_ms = bench_median(samples);
  return 0;
}

int measure_locks(ymgr_client_t *client, bench_operations_t *result)
{
  bench_watch watch;
  for (int i = 0; i < LOCK_PAIRS; ++i) {
    if (bench_ask(client, "<lock><target><running/></target></lock>").empty() ||
        bench_ask(client, "<unlock><target><running/></target></unlock>").empty()) {
      return -1;
    }
  }
  result->locks_per_s = LOCK_PAIRS / (watch.ms() / 1000);
  return 0;
}

// Lets READERS sessions ask at once, each in a thread of its own. Bytes of all replies together; 0 on failure.
size_t read_at_once(std::vector<ymgr_client_ptr> *readers, int reads, const std::function<std::string(int)> &request)
{
  std::vector<size_t> bytes(readers->size(), 0);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < readers->size(); ++i) {
    threads.emplace_back([&, i] {
      for (int k = 0; k < reads; ++k) {
        size_t got = bench_ask((*readers)[i].get(), request(static_cast<int>(i) * reads + k)).size();
        if (got == 0) {
          bytes[i] = 0;
          return;
        }
        bytes[i] += got;
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  size_t sum = 0;
  for (size_t each : bytes) {
    if (each == 0) {
      return 0;
    }
    sum += each;
  }
  return sum;
}

int measure_readers(const bench_device &device, int entries, bench_operations_t *result)
{
  std::vector<ymgr_client_ptr> readers;
  for (int i = 0; i < READERS; ++i) {
    readers.push_back(bench_open_session(device));
    if (readers.back() == nullptr) {
      return -1;
    }
  }
  bench_watch keyed;
  if (read_at_once(&readers, READS_EACH, [entries](int sample) { return get_entry(sample_entry(sample, entries)); }) ==
      0) {
    return -1;
  }
  result->readers_per_s = static_cast<double>(readers.size()) * READS_EACH / (keyed.ms() / 1000);
  bench_watch whole;
  size_t bytes = read_at_once(&readers, 1, [](int) { return std::string(GET_CONFIG); });
  if (bytes == 0) {
    return -1;
  }
  result->readers_mb_per_s = static_cast<double>(bytes) / 1e6 / (whole.ms() / 1000);
  result->readers_resident_mb = device.resident_mb();
  return 0;
}

} // namespace

int bench_operations(const bench_device &device, ymgr_client_t *client, int entries, bench_operations_t *ret_result)
{
  bench_operations_t result;
  if (measure_reads(device, client, entries, &result) != 0 || measure_copy(client, &result) != 0 ||
      measure_locks(client, &result) != 0 || measure_readers(device, entries, &result) != 0) {
    return -1;
  }
  *ret_result = result;
  return 0;
}
