#include "bench_secrets.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "bench_clock.h"
#include "bench_device.h"
#include "bench_document.h"
#include "bench_session.h"

namespace {

constexpr int ENTRIES = 10000;
constexpr int SAMPLES = 200;
constexpr int MANY = 1000; // leaves in one edit
constexpr int MANY_SAMPLES = 5;
constexpr int READS = 5;

constexpr char PLAIN_LIST[] = "user";
constexpr char SENSITIVE_LIST[] = "keeper";

typedef struct _bench_cost {
  double ms = 0;
  double cpu_ms = 0; // of the daemon, mean: hardly disturbed by what else the machine does
} bench_cost_t;

typedef struct _bench_words {
  bench_cost_t load; // all entries edited and committed, once
  bench_cost_t one;  // one leaf edited and committed
  bench_cost_t many; // MANY leaves edited and committed
  bench_cost_t get;  // all entries
  bench_cost_t get_one;
} bench_words_t;

// A value that is new each time.
unsigned next_value()
{
  static unsigned value = 0;
  return ++value;
}

int ask(ymgr_client_t *client, const std::string &operation)
{
  return bench_ask(client, operation).empty() ? -1 : 0;
}

// `count` requests. 0 or -1.
int measure_cost(const bench_device &device, int count, bench_cost_t *ret_cost, const std::function<int(int)> &request)
{
  std::vector<double> samples;
  const double cpu_before = device.cpu_ms();
  for (int i = 0; i < count; ++i) {
    bench_watch watch;
    if (request(i) != 0) {
      return -1;
    }
    samples.push_back(watch.ms());
  }
  *ret_cost = {bench_median(samples), (device.cpu_ms() - cpu_before) / count};
  return 0;
}

// The reply must show the words in clear.
int read_words(ymgr_client_t *client, const std::string &filter, const std::string &expected)
{
  const std::string reply = bench_ask(client, "<get-config><source><running/></source><filter type=\"subtree\">" +
                                                  filter + "</filter></get-config>");
  if (reply.find(">" + expected + "<") == std::string::npos) {
    std::fprintf(stderr, "ymgr-bench: no %s in the reply: %.500s\n", expected.c_str(), reply.c_str());
    return -1;
  }
  return 0;
}

int measure_words(const bench_device &device, ymgr_client_t *client, const std::string &list, bench_words_t *ret_words)
{
  auto change = [&](int first, int last, unsigned value) {
    return ask(client, bench_words_edit(list, first, last, value)) | ask(client, "<commit/>");
  };
  auto any = [](int sample) { return static_cast<int>(7919LL * sample % ENTRIES); };
  const unsigned last_value = 4000000000U;
  const std::string last = bench_word(ENTRIES - 1, last_value);
  auto read_all = [&](int) { return read_words(client, bench_words_filter(list), last); };
  auto read_one = [&](int) { return read_words(client, bench_words_filter(list, ENTRIES - 1), last); };
  bench_words_t words;
  int result = measure_cost(device, 1, &words.load, [&](int) { return change(0, ENTRIES - 1, next_value()); });
  result |= measure_cost(device, SAMPLES, &words.one, [&](int i) { return change(any(i), any(i), next_value()); });
  result |= measure_cost(device, MANY_SAMPLES, &words.many, [&](int) { return change(0, MANY - 1, next_value()); });
  result |= change(ENTRIES - 1, ENTRIES - 1, last_value);
  result |= measure_cost(device, READS, &words.get, read_all);
  result |= measure_cost(device, SAMPLES, &words.get_one, read_one);
  *ret_words = words;
  return result;
}

int measure_device(const bench_device_options_t &options, const char *list, bench_words_t *ret_words)
{
  bench_device device(options);
  if (device.start_redis() != 0 || device.start_daemon() != 0) {
    return -1;
  }
  ymgr_client_ptr client = bench_open_session(device);
  return client == nullptr ? -1 : measure_words(device, client.get(), list, ret_words);
}

typedef struct _bench_row {
  const char *name;
  bench_cost_t bench_words_t::*cost;
} bench_row_t;

const bench_row_t rows[] = {
    {"10000 leaves edited and committed", &bench_words_t::load}, {"one leaf edited and committed", &bench_words_t::one},
    {"1000 leaves edited and committed", &bench_words_t::many},  {"get-config of 10000 leaves", &bench_words_t::get},
    {"get-config of one leaf", &bench_words_t::get_one},
};

} // namespace

int bench_secrets()
{
  const bench_device_options_t sensitive = {
      .sections = std::string("  \"sensitive-key\": [\"") + BENCH_SENSITIVE_LEAF + "\"],\n", .has_working_key = true};
  bench_words_t none;
  bench_words_t plain;
  bench_words_t secret;
  if (measure_device({}, PLAIN_LIST, &none) != 0 || measure_device(sensitive, PLAIN_LIST, &plain) != 0 ||
      measure_device(sensitive, SENSITIVE_LIST, &secret) != 0) {
    return -1;
  }
  std::printf(
      "\n| with sensitive leaves, ms (processor time) | none configured | plain leaf beside them | sensitive leaf |"
      " plain / none | sensitive / plain |\n|---|---:|---:|---:|---:|---:|\n");
  for (const bench_row_t &row : rows) {
    std::printf("| %s |", row.name);
    for (const bench_words_t *words : {&none, &plain, &secret}) {
      std::printf(" %.4g (%.4g) |", (words->*row.cost).ms, (words->*row.cost).cpu_ms);
    }
    std::printf(" %.3g | %.3g |\n", (plain.*row.cost).cpu_ms / (none.*row.cost).cpu_ms,
                (secret.*row.cost).cpu_ms / (plain.*row.cost).cpu_ms);
  }
  return 0;
}
