#include "libredisapi/redis_watch.h"

#include <string>

#include "libredisapi/redis_connection.h"

struct _redis_watch {
  std::string address;
  std::string prefix;
  redis_connection_ptr writer;
  redis_connection_ptr listener;
  // The links on which tracking was switched on. A link that was re-made since tracks nothing.
  uint64_t writer_serial = 0;
  uint64_t listener_serial = 0;
};

namespace {

constexpr std::string_view INVALIDATION_CHANNEL = "__redis__:invalidate";

int connect_if_needed(redis_connection_ptr *connection, const std::string &address)
{
  if (*connection == nullptr) {
    connection->reset(redis_connect(address.c_str()));
    return *connection == nullptr ? -1 : 0;
  }
  return redis_ensure_connected(connection->get());
}

bool is_tracking(const redis_watch_t *watch)
{
  return watch->writer != nullptr && watch->listener != nullptr && watch->writer->link != nullptr &&
         watch->listener->link != nullptr && watch->writer->serial == watch->writer_serial &&
         watch->listener->serial == watch->listener_serial;
}

int expect(rContext *connection, const std::vector<std::string_view> &words, redis_reply_ptr *ret_reply)
{
  redis_reply_ptr reply = redis_command(connection, words);
  if (reply == nullptr) {
    return -1;
  }
  if (redis_reply_is_error(reply.get())) {
    redis_log("Redis %s: %.512s", std::string(words.front()).c_str(), reply->str);
    return -1;
  }
  *ret_reply = std::move(reply);
  return 0;
}

// Fresh connections on both sides: what was noticed before cannot be told apart from what is noticed now.
int begin_tracking(redis_watch_t *watch)
{
  watch->listener.reset();
  if (connect_if_needed(&watch->listener, watch->address) != 0 ||
      connect_if_needed(&watch->writer, watch->address) != 0) {
    return -1;
  }
  redis_reply_ptr id;
  redis_reply_ptr done;
  if (expect(watch->listener.get(), {"CLIENT", "ID"}, &id) != 0 ||
      expect(watch->listener.get(), {"SUBSCRIBE", INVALIDATION_CHANNEL}, &done) != 0) {
    return -1;
  }
  std::string redirect = std::to_string(id->integer);
  // Switched off first: an earlier redirection cannot be changed.
  if (expect(watch->writer.get(), {"CLIENT", "TRACKING", "OFF"}, &done) != 0 ||
      expect(watch->writer.get(),
             {"CLIENT", "TRACKING", "ON", "REDIRECT", redirect, "BCAST", "PREFIX", watch->prefix, "NOLOOP"},
             &done) != 0) {
    return -1;
  }
  watch->writer_serial = watch->writer->serial;
  watch->listener_serial = watch->listener->serial;
  return 0;
}

bool is_pong(const redisReply *reply)
{
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements == 0 || reply->element[0]->str == nullptr) {
    return false;
  }
  return std::string_view(reply->element[0]->str, reply->element[0]->len) == "pong";
}

// Messages come in the order of the writes: those before the answer to our PING are all there are.
int read_up_to_pong(rContext *listener, bool *ret_messages)
{
  redisContext *link = listener->link.get();
  bool messages = false;
  if (redisAppendCommand(link, "PING") != REDIS_OK) {
    redis_drop_link(listener, "PING");
    return -1;
  }
  while (true) {
    void *raw = nullptr;
    if (redisGetReply(link, &raw) != REDIS_OK || raw == nullptr) {
      redis_drop_link(listener, "PING");
      return -1;
    }
    redis_reply_ptr reply(static_cast<redisReply *>(raw));
    if (is_pong(reply.get())) {
      *ret_messages = messages;
      return 0;
    }
    messages = true;
  }
}

} // namespace

redis_watch_t *redis_watch_create(const char *address, const char *prefix)
{
  auto watch = std::make_unique<redis_watch_t>();
  watch->address = address;
  watch->prefix = prefix;
  return watch.release(); // to the caller, who gives it to redis_watch_destroy
}

void redis_watch_destroy(redis_watch_t *watch)
{
  delete watch;
}

rContext *redis_watch_writer(redis_watch_t *watch, int db)
{
  if (connect_if_needed(&watch->writer, watch->address) != 0) {
    return nullptr;
  }
  rContext *writer = watch->writer.get();
  return redis_selected(writer) == db || redis_select(writer, db) == 0 ? writer : nullptr;
}

redis_seen_t redis_watch_poll(redis_watch_t *watch)
{
  if (is_tracking(watch) && connect_if_needed(&watch->writer, watch->address) == 0 && is_tracking(watch)) {
    bool messages = false;
    if (read_up_to_pong(watch->listener.get(), &messages) == 0) {
      return messages ? REDIS_SEEN_WRITES : REDIS_SEEN_NOTHING;
    }
  }
  (void)begin_tracking(watch); // logged; a watch that could not begin is begun by the next call
  return REDIS_SEEN_WRITES;
}
