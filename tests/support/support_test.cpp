#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include "support/environment.h"
#include "support/netconf_session.h"
#include "support/redis_server.h"

namespace {

using namespace support;

TEST(support_redis, dump_shows_every_type_and_odd_bytes)
{
  temp_dir dir;
  redis_server redis(dir.path());
  redis.command(4, {"HSET", "/m", "b", "2", "a", std::string("\0\\", 2)});
  redis.command(4, {"RPUSH", "/l", "z", "y"});
  redis.command(4, {"SET", "s", "\xc3\xa4"});
  EXPECT_EQ(redis.dump(4), "list /l\n  z\n  y\nhash /m\n  a = \\x00\\\\\n  b = 2\nstring s\n  \\xc3\\xa4\n");
  EXPECT_EQ(redis.dump(5), "");
  EXPECT_THROW(redis.command(4, {"HGET", "/l", "x"}), std::runtime_error);
}

TEST(support_redis, kept_data_survives_a_crash)
{
  temp_dir dir;
  redis_server redis(dir.path(), redis_data::kept);
  redis.command(1, {"SET", "k", "v"});
  redis.kill_now();
  EXPECT_THROW(redis.command(1, {"GET", "k"}), std::runtime_error);
  redis.start();
  EXPECT_EQ(redis.command(1, {"GET", "k"}), std::vector<std::string>{"v"});
  redis.stop();
}

TEST(support_process, reports_how_a_child_ended)
{
  temp_dir dir;
  child_process child;
  ASSERT_TRUE(child.start({"sh", "-c", "echo out; echo err >&2; exit 3"}, dir / "log"));
  EXPECT_EQ(WEXITSTATUS(child.wait().value_or(-1)), 3);
  EXPECT_EQ(read_file(dir / "log"), "out\nerr\n");
  ASSERT_TRUE(child.start({"sleep", "100"}, dir / "log"));
  EXPECT_FALSE(child.wait(std::chrono::milliseconds(20)));
  child.signal(SIGTERM);
  EXPECT_EQ(WTERMSIG(child.wait().value_or(0)), SIGTERM);
}

TEST(support_xml, equal_documents_have_one_form)
{
  EXPECT_EQ(normalize("<p:a xmlns:p='u' x='1' b='2'>\n <p:b>t</p:b><c xmlns='v'/></p:a>"),
            normalize("<a b='2' x='1' xmlns='u'><b>t</b> <c xmlns='v'></c></a>"));
  EXPECT_NE(normalize("<a xmlns='u'/>"), normalize("<a xmlns='v'/>"));
  EXPECT_NE(normalize("<a><b/><c/></a>"), normalize("<a><c/><b/></a>"));
  EXPECT_EQ(normalize("<a><b/><c/></a>", siblings::sorted), normalize("<a><c/><b/></a>", siblings::sorted));
  EXPECT_EQ(reply_data("<rpc-reply xmlns='n'><data><a xmlns='u'>1</a></data></rpc-reply>"),
            normalize("<a xmlns='u'>1</a>"));
}

TEST(support_xml, the_first_error_of_a_reply_is_found)
{
  std::string reply = "<rpc-reply><rpc-error><error-tag>in-use</error-tag><error-message>m</error-message></rpc-error>"
                      "<rpc-error><error-tag>other</error-tag></rpc-error></rpc-reply>";
  EXPECT_EQ(find_error(reply)->tag, "in-use");
  EXPECT_EQ(find_error(reply)->app_tag, "");
  EXPECT_FALSE(is_ok(reply));
  EXPECT_FALSE(find_error("<rpc-reply><ok/></rpc-reply>"));
  EXPECT_TRUE(is_ok("<rpc-reply><ok/></rpc-reply>"));
}

} // namespace
