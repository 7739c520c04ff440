// Redis over hiredis: one command at a time, and batches. Binary safe throughout; lengths are byte counts. Knows
// nothing of YANG or of the daemon. SIGPIPE must be ignored by the program. A connection that was lost while it was
// idle is re-established (with its database selected) before the next command; a loss during a command fails that
// command. Errors are reported through the logger that redis_set_logger installed.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <hiredis/hiredis.h>

typedef struct _rContext rContext;

void redis_reply_free(redisReply *reply);
void redis_freeconn(rContext *connection);

struct redis_reply_delete_t {
  void operator()(redisReply *reply) const { redis_reply_free(reply); }
};
struct redis_connection_delete_t {
  void operator()(rContext *connection) const { redis_freeconn(connection); }
};
using redis_reply_ptr = std::unique_ptr<redisReply, redis_reply_delete_t>;
using redis_connection_ptr = std::unique_ptr<rContext, redis_connection_delete_t>;

// Called with one line of text for each failure (no line end). Null switches reporting off.
void redis_set_logger(void (*log)(const char *text));
// Called after each connection that was made, re-made ones included; it may send commands on it. Null switches it off.
void redis_set_connect_hook(void (*on_connect)(rContext *connection));

// `address` is the path of a unix socket, or "tcp:HOST:PORT". Waits up to 5 seconds for the connection; later every
// command waits up to 60 seconds for its reply. Null on failure. The caller owns the connection (redis_freeconn).
rContext *redis_connect(const char *address);
int redis_select(rContext *connection, int db); // 0, or -1
int redis_selected(const rContext *connection);
int redis_ping(rContext *connection); // 0 when the server answers and has loaded its data
uint64_t redis_lost_connections();    // that the server has ended, or that have failed, of all that were made
// Re-establishes the connection when the server has closed it; costs no round trip when it has not. 0 or -1.
int redis_ensure_connected(rContext *connection);

// Any command. Null when the connection failed; a reply of type REDIS_REPLY_ERROR is returned as it is.
redis_reply_ptr redis_command(rContext *connection, const std::vector<std::string_view> &words);
bool redis_reply_is_error(const redisReply *reply);
// The bytes of a string reply, borrowed; empty for other replies without text.
inline std::string_view redis_reply_text(const redisReply *reply)
{
  return {reply->str, reply->len};
}

// --- Batches: commands are queued and sent together; one round trip for each window of commands, not for each command.

typedef struct _redis_batch redis_batch_t;
redis_batch_t *redis_batch_create();
void redis_batch_destroy(redis_batch_t *batch);
struct redis_batch_delete_t {
  void operator()(redis_batch_t *batch) const { redis_batch_destroy(batch); }
};
using redis_batch_ptr = std::unique_ptr<redis_batch_t, redis_batch_delete_t>;

// Queues a copy of the command.
void redis_batch_add(redis_batch_t *batch, const std::vector<std::string_view> &words);
void redis_batch_add(redis_batch_t *batch, std::initializer_list<std::string_view> words);
// The same word by word: exactly `words` calls of redis_batch_word must follow.
void redis_batch_begin(redis_batch_t *batch, size_t words);
void redis_batch_word(redis_batch_t *batch, std::string_view word);
size_t redis_batch_size(const redis_batch_t *batch);
void redis_batch_clear(redis_batch_t *batch);
// Sends all queued commands in windows and calls `on_reply` for each in order (the reply is only valid in the call, and
// is not for redis_reply_free; error replies included). `on_reply` must not use the connection. Clears the batch. 0, or
// -1 when the connection failed (replies seen so far were delivered).
int redis_batch_run(rContext *connection, redis_batch_t *batch,
                    const std::function<void(size_t index, const redisReply *reply)> &on_reply);
// Sends all queued commands inside one MULTI/EXEC: all of them take effect or none. Clears the batch. 0, or -1 when the
// connection failed or any command was refused (run-time errors of single commands are reported, and count as failure).
int redis_batch_run_atomic(rContext *connection, redis_batch_t *batch);

// `text` with every glob character escaped, to be used in a pattern.
std::string redis_escape_glob(std::string_view text);
// All keys matching a glob pattern, by SCAN, each once. 0 or -1.
int redis_scan(rContext *connection, std::string_view pattern, std::vector<std::string> *ret_keys);

// --- Single commands, under the names that the daemon's layers use. int results: 0 or -1. Replies are never error
// replies: an error is logged and gives null.

int redis_flushdb(rContext *connection);
redis_reply_ptr redis_type(rContext *connection, std::string_view key);
redis_reply_ptr redis_hash_get_all_bin_safe(rContext *connection, std::string_view key);
redis_reply_ptr redis_hash_get_bin_safe(rContext *connection, std::string_view key, std::string_view field);
int redis_hash_set_bin_safe(rContext *connection, std::string_view key, std::string_view field, std::string_view value);
redis_reply_ptr redis_lrange_bin_safe(rContext *connection, std::string_view key, int start, int stop);
int redis_lpush(rContext *connection, std::string_view key, std::string_view member);
int redis_rpush_bin_safe(rContext *connection, std::string_view key, std::string_view member);
int redis_linsert_binsafe(rContext *connection, std::string_view key, bool before, std::string_view pivot,
                          std::string_view member);
long long redis_llen_bin_safe(rContext *connection, std::string_view key); // -1 on failure
redis_reply_ptr redis_lpop_bin_safe(rContext *connection, std::string_view key);
// With a field: HDEL; with a member: LREM; with neither: the key. Empty views mean "not given".
int redis_del_improve(rContext *connection, std::string_view key, std::string_view field, std::string_view member);
// Deletes every key matching the glob pattern.
int redis_del_tree(rContext *connection, std::string_view pattern);
// Copies every key matching the pattern, with its content, from database `src` (selected) to database `dst`.
int redis_copyimprove(rContext *connection, std::string_view pattern, int src, int dst);
// Makes the server write its data to disk (SAVE); waits and tries again while a background save runs.
int redis_savedb_improve(rContext *connection);
