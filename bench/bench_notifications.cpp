#include "bench_notifications.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>

#include "bench_clock.h"
#include "bench_device.h"
#include "bench_document.h"
#include "bench_event_readers.h"
#include "bench_session.h"
#include "libconf/unique_fd.h"

namespace {

constexpr int EVENTS = 10000;
// Events that the slowest subscriber may be behind: fewer than the daemon keeps for a session that does not read.
constexpr long MOST_ON_THE_WAY = 2000;
constexpr int SUBSCRIBERS[] = {1, 8, 16};
constexpr size_t COLUMNS = std::size(SUBSCRIBERS);

constexpr char STORED[] = R"(  "notification": {"db-enabled": true, "streams": [
    {"name": "NETCONF", "replay": true, "max-entries-num": 10000}]},
)";
constexpr char NOT_STORED[] = R"(  "notification": {"db-enabled": false, "streams": [{"name": "NETCONF"}]},
)";

typedef struct _bench_events {
  double per_s = 0;
  double cpu_us = 0; // of the daemon, for each event
} bench_events_t;

std::string subscription(const std::string &parameters)
{
  return "<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><create-subscription "
         "xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\"><stream>NETCONF</stream>" +
         parameters + "</create-subscription></rpc>";
}

// Each event has its own number, over all runs.
long next_event = 0;

// Sessions with their readers.
typedef struct _bench_subscribers {
  std::vector<ymgr_client_ptr> clients;
  bench_event_readers readers;
} bench_subscribers_t;

// All sessions are there before the first subscribes: it does not hear of them.
int subscribe(const bench_device &device, int count, const std::string &parameters, bench_subscribers_t *subscribers)
{
  for (int i = 0; i < count; ++i) {
    subscribers->clients.push_back(bench_open_session(device));
    if (subscribers->clients.back() == nullptr) {
      return -1;
    }
  }
  for (const ymgr_client_ptr &client : subscribers->clients) {
    if (!ymgr_send(client.get(), subscription(parameters)).has_value()) {
      return -1;
    }
    subscribers->readers.add(ymgr_descriptor(client.get()));
  }
  return 0;
}

// Sends events until `end` as a plugin does. 0 or -1.
int send_events(const bench_device &device, long end, const bench_event_readers &readers)
{
  const std::string path = device.dir() + "/notify.sock";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  unique_fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (sock.get() < 0 || connect(sock.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
    std::fprintf(stderr, "ymgr-bench: %s: %s\n", path.c_str(), std::strerror(errno));
    return -1;
  }
  while (next_event < end && !readers.has_failed()) {
    if (next_event - readers.slowest() > MOST_ON_THE_WAY) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
      continue;
    }
    const std::string event = bench_event(next_event++);
    if (send(sock.get(), event.data(), event.size(), MSG_NOSIGNAL) < 0) {
      std::fprintf(stderr, "ymgr-bench: send an event: %s\n", std::strerror(errno));
      return -1;
    }
  }
  return readers.has_failed() ? -1 : 0;
}

// EVENTS events, while `produce` brings them up to the given number, until each reader has them. Milliseconds, or -1.
double measure_events(bench_event_readers *readers, const std::function<int(long)> &produce)
{
  const long end = next_event + EVENTS;
  readers->expect(next_event);
  int read = -1;
  bench_watch watch;
  std::thread reading([&] {
    read = readers->read_until([end](const bench_event_reader_t &reader) { return reader.last == end - 1; });
  });
  const int produced = produce(end);
  reading.join();
  const double ms = watch.ms();
  next_event = end;
  return produced != 0 || read != 0 ? -1 : ms;
}

int measure_live(const bench_device &device, int subscribers, const std::string &parameters, bench_events_t *ret_events)
{
  bench_subscribers_t all;
  if (subscribe(device, subscribers, parameters, &all) != 0 ||
      all.readers.read_until([](const bench_event_reader_t &reader) { return reader.is_subscribed; }) != 0) {
    return -1;
  }
  const double cpu_before = device.cpu_ms();
  const double ms = measure_events(&all.readers, [&](long end) { return send_events(device, end, all.readers); });
  const double cpu_ms = device.cpu_ms() - cpu_before;
  *ret_events = {EVENTS / (ms / 1000), cpu_ms * 1000 / EVENTS};
  return ms < 0 ? -1 : 0;
}

