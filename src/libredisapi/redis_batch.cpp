// Batches: commands are kept as the bytes that go over the wire, so that a window of them is handed to the link in one
// piece.
#include "libredisapi/redis_connection.h"

#include <cassert>
#include <charconv>
#include <utility>

namespace {

// Larger windows gain nothing; smaller ones cost round trips.
constexpr size_t WINDOW_COMMANDS = 512;
constexpr size_t WINDOW_BYTES = 1024 * 1024;

// The head of an array or of a bulk string: the sign, the number, the end of the line.
void append_head(std::string *wire, char sign, size_t number)
{
  char head[32];
  head[0] = sign;
  char *end = std::to_chars(head + 1, head + sizeof(head) - 2, number).ptr; // large enough for every size_t
  *end++ = '\r';
  *end++ = '\n';
  wire->append(head, end);
}

// Names the first refused command of a batch; thousands of equal lines would tell nothing more.
void log_refusal(const redisReply *reply, bool *logged)
{
  if (!*logged) {
    redis_log("Redis refused a command: %.512s", reply->str);
    *logged = true;
  }
}

// Lets the replies of one batch be built in the connection's arena.
class arena_replies {
public:
  explicit arena_replies(rContext *connection) : connection_(connection)
  {
    redis_replies_in_arena(connection->link.get(), &connection->replies);
  }
  ~arena_replies()
  {
    if (connection_->link != nullptr) {
      redis_replies_on_heap(connection_->link.get());
    }
    connection_->replies.reset();
  }
  arena_replies(const arena_replies &) = delete;
  arena_replies &operator=(const arena_replies &) = delete;

  // Ends the life of the reply before. Null, with the link dropped, when the connection failed.
  const redisReply *next(const char *during)
  {
    connection_->replies.reset();
    void *reply = nullptr;
    if (redisGetReply(connection_->link.get(), &reply) != REDIS_OK || reply == nullptr) {
      redis_drop_link(connection_, during);
      return nullptr;
    }
    return static_cast<redisReply *>(reply);
  }

private:
  rContext *connection_;
};

} // namespace

struct _redis_batch {
  std::string wire;
  std::vector<size_t> ends; // of each command in `wire`
  size_t missing_words = 0; // of the command that is being queued

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
};

namespace {

// Hands the commands of a batch to the link, two windows ahead: the server works on one while the replies of the other
// are taken.
class batch_feed {
public:
  batch_feed(rContext *connection, const redis_batch_t &batch) : connection_(connection), batch_(batch) {}

  // To be called before the reply of each command is taken. 0, or -1 with the link dropped.
  int advance_to(size_t index)
  {
    while (queued_ < batch_.ends.size() && index >= newest_) {
      newest_ = queued_;
      queued_ = batch_.window_end(newest_);
      size_t begin = batch_.begin_of(newest_);
      if (redisAppendFormattedCommand(connection_->link.get(), batch_.wire.data() + begin,
                                      batch_.ends[queued_ - 1] - begin) != REDIS_OK) {
        redis_drop_link(connection_, "a batch");
        return -1;
      }
    }
    return 0;
  }

private:
  rContext *connection_;
  const redis_batch_t &batch_;
  size_t newest_ = 0; // first command of the window queued last
  size_t queued_ = 0;
};

// Sends MULTI and the commands. 0, or -1 when the connection failed; `*refused` when the server did not accept one of
// them.
int queue_in_multi(rContext *connection, const redis_batch_t &work, arena_replies *replies, bool *refused)
{
  batch_feed feed(connection, work);
  // MULTI travels with the first windows.
  if (redisAppendCommand(connection->link.get(), "MULTI") != REDIS_OK) {
    redis_drop_link(connection, "MULTI");
    return -1;
  }
  for (size_t index = 0; index <= work.ends.size(); index++) { // the first reply is MULTI's
    const redisReply *reply = feed.advance_to(index == 0 ? 0 : index - 1) == 0 ? replies->next("MULTI") : nullptr;
    if (reply == nullptr) {
      return -1;
    }
    if (redis_reply_is_error(reply)) {
      log_refusal(reply, refused);
    }
  }
  return 0;
}

} // namespace

redis_batch_t *redis_batch_create()
{
  return new redis_batch_t;
}

void redis_batch_destroy(redis_batch_t *batch)
{
  delete batch;
}

void redis_batch_begin(redis_batch_t *batch, size_t words)
{
  assert(batch->missing_words == 0 && words > 0);
  append_head(&batch->wire, '*', words);
  batch->missing_words = words;
}

void redis_batch_word(redis_batch_t *batch, std::string_view word)
{
  assert(batch->missing_words > 0);
  append_head(&batch->wire, '$', word.size());
  batch->wire.append(word);
  batch->wire.append("\r\n", 2);
  batch->missing_words--;
  if (batch->missing_words == 0) {
    batch->ends.push_back(batch->wire.size());
  }
}

void redis_batch_add(redis_batch_t *batch, const std::vector<std::string_view> &words)
{
  redis_batch_begin(batch, words.size());
  for (std::string_view word : words) {
    redis_batch_word(batch, word);
  }
}

void redis_batch_add(redis_batch_t *batch, std::initializer_list<std::string_view> words)
{
  redis_batch_begin(batch, words.size());
  for (std::string_view word : words) {
    redis_batch_word(batch, word);
  }
}

size_t redis_batch_size(const redis_batch_t *batch)
{
  return batch->ends.size();
}

void redis_batch_clear(redis_batch_t *batch)
{
  batch->wire.clear();
  batch->ends.clear();
  batch->missing_words = 0;
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
  arena_replies replies(connection);
  batch_feed feed(connection, work);
  for (size_t index = 0; index < work.ends.size(); index++) {
    const redisReply *reply = feed.advance_to(index) == 0 ? replies.next("a batch") : nullptr;
    if (reply == nullptr) {
      return -1;
    }
    on_reply(index, reply);
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
  arena_replies replies(connection);
  bool refused = false;
  if (queue_in_multi(connection, work, &replies, &refused) != 0) {
    return -1;
  }
  // EXEC goes alone: it must not be sent when the server refused to queue something.
  if (redisAppendCommand(connection->link.get(), refused ? "DISCARD" : "EXEC") != REDIS_OK) {
    redis_drop_link(connection, "EXEC");
    return -1;
  }
  const redisReply *done = replies.next("EXEC");
  if (done == nullptr || refused) {
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
