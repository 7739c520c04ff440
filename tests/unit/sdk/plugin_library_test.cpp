// The plugin library against a daemon that the test plays, message by message.
#include <future>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "client/client.h"
#include "libconf/plugin_message.h"
#include "libconf/unique_fd.h"
#include "support/environment.h"
#include "ymgr/plugin.h"

namespace {

const std::string OK = "<result/>";
const std::string NODE = "/m:top/list[key=\"a\"]";
const std::string INPUT = "<run xmlns=\"urn:m\">&amp;</run>";
const std::string OUTPUT = "<out xmlns=\"urn:m\">&lt;</out>";

bool is_readable(int fd, int milliseconds = static_cast<int>(support::DEADLINE.count()))
{
  pollfd event = {fd, POLLIN, 0};
  return poll(&event, 1, milliseconds) == 1;
}

std::string frame(const std::string &xml)
{
  return ymgr_frame(xml, 1);
}

std::string request(const std::string &method, int callback, int id, const std::string &params)
{
  return frame("<rpc><method>" + method + "</method><params><session-id>3</session-id><callback>" +
               std::to_string(callback) + "</callback>" + params + "</params><id>" + std::to_string(id) +
               "</id></rpc>");
}

std::string change(int callback, int id)
{
  return request(
      "publish", callback, id,
      "<type>config</type><info><oper-type>4</oper-type><priority>10</priority><more-flag>1</more-flag><path>" + NODE +
          "</path></info>");
}

std::string operation(int id)
{
  return request("publish", 2, id, "<type>operate</type><info>" + INPUT + "</info>");
}

std::string reply(const std::string &content, int id)
{
  return "<reply>" + content + "<id>" + std::to_string(id) + "</id></reply>";
}

int id_of(const std::string &xml)
{
  return plugin_get_msgid(plugin_root_of(plugin_parse_message(xml)));
}

class plugin_library : public testing::Test {
protected:
  plugin_library()
  {
    ymgr_plugin_set_run_dir(plugin.get(), dir.path().c_str());
    ymgr_plugin_set_log(plugin.get(), [](int, const char *) {});
    EXPECT_EQ(ymgr_plugin_on_config(plugin.get(), "/m:top/m:list[key='x']", 10, on_change, this), 0);
    EXPECT_EQ(ymgr_plugin_on_rpc(plugin.get(), "/m:run", on_rpc, this), 0);
    sockaddr_un address = {AF_UNIX, {}};
    (dir / "plugin.sock").copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener.get(), 4), 0);
  }

  static int on_change(ymgr_plugin_t *, const ymgr_change_t *change, void *test)
  {
    auto *self = static_cast<plugin_library *>(test);
    self->calls.push_back(std::to_string(change->oper_type) + std::to_string(change->more) + change->path);
    return self->act();
  }
  static int on_rpc(ymgr_plugin_t *, int session_id, const char *input, char **ret_output, void *test)
  {
    static_cast<plugin_library *>(test)->calls.push_back(std::to_string(session_id) + input);
    *ret_output = strdup(OUTPUT.c_str());
    return 0;
  }

  int process() { return ymgr_plugin_process(plugin.get()); }
  void send_bytes(const std::string &bytes)
  {
    ASSERT_EQ(send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  std::string receive() // the plugin's next message
  {
    plugin_msg_head_t head = {};
    if (!is_readable(peer.get()) || recv(peer.get(), &head, sizeof(head), MSG_WAITALL) != sizeof(head)) {
      return "";
    }
    std::string text(head.length, ' ');
    return recv(peer.get(), text.data(), text.size(), MSG_WAITALL) == ssize_t{head.length} ? text : "";
  }
  std::string exchange(const std::string &bytes)
  {
    send_bytes(bytes);
    EXPECT_EQ(process(), 0);
    return receive();
  }
  void connect() // until the kickoff is answered
  {
    while (!is_readable(listener.get(), 0)) {
      EXPECT_EQ(process(), 0);
      is_readable(ymgr_plugin_fd(plugin.get()), 20);
    }
    peer.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    registration = receive();
    activation = exchange(frame(reply(OK, id_of(registration))));
    send_bytes(frame(reply(OK, id_of(activation))));
    EXPECT_EQ(exchange(request("kickoff", 0, 1, "")), reply(OK, 1));
  }

  support::temp_dir dir;
  unique_fd listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  unique_fd peer;
  std::string registration;
  std::string activation;
  std::vector<std::string> calls;
  std::function<int()> act = [] { return 0; }; // what the configuration callback does
  std::unique_ptr<ymgr_plugin_t, decltype(&ymgr_plugin_free)> plugin{ymgr_plugin_new("test"), ymgr_plugin_free};
};

TEST_F(plugin_library, takes_frames_that_are_cut_anywhere)
{
  connect();
  EXPECT_NE(
      registration.find("<config-subscribe><path>/m:top/list</path><priority>10</priority><callback>1</callback>"),
      std::string::npos);
  EXPECT_EQ(activation.find("with-smooth"), std::string::npos);
  std::string bytes = change(1, 7) + operation(8);
  for (size_t cut = 0; cut < bytes.size(); cut++) {
    calls.clear();
    send_bytes(bytes.substr(0, cut));
    ASSERT_EQ(process(), 0);
    send_bytes(bytes.substr(cut));
    ASSERT_EQ(process(), 0);
    ASSERT_EQ(receive(), reply(OK, 7));
    ASSERT_EQ(receive(), reply("<result>" + OUTPUT + "</result>", 8));
    ASSERT_EQ(calls, (std::vector<std::string>{"41" + NODE, "3" + INPUT}));
  }
}

TEST_F(plugin_library, request_that_comes_during_a_pull_is_served_after_it)
{
  connect();
  act = [this] {
    char *value = nullptr;
    int result = ymgr_plugin_pull_value(plugin.get(), (NODE + "/x:key").c_str(), YMGR_OLD, &value);
    calls.emplace_back(value);
    free(value);
    return result;
  };
  auto answer_pull = [this] {
    std::string asked = receive();
    EXPECT_NE(asked.find("/x:key</path><old>1</old>"), std::string::npos) << asked;
    // Another module added a leaf that has the name of the key.
    send_bytes(
        operation(8) +
        frame(reply(
            "<result><top xmlns=\"urn:m\"><list><key>a</key><key xmlns=\"urn:x\"> v&lt; </key></list></top></result>",
            id_of(asked))));
  };
  send_bytes(change(1, 7));
  auto inside = std::async(std::launch::async, [this] { return process(); });
  answer_pull();
  EXPECT_EQ(inside.get(), 0);
  EXPECT_EQ(receive(), reply(OK, 7));
  EXPECT_EQ(receive(), reply("<result>" + OUTPUT + "</result>", 8));
  EXPECT_EQ(calls, (std::vector<std::string>{"41" + NODE, " v< ", "3" + INPUT}));

  EXPECT_EQ(process(), 0);
  EXPECT_FALSE(is_readable(ymgr_plugin_fd(plugin.get()), 0));
  auto outside = std::async(std::launch::async, act);
  answer_pull();
  EXPECT_EQ(outside.get(), 0);
  EXPECT_EQ(calls.size(), 4u);
  ASSERT_TRUE(is_readable(ymgr_plugin_fd(plugin.get()), 0)) << "nothing would make the application serve it";
  EXPECT_EQ(process(), 0);
  EXPECT_EQ(receive(), reply("<result>" + OUTPUT + "</result>", 8));
}

TEST_F(plugin_library, every_request_is_answered_once)
{
  connect();
  int deferred = 0;
  act = [this] { return ymgr_plugin_reject(plugin.get(), 7, "no <such> \x01"); };
  EXPECT_NE(exchange(change(1, 2)).find("<error><code>7</code>"), std::string::npos);
  act = []() -> int { throw 1; };
  EXPECT_NE(exchange(change(1, 3)).find("<error><code>-1</code>"), std::string::npos);
  EXPECT_NE(exchange(change(2, 4)).find("<error>"), std::string::npos) << "that number is of another kind";
  EXPECT_NE(exchange(request("unheard-of", 1, 5, "")).find("<error>"), std::string::npos);

  act = [&] { return (deferred = ymgr_plugin_defer(plugin.get())) > 0 ? 0 : -1; };
  send_bytes(change(1, 6));
  EXPECT_EQ(process(), 0);
  EXPECT_FALSE(is_readable(peer.get(), 0));
  EXPECT_EQ(ymgr_plugin_answer(plugin.get(), deferred, nullptr), 0);
  EXPECT_EQ(receive(), reply(OK, 6));
  EXPECT_EQ(ymgr_plugin_answer(plugin.get(), deferred, nullptr), -1);
  send_bytes(change(1, 7));
  EXPECT_EQ(process(), 0);
  act = [] { return 0; };
  EXPECT_EQ(exchange(change(1, 8)), reply(OK, 8));
  EXPECT_EQ(ymgr_plugin_answer_error(plugin.get(), deferred, 1, "late"), -1) << "the daemon has given 7 up";
  EXPECT_FALSE(is_readable(peer.get(), 0));
}

TEST_F(plugin_library, lost_connection_is_made_again)
{
  connect();
  int descriptor = ymgr_plugin_fd(plugin.get());
  act = [this] {
    char *xml = nullptr;
    EXPECT_EQ(ymgr_plugin_pull(plugin.get(), "/m:top", YMGR_NEW, &xml), -1);
    EXPECT_STRNE(ymgr_plugin_error(plugin.get()), "");
    return 0;
  };
  send_bytes(change(1, 7));
  auto processed = std::async(std::launch::async, [this] { return process(); });
  EXPECT_NE(receive().find("<method>pull</method>"), std::string::npos);
  peer.reset();
  EXPECT_EQ(processed.get(), 0);
  for (std::string_view garbage :
       {std::string_view("GET / HTTP/1.1"), std::string_view("\xff\xba\xdc\xfe\xff\xff\xff\xff\1\0\0\0", 12)}) {
    EXPECT_EQ(ymgr_plugin_is_ready(plugin.get()), 0);
    connect();
    EXPECT_NE(registration.find("<method>register</method>"), std::string::npos)
        << "the answer went with the connection";
    EXPECT_NE(activation.find("<with-smooth>1</with-smooth>"), std::string::npos);
    EXPECT_NE(ymgr_plugin_is_ready(plugin.get()), 0);
    send_bytes(std::string(garbage));
    EXPECT_EQ(process(), 0);
  }
  EXPECT_EQ(ymgr_plugin_is_ready(plugin.get()), 0);
  EXPECT_EQ(ymgr_plugin_fd(plugin.get()), descriptor);
}

TEST_F(plugin_library, refused_registration_ends_the_run_with_the_reason)
{
  auto run = std::async(std::launch::async, [this] { return ymgr_plugin_run(plugin.get()); });
  ASSERT_TRUE(is_readable(listener.get()));
  peer.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  send_bytes(frame(reply("<error><code>-1</code><message>Unknown path /m:top.</message></error>", id_of(receive()))));
  peer.reset(); // what was sent before the end counts
  EXPECT_EQ(run.get(), -1);
  EXPECT_STREQ(ymgr_plugin_error(plugin.get()), "Unknown path /m:top.");
}

} // namespace
