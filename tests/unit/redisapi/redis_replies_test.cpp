// The replies of batches: every kind, nested, and larger than what the arena keeps.
#include "libredisapi/redisapi.h"

#include <gtest/gtest.h>

#include "support/redis_server.h"

namespace {

std::string text_of(const redisReply *reply)
{
  return {reply->str, reply->len};
}

TEST(redis_batch_replies, nested_and_large_replies_are_whole_and_single_commands_still_own_theirs)
{
  support::temp_dir dir;
  support::redis_server server(dir.path(), support::redis_data::kept);
  redis_connection_ptr connection(redis_connect(server.socket_path().c_str()));
  ASSERT_NE(connection, nullptr);
  const std::string large(300000, 'x');
  redis_batch_ptr batch(redis_batch_create());
  redis_batch_add(batch.get(), {"EVAL", "return {1, {'a', false, {}}, redis.status_reply('fine')}", "0"});
  redis_batch_add(batch.get(), {"SET", "large", large});
  redis_batch_begin(batch.get(), 4);
  for (const char *word : {"MGET", "large", "missing", "large"}) {
    redis_batch_word(batch.get(), word);
  }
  redis_batch_add(batch.get(), {"GET", "missing"});
  redis_reply_ptr own;
  ASSERT_EQ(redis_batch_run(connection.get(), batch.get(),
                            [&](size_t index, const redisReply *reply) {
                              if (index == 0) {
                                ASSERT_EQ(reply->elements, 3U);
                                EXPECT_EQ(reply->element[0]->integer, 1);
                                const redisReply *inner = reply->element[1];
                                ASSERT_EQ(inner->elements, 3U);
                                EXPECT_EQ(text_of(inner->element[0]), "a");
                                EXPECT_EQ(inner->element[1]->type, REDIS_REPLY_NIL);
                                EXPECT_EQ(inner->element[2]->elements, 0U);
                                EXPECT_EQ(text_of(reply->element[2]), "fine");
                              } else if (index == 2) {
                                ASSERT_EQ(reply->elements, 3U);
                                EXPECT_EQ(text_of(reply->element[0]), large);
                                EXPECT_EQ(reply->element[1]->type, REDIS_REPLY_NIL);
                                EXPECT_EQ(text_of(reply->element[2]), large);
                              } else if (index == 3) {
                                EXPECT_EQ(reply->type, REDIS_REPLY_NIL);
                              }
                            }),
            0);
  own = redis_command(connection.get(), {"GET", "large"});
  redis_batch_add(batch.get(), {"SET", "large", "small"});
  ASSERT_EQ(redis_batch_run_atomic(connection.get(), batch.get()), 0);
  EXPECT_EQ(text_of(own.get()), large); // not touched by the batch
}

TEST(redis_batch_replies, server_lost_in_the_middle_of_a_batch_fails_it_and_the_next_one_works)
{
  support::temp_dir dir;
  support::redis_server server(dir.path(), support::redis_data::kept);
  redis_connection_ptr connection(redis_connect(server.socket_path().c_str()));
  ASSERT_NE(connection, nullptr);
  redis_batch_ptr batch(redis_batch_create());
  for (int i = 0; i < 3000; i++) {
    redis_batch_add(batch.get(), {"LRANGE", "none", "0", "-1"});
  }
  size_t answered = 0;
  EXPECT_EQ(redis_batch_run(connection.get(), batch.get(),
                            [&](size_t, const redisReply *) {
                              if (answered++ == 700) {
                                server.kill_now();
                              }
                            }),
            -1);
  EXPECT_LT(answered, 3000U);
  server.start();
  redis_batch_add(batch.get(), {"PING"});
  EXPECT_EQ(redis_batch_run(connection.get(), batch.get(), [](size_t, const redisReply *) {}), 0);
}

} // namespace
