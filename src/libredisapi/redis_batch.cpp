// Batches: commands are kept as the bytes that go over the wire, so that a window of them is handed to the link in one
// piece.
#include "libredisapi/redis_connection.h"

#include <charconv>
#include <cstring>

namespace {

// Larger windows gain nothing; smaller ones cost round trips.
constexpr size_t WINDOW_COMMANDS = 512;
constexpr size_t WINDOW_BYTES = 1024 * 1024;

void append_number(std::string *wire, char sign, size_t number)
{
  char digits[24];
  auto [end, error] = std::to_chars(digits, digits + sizeof(digits), number);
  (void)error; // 24 digits hold every size_t
  wire->push_back(sign);
  wire->append(digits, end);
  wire->append("\r\n");
}

// Names the first refused command of a batch; thousands of equal lines would tell nothing more.
void log_refusal(const redisReply *reply, bool *logged)
{
  if (!*logged) {
    redis_log("Redis refused a command: %.512s", reply->str);
    *logged = true;
  }
}

redis_reply_ptr next_reply(rContext *connection, const char *during)
{
  void *reply = nullptr;
  if (redisGetReply(connection->link.get(), &reply) != REDIS_OK || reply == nullptr) {
    redis_drop_link(connection, during);
    return nullptr;
  }
  return redis_reply_ptr(static_cast<redisReply *>(reply));
}

} // namespace

struct _redis_batch {
  std::string wire;
  std::vector<size_t> ends; // of each command in `wire`

  size_t begin_of(size_t index) const { return index == 0 ? 0 : ends[index - 1]; }

  // The end of the window that starts at `first`: at least one command.
  size_t window_end(size_t first) const
  {
    size_t last = first + 1;
    while (last < ends.size() && last - first < WINDOW_COMMANDS && ends[last] - begin_of(first) <= WINDOW_BYTES) {
      last++;
    }
    return last;
  }

  int queue(rContext *connection, size_t first, size_t last) const
  {
    size_t begin = begin_of(first);
    if (redisAppendFormattedCommand(connection->link.get(), wire.data() + begin, ends[last - 1] - begin) != REDIS_OK) {
      redis_drop_link(connection, "a batch");
      return -1;
    }
    return 0;
  }
};

redis_batch_t *redis_batch_create()
{
  return new redis_batch_t;
}

void redis_batch_destroy(redis_batch_t *batch)
{
  delete batch;
}

void redis_batch_add(redis_batch_t *batch, const std::vector<std::string_view> &words)
{
  append_number(&batch->wire, '*', words.size());
  for (std::string_view word : words) {
    append_number(&batch->wire, '$', word.size());
    batch->wire.append(word);
    batch->wire.append("\r\n");
  }
  batch->ends.push_back(batch->wire.size());
}

size_t redis_batch_size(const redis_batch_t *batch)
{
  return batch->ends.size();
}

void redis_batch_clear(redis_batch_t *batch)
{
  batch->wire.clear();
  batch->ends.clear();
}

int redis_batch_run(rContext *connection, redis_batch_t *batch,
                    const std::function<void(size_t index, const redisReply *reply)> &on_reply)
{
  redis_batch_t work = std::move(*batch);
  redis_batch_clear(batch);
  if (work.ends.empty()) {
    return 0;
  }
  if (redis_ensure_connected(connection) != 0) {
    return -1;
  }
  for (size_t first = 0; first < work.ends.size();) {
    size_t last = work.window_end(first);
    if (work.queue(connection, first, last) != 0) {
      return -1;
    }
    for (; first < last; first++) {
      redis_reply_ptr reply = next_reply(connection, "a batch");
      if (reply == nullptr) {
        return -1;
      }
      on_reply(first, reply.get());
    }
  }
  return 0;
}

int redis_batch_run_atomic(rContext *connection, redis_batch_t *batch)
{
  redis_batch_t work = std::move(*batch);
  redis_batch_clear(batch);
  if (work.ends.empty()) {
    return 0;
  }
  if (redis_ensure_connected(connection) != 0) {
    return -1;
  }
  bool refused = false;
  // MULTI travels with the first window, EXEC alone: it must not be sent when the server refused to queue something.
  if (redisAppendCommand(connection->link.get(), "MULTI") != REDIS_OK) {
    redis_drop_link(connection, "MULTI");
    return -1;
  }
  size_t awaited = 1;
  for (size_t first = 0; first < work.ends.size();) {
    size_t last = work.window_end(first);
    if (work.queue(connection, first, last) != 0) {
      return -1;
    }
    for (awaited += last - first; awaited > 0; awaited--) {
      redis_reply_ptr reply = next_reply(connection, "MULTI");
      if (reply == nullptr) {
        return -1;
      }
      if (redis_reply_is_error(reply.get())) {
        log_refusal(reply.get(), &refused);
      }
    }
    first = last;
  }
  redis_reply_ptr done(static_cast<redisReply *>(redisCommand(connection->link.get(), refused ? "DISCARD" : "EXEC")));
  if (done == nullptr) {
    redis_drop_link(connection, "EXEC");
    return -1;
  }
  if (refused) {
    return -1;
  }
  if (done->type != REDIS_REPLY_ARRAY) {
    redis_log("Redis EXEC failed: %.512s", done->str != nullptr ? done->str : "nothing was executed");
    return -1;
  }
  for (size_t i = 0; i < done->elements; i++) {
    if (redis_reply_is_error(done->element[i])) {
      log_refusal(done->element[i], &refused);
    }
  }
  return refused ? -1 : 0;
}
