#include "bench_secrets.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "bench_clock.h"
#include "bench_device.h"
#include "bench_document.h"
#include "bench_session.h"

namespace {

constexpr int ENTRIES = 10000;
constexpr int SAMPLES = 400;
constexpr int MANY = 1000; // leaves in one edit
constexpr int MANY_SAMPLES = 7;
constexpr int READS = 7;

constexpr char PLAIN_LIST[] = "user";
constexpr char SENSITIVE_LIST[] = "keeper";

typedef struct _bench_cost {
  double ms = 0;
  double cpu_ms = 0; // of the daemon: less disturbed by what else the machine does
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

// A list of a device.
typedef struct _bench_words_place {
  const bench_device *device;
  ymgr_client_ptr client;
  const char *list;
  bench_words_t words;
} bench_words_place_t;

// `count` requests, medians. The places take turns, so that what else the machine does meets all of them. 0 or -1.
int measure_cost(std::span<bench_words_place_t> places, int count, bench_cost_t bench_words_t::*cost,
                 const std::function<int(const bench_words_place_t &, int)> &request)
{
  std::vector<std::vector<double>> ms(places.size());
  std::vector<std::vector<double>> cpu_ms(places.size());
  for (int i = 0; i < count; ++i) {
    for (size_t place = 0; place < places.size(); ++place) {
      const double cpu_before = places[place].device->cpu_ms();
      bench_watch watch;
      if (request(places[place], i) != 0) {
        return -1;
      }
      ms[place].push_back(watch.ms());
      cpu_ms[place].push_back(places[place].device->cpu_ms() - cpu_before);
    }
  }
  for (size_t place = 0; place < places.size(); ++place) {
    places[place].words.*cost = {bench_median(ms[place]), bench_median(cpu_ms[place])};
  }
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

int change_words(const bench_words_place_t &place, int first, int last, unsigned value)
{
  return ask(place.client.get(), bench_words_edit(place.list, first, last, value)) |
         ask(place.client.get(), "<commit/>");
}

int measure_words(std::span<bench_words_place_t> places)
{
  using place_t = const bench_words_place_t &;
  constexpr unsigned LAST_VALUE = 4000000000U;
  const std::string last = bench_word(ENTRIES - 1, LAST_VALUE);
  auto load = [](place_t place, int) { return change_words(place, 0, ENTRIES - 1, next_value()); };
  auto change_one = [](place_t place, int i) {
    const int entry = static_cast<int>(7919LL * i % ENTRIES);
    return change_words(place, entry, entry, next_value());
  };
  auto change_many = [](place_t place, int) { return change_words(place, 0, MANY - 1, next_value()); };
  auto change_last = [](place_t place) { return change_words(place, ENTRIES - 1, ENTRIES - 1, LAST_VALUE) == 0; };
  auto get = [&](place_t place, int) { return read_words(place.client.get(), bench_words_filter(place.list), last); };
  auto get_one = [&](place_t place, int) {
    return read_words(place.client.get(), bench_words_filter(place.list, ENTRIES - 1), last);
  };
  bool is_measured = measure_cost(places, 1, &bench_words_t::load, load) == 0 &&
                     measure_cost(places, SAMPLES, &bench_words_t::one, change_one) == 0 &&
                     measure_cost(places, MANY_SAMPLES, &bench_words_t::many, change_many) == 0 &&
                     std::all_of(places.begin(), places.end(), change_last) &&
                     measure_cost(places, READS, &bench_words_t::get, get) == 0 &&
                     measure_cost(places, SAMPLES, &bench_words_t::get_one, get_one) == 0;
  return is_measured ? 0 : -1;
}

int start(bench_device *device)
{
  return device->start_redis() != 0 || device->start_daemon() != 0 ? -1 : 0;
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
  bench_device without;
  bench_device with(
      {.sections = std::string("  \"sensitive-key\": [\"") + BENCH_SENSITIVE_LEAF + "\"],\n", .has_working_key = true});
  if (start(&without) != 0 || start(&with) != 0) {
    return -1;
  }
  bench_words_place_t places[] = {{&without, bench_open_session(without), PLAIN_LIST, {}},
                                  {&with, bench_open_session(with), PLAIN_LIST, {}},
                                  {&with, bench_open_session(with), SENSITIVE_LIST, {}}};
  bool has_sessions = std::all_of(std::begin(places), std::end(places),
                                  [](const bench_words_place_t &place) { return place.client != nullptr; });
  if (!has_sessions || measure_words(places) != 0) {
    return -1;
  }
  std::printf(
      "\n| with sensitive leaves, ms (processor time) | none configured | plain leaf beside them | sensitive leaf |"
      " plain / none | sensitive / plain |\n|---|---:|---:|---:|---:|---:|\n");
  for (const bench_row_t &row : rows) {
    std::printf("| %s |", row.name);
    std::vector<double> cpu_ms;
    for (const bench_words_place_t &place : places) {
      const bench_cost_t &cost = place.words.*row.cost;
      std::printf(" %.4g (%.4g) |", cost.ms, cost.cpu_ms);
      cpu_ms.push_back(cost.cpu_ms);
    }
    std::printf(" %.3g | %.3g |\n", cpu_ms[1] / cpu_ms[0], cpu_ms[2] / cpu_ms[1]);
  }
  return 0;
}
