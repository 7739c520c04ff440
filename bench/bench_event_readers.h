// The other ends of subscribed sessions: one thread that reads what comes for all of them, and looks at its order.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "client/client.h"

typedef struct _bench_event_reader {
  int sock = -1;     // of the caller
  std::string bytes; // of a frame that is not complete
  bool is_subscribed = false;
  bool is_replayed = false; // replayComplete has come
  int notifications = 0;
  long last = -1; // number of the last event of a plugin
} bench_event_reader_t;

class bench_event_readers {
public:
  void add(int sock);
  void expect(long number); // of the first event that each is to get

  // Reads until `is_done` holds for each. -1 (told) when one gets nothing for long, a refusal, or events out of turn.
  int read_until(const std::function<bool(const bench_event_reader_t &)> &is_done);
  long slowest() const { return slowest_; } // number of the event that all have; while reading as well
  bool has_failed() const { return has_failed_; }
  const std::vector<bench_event_reader_t> &readers() const { return readers_; }

private:
  int receive(bench_event_reader_t *reader);
  int take(bench_event_reader_t *reader, uint16_t seq, std::string_view payload) const;
  int read_some(const std::function<bool(const bench_event_reader_t &)> &is_done); // 1 while there is more to do

  std::vector<bench_event_reader_t> readers_;
  std::vector<char> buffer_ = std::vector<char>(256 * 1024);
  std::atomic<long> slowest_ = -1;
  std::atomic<bool> has_failed_ = false;
};
