#include "bench_event_readers.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>

#include "ymgrd/rpc/rpc_context.h"

namespace {

constexpr int PATIENCE_MS = 30000;
constexpr std::string_view NUMBER = "<number>";

// The number in the event; -1 when it has none.
long number_in(std::string_view payload)
{
  size_t begin = payload.find(NUMBER);
  long number = -1;
  if (begin != std::string_view::npos) {
    payload.remove_prefix(begin + NUMBER.size());
    (void)std::from_chars(payload.data(), payload.data() + payload.size(), number); // else it stays -1
  }
  return number;
}

} // namespace

void bench_event_readers::add(int sock)
{
  readers_.emplace_back();
  readers_.back().sock = sock;
}

void bench_event_readers::expect(long number)
{
  for (bench_event_reader_t &reader : readers_) {
    reader.last = number - 1;
  }
  slowest_ = number - 1;
}

int bench_event_readers::take(bench_event_reader_t *reader, uint16_t seq, std::string_view payload) const
{
  if (seq != 0) {
    reader->is_subscribed = payload.find("<ok/>") != std::string_view::npos;
    if (!reader->is_subscribed) {
      std::fprintf(stderr, "ymgr-bench: refused: %.2000s\n", std::string(payload).c_str());
    }
    return reader->is_subscribed ? 0 : -1;
  }
  reader->is_replayed = reader->is_replayed || payload.find("<replayComplete") != std::string_view::npos;
  reader->notifications++;
  long number = number_in(payload);
  if (number < 0) {
    return 0;
  }
  if (reader->last >= 0 && number != reader->last + 1) {
    std::fprintf(stderr, "ymgr-bench: event %ld comes after %ld\n", number, reader->last);
    return -1;
  }
  reader->last = number;
  return 0;
}

int bench_event_readers::receive(bench_event_reader_t *reader)
{
  ssize_t count = recv(reader->sock, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  if (count <= 0) {
    return count < 0 && errno == EAGAIN ? 0 : -1;
  }
  reader->bytes.append(buffer_.data(), static_cast<size_t>(count));
  size_t used = 0;
  for (msg_head_t head = {}; reader->bytes.size() - used >= sizeof(head);) {
    std::memcpy(&head, reader->bytes.data() + used, sizeof(head));
    if (reader->bytes.size() - used < sizeof(head) + head.length) {
      break;
    }
    if (take(reader, head.seq, std::string_view(reader->bytes).substr(used + sizeof(head), head.length)) != 0) {
      return -1;
    }
    used += sizeof(head) + head.length;
  }
  reader->bytes.erase(0, used);
  return 0;
}

int bench_event_readers::read_some(const std::function<bool(const bench_event_reader_t &)> &is_done)
{
  std::vector<pollfd> socks;
  for (const bench_event_reader_t &reader : readers_) {
    socks.push_back({is_done(reader) ? -1 : reader.sock, POLLIN, 0});
  }
  if (std::all_of(socks.begin(), socks.end(), [](const pollfd &sock) { return sock.fd < 0; })) {
    return 0;
  }
  if (poll(socks.data(), socks.size(), PATIENCE_MS) <= 0) {
    std::fprintf(stderr, "ymgr-bench: no more events come; the last for all was %ld\n", slowest());
    return -1;
  }
  for (size_t i = 0; i < socks.size(); ++i) {
    if (socks[i].revents != 0 && receive(&readers_[i]) != 0) {
      return -1;
    }
  }
  slowest_ = std::min_element(readers_.begin(), readers_.end(), [](const auto &a, const auto &b) {
               return a.last < b.last;
             })->last;
  return 1;
}

int bench_event_readers::read_until(const std::function<bool(const bench_event_reader_t &)> &is_done)
{
  int result = 1;
  while (result == 1) {
    result = read_some(is_done);
  }
  has_failed_ = result != 0;
  return result;
}
