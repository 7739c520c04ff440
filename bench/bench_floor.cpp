#include "bench_floor.h"

#include <cstdio>

#include "bench_clock.h"
#include "libredisapi/redisapi.h"
#include "ymgrd/core/handles.h"

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