// The log holds as many events as it takes, most of them of the runs before.
int measure_replay(const bench_device &device, int subscribers, bench_events_t *ret_events)
{
  bench_subscribers_t all;
  const double cpu_before = device.cpu_ms();
  bench_watch watch;
  if (subscribe(device, subscribers, "<startTime>2020-01-01T00:00:00Z</startTime>", &all) != 0 ||
      all.readers.read_until([](const bench_event_reader_t &reader) { return reader.is_replayed; }) != 0) {
    return -1;
  }
  const double ms = watch.ms();
  int events = 0;
  for (const bench_event_reader_t &reader : all.readers.readers()) {
    events += reader.notifications;
    if (reader.notifications < EVENTS || reader.last != next_event - 1) {
      std::fprintf(stderr, "ymgr-bench: %d events were replayed, up to %ld\n", reader.notifications, reader.last);
      return -1;
    }
  }
  *ret_events = {events / (ms / 1000), (device.cpu_ms() - cpu_before) * 1000 / events};
  return 0;
}

// The same frames from one thread to another, a write for each.
double measure_floor(int subscribers)
{
  bench_event_readers readers;
  std::vector<unique_fd> ours;
  std::vector<unique_fd> theirs;
  for (int i = 0; i < subscribers; ++i) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
      return -1;
    }
    ours.emplace_back(pair[0]);
    theirs.emplace_back(pair[1]);
    readers.add(pair[1]);
  }
  const double ms = measure_events(&readers, [&](long end) {
    for (; next_event < end; ++next_event) {
      const std::string frame = ymgr_frame("<notification xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\">"
                                           "<eventTime>2026-01-01T00:00:00Z</eventTime>" +
                                               bench_event(next_event) + "</notification>",
                                           0);
      for (const unique_fd &sock : ours) {
        if (send(sock.get(), frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size())) {
          return -1;
        }
      }
    }
    return 0;
  });
  return ms < 0 ? -1 : EVENTS / (ms / 1000);
}

typedef struct _bench_column {
  bench_events_t stored;
  bench_events_t filtered;
  bench_events_t replayed;
  bench_events_t not_stored;
  double floor = 0;
} bench_column_t;

// Runs `measure` for each number of subscribers with a device of that profile.
int with_device(const char *sections, bench_column_t (&columns)[COLUMNS],
                const std::function<int(const bench_device &, int, bench_column_t *)> &measure)
{
  bench_device device({.sections = sections});
  if (device.start_redis() != 0 || device.start_daemon() != 0) {
    return -1;
  }
  for (size_t i = 0; i < COLUMNS; ++i) {
    if (measure(device, SUBSCRIBERS[i], &columns[i]) != 0) {
      return -1;
    }
  }
  return 0;
}

typedef struct _bench_row {
  const char *name;
  double (*value)(const bench_column_t &column);
} bench_row_t;

const bench_row_t rows[] = {
    {"events a second", [](const bench_column_t &c) { return c.stored.per_s; }},
    {"the same with a filter", [](const bench_column_t &c) { return c.filtered.per_s; }},
    {"the same, not stored", [](const bench_column_t &c) { return c.not_stored.per_s; }},
    {"floor: frames written one by one, events a second", [](const bench_column_t &c) { return c.floor; }},
    {"processor time of the daemon for an event, us", [](const bench_column_t &c) { return c.stored.cpu_us; }},
    {"the same with a filter", [](const bench_column_t &c) { return c.filtered.cpu_us; }},
    {"the same, not stored", [](const bench_column_t &c) { return c.not_stored.cpu_us; }},
    {"replayed events a second, of all subscribers", [](const bench_column_t &c) { return c.replayed.per_s; }},
    {"processor time of the daemon for one, us", [](const bench_column_t &c) { return c.replayed.cpu_us; }},
    {"floor / events a second", [](const bench_column_t &c) { return c.floor / c.stored.per_s; }},
};

} // namespace

int bench_notifications()
{
  const std::string filter = "<filter type=\"subtree\">" + bench_event_filter() + "</filter>";
  bench_column_t columns[COLUMNS];
  int result = with_device(STORED, columns, [&](const bench_device &device, int subscribers, bench_column_t *column) {
    return measure_live(device, subscribers, "", &column->stored) != 0 ||
                   measure_live(device, subscribers, filter, &column->filtered) != 0
               ? -1
               : measure_replay(device, subscribers, &column->replayed);
  });
  if (result != 0 ||
      with_device(NOT_STORED, columns, [](const bench_device &device, int subscribers, bench_column_t *column) {
        return measure_live(device, subscribers, "", &column->not_stored);
      }) != 0) {
    return -1;
  }
  std::printf("\n| with notifications |");
  for (size_t i = 0; i < COLUMNS; ++i) {
    std::printf(" %d subscriber%s |", SUBSCRIBERS[i], SUBSCRIBERS[i] == 1 ? "" : "s");
    columns[i].floor = measure_floor(SUBSCRIBERS[i]);
  }
  std::printf("\n|---|---:|---:|---:|\n");
  for (const bench_row_t &row : rows) {
    std::printf("| %s |", row.name);
    for (const bench_column_t &column : columns) {
      std::printf(" %.4g |", row.value(column));
    }
    std::printf("\n");
  }
  return 0;
}
