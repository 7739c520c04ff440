#include "libredisapi/redisapi.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "support/redis_server.h"

namespace {

std::vector<std::string> g_log;

class redisapi : public testing::Test {
protected:
  void SetUp() override
  {
    g_log.clear();
    redis_set_logger([](const char *text) { g_log.emplace_back(text); });
    connection_.reset(redis_connect(server_.socket_path().c_str()));
    ASSERT_NE(connection_, nullptr);
    ASSERT_EQ(redis_select(connection_.get(), 4), 0);
  }
  void TearDown() override { redis_set_logger(nullptr); }

  rContext *connection() { return connection_.get(); }
  static std::string text_of(const redisReply *reply) { return {reply->str, reply->len}; }

  support::temp_dir dir_;
  support::redis_server server_{dir_.path(), support::redis_data::kept};
  redis_connection_ptr connection_;
};

TEST_F(redisapi, batch_larger_than_a_window_is_answered_in_order_and_binary_safe)
{
  constexpr size_t COMMANDS = 2000;
  const std::string value("a\0b\r\n\"*", 8);
  redis_batch_ptr batch(redis_batch_create());
  for (size_t i = 0; i < COMMANDS; i++) {
    redis_batch_add(batch.get(), {"RPUSH", "list", value});
  }
  redis_batch_add(batch.get(), {"LRANGE", "list", "-1", "-1"});
  size_t answered = 0;
  std::string last;
  ASSERT_EQ(redis_batch_run(connection(), batch.get(),
                            [&](size_t index, const redisReply *reply) {
                              EXPECT_EQ(index, answered++);
                              EXPECT_TRUE(index == COMMANDS || reply->integer == static_cast<long long>(answered));
                              last = index < COMMANDS ? "" : text_of(reply->element[0]);
                            }),
            0);
  EXPECT_EQ(answered, COMMANDS + 1);
  EXPECT_EQ(last, value);
  EXPECT_EQ(redis_batch_size(batch.get()), 0U);
}

TEST_F(redisapi, nested_and_large_replies_are_whole_and_single_commands_still_own_theirs)
{
  const std::string large(300000, 'x');
  redis_batch_ptr batch(redis_batch_create());
  redis_batch_add(batch.get(), {"EVAL", "return {1, {'a', false, {}}, redis.status_reply('fine')}", "0"});
  redis_batch_add(batch.get(), {"SET", "large", large});
  redis_batch_begin(batch.get(), 4);
  for (const char *word : {"MGET", "large", "missing", "large"}) {
    redis_batch_word(batch.get(), word);
  }
  auto look_at = [&](size_t index, const redisReply *reply) {
    if (index == 1) {
      return;
    }
    ASSERT_EQ(reply->elements, 3U);
    if (index == 0) {
      const redisReply *inner = reply->element[1];
      ASSERT_EQ(inner->elements, 3U);
      EXPECT_EQ(reply->element[0]->integer, 1);
      EXPECT_EQ(text_of(inner->element[0]), "a");
      EXPECT_EQ(inner->element[1]->type, REDIS_REPLY_NIL);
      EXPECT_EQ(inner->element[2]->elements, 0U);
      EXPECT_EQ(text_of(reply->element[2]), "fine");
    } else {
      EXPECT_EQ(text_of(reply->element[0]), large);
      EXPECT_EQ(reply->element[1]->type, REDIS_REPLY_NIL);
      EXPECT_EQ(text_of(reply->element[2]), large);
    }
  };
  ASSERT_EQ(redis_batch_run(connection(), batch.get(), look_at), 0);
  redis_reply_ptr own = redis_command(connection(), {"GET", "large"});
  redis_batch_add(batch.get(), {"SET", "large", "small"});
  ASSERT_EQ(redis_batch_run_atomic(connection(), batch.get()), 0);
  EXPECT_EQ(text_of(own.get()), large); // not touched by the batch
}

TEST_F(redisapi, atomic_batch_with_a_refused_command_changes_nothing)
{
  redis_batch_ptr batch(redis_batch_create());
  redis_batch_add(batch.get(), {"SET", "a", "1"});
  redis_batch_add(batch.get(), {"NOSUCHCOMMAND"});
  EXPECT_EQ(redis_batch_run_atomic(connection(), batch.get()), -1);
  EXPECT_EQ(server_.dump(4), "");
  ASSERT_FALSE(g_log.empty());
  EXPECT_NE(g_log.back().find("NOSUCHCOMMAND"), std::string::npos) << g_log.back();

  redis_batch_add(batch.get(), {"SET", "a", "1"});
  redis_batch_add(batch.get(), {"LPUSH", "a", "1"}); // fails when it is executed
  EXPECT_EQ(redis_batch_run_atomic(connection(), batch.get()), -1);
  EXPECT_NE(g_log.back().find("WRONGTYPE"), std::string::npos) << g_log.back();

  redis_batch_add(batch.get(), {"SET", "b", "2"}); // the connection is still good
  EXPECT_EQ(redis_batch_run_atomic(connection(), batch.get()), 0);
}

TEST_F(redisapi, keys_of_glob_characters_are_matched_literally)
{
  const std::vector<std::string> keys = {"/m/l[k=\"*\"]", "/m/l[k=\"?\"]", "/m/l[k=\"\\\\\"]", "/m/l]", "/m/lx"};
  for (const std::string &key : keys) {
    server_.command(4, {"SET", key, key});
  }
  for (const std::string &key : keys) {
    std::vector<std::string> found;
    ASSERT_EQ(redis_scan(connection(), redis_escape_glob(key), &found), 0);
    EXPECT_EQ(found, std::vector<std::string>{key});
  }
  ASSERT_EQ(redis_copyimprove(connection(), redis_escape_glob("/m/l[") + "*", 4, 5), 0);
  ASSERT_EQ(redis_del_tree(connection(), redis_escape_glob("/m/l[") + "*"), 0);
  EXPECT_EQ(server_.command(5, {"DBSIZE"}).front(), "3");
  EXPECT_EQ(server_.command(4, {"DBSIZE"}).front(), "2");
}

TEST_F(redisapi, lost_server_fails_commands_and_batches_and_the_connection_works_again_after_its_return)
{
  ASSERT_EQ(redis_hash_set_bin_safe(connection(), "h", "f", "v"), 0);
  redis_batch_ptr batch(redis_batch_create());
  for (int i = 0; i < 3000; i++) {
    redis_batch_add(batch.get(), {"LRANGE", "none", "0", "-1"});
  }
  size_t answered = 0;
  auto kill_in_the_middle = [&](size_t, const redisReply *) {
    if (answered++ == 700) {
      server_.kill_now();
    }
  };
  EXPECT_EQ(redis_batch_run(connection(), batch.get(), kill_in_the_middle), -1);
  EXPECT_LT(answered, 3000U);
  EXPECT_EQ(redis_command(connection(), {"PING"}), nullptr);
  redis_batch_add(batch.get(), {"SET", "a", "1"});
  EXPECT_EQ(redis_batch_run_atomic(connection(), batch.get()), -1);
  EXPECT_EQ(redis_connect(server_.socket_path().c_str()), nullptr);
  server_.start();
  redis_batch_add(batch.get(), {"PING"});
  EXPECT_EQ(redis_batch_run(connection(), batch.get(), [](size_t, const redisReply *) {}), 0);
  server_.kill_now();
  server_.start();
  redis_reply_ptr reply = redis_hash_get_bin_safe(connection(), "h", "f"); // in the database selected before
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(text_of(reply.get()), "v");
}

TEST_F(redisapi, save_waits_for_a_background_save)
{
  for (int i = 0; i < 50; i++) {
    server_.command(4, {"SET", "k" + std::to_string(i), std::string(100000, 'x')});
  }
  server_.command(4, {"CONFIG", "SET", "rdb-key-save-delay", "5000"});
  server_.command(4, {"BGSAVE"});
  EXPECT_EQ(redis_savedb_improve(connection()), 0);
}

TEST(redisapi_address, wrong_addresses_are_refused_with_a_reason)
{
  g_log.clear();
  redis_set_logger([](const char *text) { g_log.emplace_back(text); });
  for (const std::string address : {"", "tcp:", "tcp:host", "tcp::1", "tcp:localhost:99999", "tcp:localhost:1x"}) {
    EXPECT_EQ(redis_connect(address.c_str()), nullptr) << address;
  }
  EXPECT_EQ(redis_connect(std::string(200, 'a').c_str()), nullptr);
  EXPECT_EQ(g_log.size(), 7U);
  redis_set_logger(nullptr);
}

} // namespace
