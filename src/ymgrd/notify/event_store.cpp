#include "ymgrd/notify/event_store.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>

#include "libredisapi/redisapi.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/database/database_config.h"
#include "ymgrd/notify/notification_config.h"
#include "ymgrd/ymgrd.h"

namespace {

using std::chrono::steady_clock;

constexpr std::string_view EVENT_LIST = "event_key_list";
constexpr std::string_view CREATED_KEY = "event_key_created";
constexpr std::string_view TCP_SCHEME = "tcp:";
// Times that a date of four digits can tell.
constexpr time_t EARLIEST = -62167219200; // 0000-01-01
constexpr time_t LATEST = 253402300799;   // 9999-12-31
constexpr auto RETRY_INTERVAL = std::chrono::seconds(1);

std::string g_ndb_sock; // address of the notification database
redis_connection_ptr g_connection;
steady_clock::time_point g_last_failure = {}; // long ago: none
bool g_is_known = false;                      // what is below is what the database says
uint64_t g_replay_num = 0;                    // stored events
uint64_t g_end = 0;
time_t g_created = 0;

// A connection that failed is made anew: what the server has done of the last commands is not known.
int give_up()
{
  g_connection.reset();
  g_is_known = false;
  g_last_failure = steady_clock::now();
  return -1;
}

int connect_database()
{
  if (g_connection != nullptr) {
    return 0;
  }
  if (g_ndb_sock.empty()) {
    g_ndb_sock = event_store_address();
  }
  g_connection.reset(redis_connect(g_ndb_sock.c_str()));
  if (g_connection == nullptr) {
    log_error("event store in db: connect error");
    return -1;
  }
  if (redis_select(g_connection.get(), REDIS_NOTIFY_DB) != 0) {
    log_error("event store in db: select %d error", static_cast<int>(REDIS_NOTIFY_DB));
    return -1;
  }
  return 0;
}

// Takes the list's true length over. More than expected: another process has appended. Less: it has removed the oldest.
void note_length(uint64_t length)
{
  if (length > g_replay_num) {
    g_end += length - g_replay_num;
  }
  // What differs may be another log altogether: it is looked at as a whole the next time.
  g_is_known = g_is_known && length == g_replay_num;
  g_replay_num = length;
}

bool is_number(const redisReply *reply)
{
  return reply->type == REDIS_REPLY_INTEGER && reply->integer >= 0;
}

std::string encode(const stored_event_t &event)
{
  if (event.is_damaged) {
    return event.content;
  }
  std::string record(sizeof(event.eventtime), '\0');
  std::memcpy(record.data(), &event.eventtime, sizeof(event.eventtime));
  record.append(event.content);
  record.push_back('\0');
  return record;
}

stored_event_t decode(std::string_view record, uint64_t number)
{
  constexpr size_t HEAD = sizeof(time_t);
  stored_event_t event;
  event.number = number;
  time_t eventtime = 0;
  std::memcpy(&eventtime, record.data(), std::min(record.size(), HEAD));
  // The content is an element, and its end the only zero byte.
  event.is_damaged = record.size() < HEAD + 3 || record.find('\0', HEAD) != record.size() - 1 || record[HEAD] != '<' ||
                     record[HEAD + 1] == '?' || record[HEAD + 1] == '!' || record[record.size() - 2] != '>' ||
                     eventtime < EARLIEST || eventtime > LATEST;
  if (event.is_damaged) {
    event.content = record;
    return event;
  }
  event.eventtime = eventtime;
  event.content = record.substr(HEAD, record.size() - HEAD - 1);
  return event;
}

// Runs the batch: each reply goes to `on_reply`. 0, or -1 (logged as `failure`) when the connection failed or a command
// was refused.
template <class T>
int run(redis_batch_t *batch, const char *failure, const T &on_reply)
{
  bool is_refused = false;
  int result = redis_batch_run(g_connection.get(), batch, [&](size_t index, const redisReply *reply) {
    is_refused = is_refused || redis_reply_is_error(reply);
    on_reply(index, reply);
  });
  if (result == 0 && !is_refused) {
    return 0;
  }
  log_error("%s", failure);
  return give_up();
}

int find_out()
{
  redis_batch_ptr batch(redis_batch_create());
  std::string now = std::to_string(time(nullptr));
  redis_batch_add(batch.get(), {"LLEN", EVENT_LIST});
  redis_batch_add(batch.get(), {"SET", CREATED_KEY, now, "NX"});
  redis_batch_add(batch.get(), {"GET", CREATED_KEY});
  uint64_t length = 0;
  time_t created = 0;
  auto on_reply = [&](size_t index, const redisReply *reply) {
    if (index == 0 && is_number(reply)) {
      length = static_cast<uint64_t>(reply->integer);
    } else if (index == 2) {
      std::string_view text = redis_reply_text(reply);
      (void)std::from_chars(text.data(), text.data() + text.size(), created); // stays unknown
    }
  };
  if (run(batch.get(), "event store in db: the event log cannot be read.", on_reply) != 0) {
    return -1;
  }
  note_length(length);
  g_created = created;
  g_is_known = true;
  return 0;
}

} // namespace

