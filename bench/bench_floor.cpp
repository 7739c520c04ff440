#include "bench_floor.h"

#include <cstdio>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench_clock.h"
#include "bench_plugin_peer.h"
#include "libconf/plugin_message.h"
#include "libredisapi/redisapi.h"
#include "ymgrd/core/handles.h"

namespace {

constexpr int MESSAGES = 10000;
constexpr char CHANGE[] =
    "<rpc><method>publish</method><params><type>config</type><session-id>1</session-id><callback>0</callback><info>"
    "<oper-type>8</oper-type><priority>10</priority><more-flag>0</more-flag>"
    "<path>/ex-bench:bench/entry[name=\"entry-1000000\"]</path></info></params><id>1</id></rpc>";

// 0 when the answer has come, else -1.
int send_and_await(int sock, const std::string &frame)
{
  if (send(sock, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size())) {
    return -1;
  }
  char answer[1024];
  for (size_t got = 0; true;) {
    pollfd ready = {sock, POLLIN, 0};
    ssize_t count = poll(&ready, 1, -1) == 1 ? recv(sock, answer + got, sizeof(answer) - got, 0) : 0;
    if (count <= 0) {
      return -1;
    }
    got += static_cast<size_t>(count);
    plugin_msg_head_t head = {};
    std::memcpy(&head, answer, sizeof(head));
    if (got >= sizeof(head) && got >= sizeof(head) + head.length) {
      return 0;
    }
  }
}

} // namespace

int bench_yang_floor(const std::string &document, bench_yang_floor_t *ret_floor)
{
  ly_ctx *raw_ctx = nullptr;
  if (ly_ctx_new(BENCH_SAMPLES, LY_CTX_NO_YANGLIBRARY, &raw_ctx) != LY_SUCCESS) {
    return -1;
  }
  ly_ctx_ptr ctx(raw_ctx);
  if (ly_ctx_load_module(ctx.get(), "ex-bench", nullptr, nullptr) == nullptr) {
    return -1;
  }
  bench_yang_floor_t floor;
  bench_watch parse;
  lyd_node *raw_tree = nullptr;
  LY_ERR result =
      lyd_parse_data_mem(ctx.get(), document.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &raw_tree);
  lyd_tree_ptr tree(raw_tree);
  floor.parse_ms = parse.ms();
  if (result != LY_SUCCESS) {
    return -1;
  }
  bench_watch validate;
  lyd_node *top = tree.release(); // validation may give the tree another first node
  result = lyd_validate_all(&top, ctx.get(), LYD_VALIDATE_NO_STATE | LYD_VALIDATE_PRESENT, nullptr);
  tree.reset(top);
  floor.validate_ms = validate.ms();
  if (result != LY_SUCCESS) {
    return -1;
  }
  bench_watch print;
  char *raw_text = nullptr;
  result = lyd_print_mem(&raw_text, tree.get(), LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK);
  c_string_ptr text(raw_text);
  floor.print_ms = print.ms();
  if (result != LY_SUCCESS) {
    return -1;
  }
  *ret_floor = floor;
  return 0;
}

int bench_redis_floor(const std::string &socket, int db, bench_redis_floor_t *ret_floor)
{
  redis_connection_ptr redis(redis_connect(socket.c_str()));
  std::vector<std::string> keys;
  if (redis == nullptr || redis_select(redis.get(), db) != 0 || redis_scan(redis.get(), "*", &keys) != 0) {
    return -1;
  }
  bench_redis_floor_t floor;
  redis_batch_ptr batch(redis_batch_create());
  for (const std::string &key : keys) {
    redis_batch_add(batch.get(), {"HGETALL", key});
  }
  bench_watch read;
  // The few lists among the keys answer with an error and do not count.
  int result = redis_batch_run(redis.get(), batch.get(), [&floor](size_t, const redisReply *reply) {
    floor.hashes += redis_reply_is_error(reply) ? 0 : 1;
  });
  floor.read_ms = read.ms();
  if (result != 0) {
    return -1;
  }
  *ret_floor = floor;
  return 0;
}

double bench_message_floor(int socks)
{
  std::vector<int> ours;
  std::vector<int> theirs;
  for (int i = 0; i < socks; ++i) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
      break;
    }
    ours.push_back(pair[0]);
    theirs.push_back(pair[1]);
  }
  bench_plugin_host host;
  int result = host.start_on(theirs);
  plugin_msg_head_t head = {PLUGIN_MSG_MAGIC, sizeof(CHANGE) - 1, 1, 0};
  const std::string frame = std::string(reinterpret_cast<const char *>(&head), sizeof(head)) + CHANGE;
  bench_watch watch;
  for (size_t i = 0; i < MESSAGES && result == 0 && !ours.empty(); ++i) {
    result = send_and_await(ours[i % ours.size()], frame);
  }
  const double ms = watch.ms();
  result |= host.pause();
  for (int sock : ours) {
    close(sock);
  }
  return result == 0 && ours.size() == static_cast<size_t>(socks) ? ms * 1000 / MESSAGES : -1;
}
