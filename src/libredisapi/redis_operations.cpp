// Single commands and whole-keyspace operations.
#include "libredisapi/redis_connection.h"

#include <chrono>
#include <thread>
#include <unordered_set>

namespace {

constexpr const char SCAN_COUNT[] = "1000";
constexpr size_t KEYS_PER_UNLINK = 512;
constexpr std::chrono::milliseconds SAVE_RETRY_INTERVAL(50);
constexpr int SAVE_RETRIES = 600; // 30 seconds: a background save of a large server takes that long

// Null, with the server's text in the log, for an error reply too.
redis_reply_ptr checked_command(rContext *connection, const std::vector<std::string_view> &words)
{
  redis_reply_ptr reply = redis_command(connection, words);
  if (reply != nullptr && redis_reply_is_error(reply.get())) {
    redis_log("Redis %.64s: %.512s", std::string(words.front()).c_str(), reply->str);
    return nullptr;
  }
  return reply;
}

int status_of(rContext *connection, const std::vector<std::string_view> &words)
{
  return checked_command(connection, words) != nullptr ? 0 : -1;
}

// Runs a batch whose replies matter only when they are errors.
int run_checked(rContext *connection, redis_batch_t *batch)
{
  int result = 0;
  int sent = redis_batch_run(connection, batch, [&result](size_t, const redisReply *reply) {
    if (redis_reply_is_error(reply) && result == 0) {
      redis_log("Redis refused a command: %.512s", reply->str);
      result = -1;
    }
  });
  return sent != 0 ? -1 : result;
}

} // namespace

std::string redis_escape_glob(std::string_view text)
{
  std::string escaped;
  escaped.reserve(text.size() + 8);
  for (char c : text) {
    if (std::string_view("*?[]\\").find(c) != std::string_view::npos) {
      escaped.push_back('\\');
    }
    escaped.push_back(c);
  }
  return escaped;
}

int redis_scan(rContext *connection, std::string_view pattern, std::vector<std::string> *ret_keys)
{
  std::unordered_set<std::string> seen; // SCAN may name a key twice
  std::string cursor = "0";
  do {
    redis_reply_ptr reply = checked_command(connection, {"SCAN", cursor, "MATCH", pattern, "COUNT", SCAN_COUNT});
    if (reply == nullptr) {
      return -1;
    }
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2 || reply->element[1]->type != REDIS_REPLY_ARRAY) {
      redis_log("Redis SCAN: unexpected reply");
      return -1;
    }
    cursor.assign(reply->element[0]->str, reply->element[0]->len);
    const redisReply *keys = reply->element[1];
    for (size_t i = 0; i < keys->elements; i++) {
      seen.emplace(keys->element[i]->str, keys->element[i]->len);
    }
  } while (cursor != "0");
  ret_keys->clear();
  ret_keys->reserve(seen.size());
  while (!seen.empty()) {
    ret_keys->push_back(std::move(seen.extract(seen.begin()).value()));
  }
  return 0;
}

int redis_flushdb(rContext *connection)
{
  return status_of(connection, {"FLUSHDB"});
}

redis_reply_ptr redis_type(rContext *connection, std::string_view key)
{
  return checked_command(connection, {"TYPE", key});
}

redis_reply_ptr redis_hash_get_all_bin_safe(rContext *connection, std::string_view key)
{
  return checked_command(connection, {"HGETALL", key});
}

redis_reply_ptr redis_hash_get_bin_safe(rContext *connection, std::string_view key, std::string_view field)
{
  return checked_command(connection, {"HGET", key, field});
}

int redis_hash_set_bin_safe(rContext *connection, std::string_view key, std::string_view field, std::string_view value)
{
  return status_of(connection, {"HSET", key, field, value});
}

redis_reply_ptr redis_lrange_bin_safe(rContext *connection, std::string_view key, int start, int stop)
{
  return checked_command(connection, {"LRANGE", key, std::to_string(start), std::to_string(stop)});
}

int redis_lpush(rContext *connection, std::string_view key, std::string_view member)
{
  return status_of(connection, {"LPUSH", key, member});
}

int redis_rpush_bin_safe(rContext *connection, std::string_view key, std::string_view member)
{
  return status_of(connection, {"RPUSH", key, member});
}

int redis_linsert_binsafe(rContext *connection, std::string_view key, bool before, std::string_view pivot,
                          std::string_view member)
{
  redis_reply_ptr reply = checked_command(connection, {"LINSERT", key, before ? "BEFORE" : "AFTER", pivot, member});
  if (reply == nullptr) {
    return -1;
  }
  if (reply->integer <= 0) { // the server does not call an absent list or pivot an error
    redis_log("Redis LINSERT: no such list or reference element");
    return -1;
  }
  return 0;
}

long long redis_llen_bin_safe(rContext *connection, std::string_view key)
{
  redis_reply_ptr reply = checked_command(connection, {"LLEN", key});
  return reply != nullptr ? reply->integer : -1;
}

redis_reply_ptr redis_lpop_bin_safe(rContext *connection, std::string_view key)
{
  return checked_command(connection, {"LPOP", key});
}

int redis_del_improve(rContext *connection, std::string_view key, std::string_view field, std::string_view member)
{
  if (!field.empty()) {
    return status_of(connection, {"HDEL", key, field});
  }
  if (!member.empty()) {
    return status_of(connection, {"LREM", key, "0", member});
  }
  return status_of(connection, {"UNLINK", key});
}

int redis_del_tree(rContext *connection, std::string_view pattern)
{
  std::vector<std::string> keys;
  if (redis_scan(connection, pattern, &keys) != 0) {
    return -1;
  }
  redis_batch_ptr batch(redis_batch_create());
  for (size_t first = 0; first < keys.size(); first += KEYS_PER_UNLINK) {
    std::vector<std::string_view> words = {"UNLINK"};
    words.insert(words.end(), keys.begin() + static_cast<std::ptrdiff_t>(first),
                 keys.begin() + static_cast<std::ptrdiff_t>(std::min(keys.size(), first + KEYS_PER_UNLINK)));
    redis_batch_add(batch.get(), words);
  }
  return run_checked(connection, batch.get());
}

int redis_copyimprove(rContext *connection, std::string_view pattern, int src, int dst)
{
  if (redis_selected(connection) != src) {
    redis_log("Redis copy: database %d is not selected", src);
    return -1;
  }
  std::vector<std::string> keys;
  if (redis_scan(connection, pattern, &keys) != 0) {
    return -1;
  }
  std::string target = std::to_string(dst);
  redis_batch_ptr batch(redis_batch_create());
  for (const std::string &key : keys) {
    redis_batch_add(batch.get(), {"COPY", key, key, "DB", target, "REPLACE"});
  }
  return run_checked(connection, batch.get());
}

int redis_savedb_improve(rContext *connection)
{
  for (int attempt = 0; attempt < SAVE_RETRIES; attempt++) {
    redis_reply_ptr reply = redis_command(connection, {"SAVE"});
    if (reply == nullptr) {
      return -1;
    }
    if (!redis_reply_is_error(reply.get())) {
      return 0;
    }
    if (std::string_view(reply->str, reply->len).find("save already in progress") == std::string_view::npos) {
      redis_log("Redis SAVE: %.512s", reply->str);
      return -1;
    }
    std::this_thread::sleep_for(SAVE_RETRY_INTERVAL);
  }
  redis_log("Redis SAVE: a background save does not end");
  return -1;
}