std::string event_store_address()
{
  const auto *config = context_get_record<database_config>("OPT-database");
  // An external driver's path is that of its library.
  if (config == nullptr || config->type == "external" || config->driver_path.empty()) {
    return DEFAULT_REDIS_SOCKET;
  }
  std::string path = ymgrd_socket_path(config->driver_path);
  return config->driver_path.starts_with(TCP_SCHEME) ? std::string(TCP_SCHEME) + path.substr(1) : path;
}

bool event_store_is_usable()
{
  return steady_clock::now() - g_last_failure > RETRY_INTERVAL;
}

int event_store_open()
{
  if (g_connection != nullptr && g_is_known) {
    return 0;
  }
  if (!event_store_is_usable()) {
    return -1;
  }
  return connect_database() == 0 ? find_out() : give_up();
}

int event_store_refresh()
{
  g_is_known = false;
  return event_store_open();
}

void event_store_close()
{
  g_connection.reset();
  g_ndb_sock.clear();
  g_is_known = false;
  g_last_failure = {};
  g_replay_num = 0;
  g_end = 0;
  g_created = 0;
}

int event_store_append(std::span<const stored_event_t> events, int replay_max)
{
  if (events.empty()) {
    return 0;
  }
  if (event_store_open() != 0) {
    return -1;
  }
  size_t most = static_cast<size_t>(replay_max > 0 ? replay_max : DEFAULT_REPLAY_MAX);
  std::span<const stored_event_t> kept = events.size() > most ? events.last(most) : events;
  uint64_t room = most - kept.size();
  uint64_t surplus = g_replay_num > room ? g_replay_num - room : 0;

  redis_batch_ptr batch(redis_batch_create());
  if (surplus > 0) {
    redis_batch_add(batch.get(), {"LPOP", EVENT_LIST, std::to_string(surplus)});
  }
  redis_batch_begin(batch.get(), 2 + kept.size());
  redis_batch_word(batch.get(), "RPUSH");
  redis_batch_word(batch.get(), EVENT_LIST);
  for (const stored_event_t &event : kept) {
    redis_batch_word(batch.get(), encode(event));
  }
  uint64_t length = 0;
  size_t push = surplus > 0 ? 1 : 0; // its place in the batch
  auto on_reply = [&](size_t index, const redisReply *reply) {
    if (index != push && redis_reply_is_error(reply)) {
      log_error("event store in db: lpop failed.");
    } else if (index == push && is_number(reply)) {
      length = static_cast<uint64_t>(reply->integer);
    }
  };
  if (run(batch.get(), "event store in db: rpush error", on_reply) != 0) {
    return -1;
  }
  g_replay_num = g_replay_num - surplus + kept.size();
  g_end += events.size();
  note_length(length);
  return 0;
}

uint64_t event_store_begin()
{
  return g_end - g_replay_num;
}

uint64_t event_store_end()
{
  return g_end;
}

int event_store_read(uint64_t from, size_t most, std::vector<stored_event_t> *ret_events)
{
  if (event_store_open() != 0) {
    return -1;
  }
  uint64_t index = from - event_store_begin();
  redis_batch_ptr batch(redis_batch_create());
  redis_batch_add(batch.get(), {"LRANGE", EVENT_LIST, std::to_string(index), std::to_string(index + most - 1)});
  redis_batch_add(batch.get(), {"LLEN", EVENT_LIST});
  std::vector<stored_event_t> events;
  uint64_t length = 0;
  auto on_reply = [&](size_t reply_index, const redisReply *reply) {
    if (reply_index == 1) {
      length = is_number(reply) ? static_cast<uint64_t>(reply->integer) : 0;
      return;
    }
    for (size_t i = 0; i < reply->elements; i++) {
      events.push_back(decode(redis_reply_text(reply->element[i]), i));
    }
  };
  if (run(batch.get(), "event store in db: the event log cannot be read.", on_reply) != 0) {
    return -1;
  }
  note_length(length);
  for (stored_event_t &event : events) {
    event.number += event_store_begin() + index;
  }
  *ret_events = std::move(events);
  return 0;
}

int event_store_remove(std::vector<stored_event_t> *events)
{
  if (events->empty()) {
    return 0;
  }
  if (event_store_open() != 0) {
    return -1;
  }
  redis_batch_ptr batch(redis_batch_create());
  for (const stored_event_t &event : *events) {
    redis_batch_add(batch.get(), {"LREM", EVENT_LIST, "1", encode(event)});
  }
  redis_batch_add(batch.get(), {"LLEN", EVENT_LIST});
  std::vector<stored_event_t> removed;
  uint64_t length = 0;
  auto on_reply = [&](size_t index, const redisReply *reply) {
    if (index == events->size()) {
      length = is_number(reply) ? static_cast<uint64_t>(reply->integer) : 0;
    } else if (is_number(reply) && reply->integer > 0) {
      removed.push_back((*events)[index]);
    }
  };
  if (run(batch.get(), "event store in db: old events cannot be removed.", on_reply) != 0) {
    return -1;
  }
  g_replay_num -= std::min<uint64_t>(g_replay_num, removed.size());
  note_length(length);
  *events = std::move(removed);
  return 0;
}

time_t event_store_created()
{
  return g_created;
}
