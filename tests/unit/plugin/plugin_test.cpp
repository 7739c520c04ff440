// Plugins whose connection or patience ends. Time is moved by setting deadlines back.
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "libconf/conf_service.h"
#include "unit/differ_tree/differ_builder.h"
#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/rpc/session.h"

namespace {

using texts_t = std::vector<std::string>;

class plugin_life : public testing::Test {
protected:
  void SetUp() override
  {
    char dir[] = "/tmp/ymgr-plugin.XXXXXX";
    dir_ = mkdtemp(dir);
    conf_set_run_dir(dir_.c_str());
    log_open(LOG_TO_STDERR, LOG_LEVEL_ERROR);
    ly_ctx *made = nullptr;
    ASSERT_EQ(LY_SUCCESS, ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY, &made));
    ctx_.reset(made);
    differ_tree_set_ctx(made);
    ASSERT_EQ(0, context_init(STAGE_RESOURCE) | context_create_list("LIST-session", 1) | broker_init(STAGE_RESOURCE));
    epfd_.reset(epoll_create1(EPOLL_CLOEXEC));
    ASSERT_EQ(0, context_save_int("OPT-ymgrd-epfd", epfd_.get()));
    ASSERT_EQ(0, plugin_init(STAGE_RESOURCE) | plugin_init(STAGE_KICKOFF));
    changes_ = list({node(R"(/m:l[k="a"])", DBDIFF_ADD), node(R"(/m:l[k="b"])", DBDIFF_ADD)});
    ended = 0;
    broker_hooks_t hooks = {};
    hooks.publish_config = plugin_publish_config;
    hooks.plugin_id = plugin_get_id;
    hooks.plugin_name = plugin_get_name;
    hooks.given_up = plugin_given_up;
    hooks.kickoff = plugin_kickoff;
    hooks.publish_ended = [](int, reply_error_ptr gathered) {
      errors.clear();
      for (const reply_error_t *error = gathered.get(); error != nullptr; error = error->next) {
        errors.insert(errors.begin(), error->message);
      }
      ended++;
      return 0;
    };
    static differ_node_t *restored = nullptr;
    restored = changes_;
    hooks.get_cfgr_differ = [](const differ_interest_fn &, differ_node_t **ret_tree) {
      *ret_tree = restored;
      return 0;
    };
    hooks.free_cfgr_differ = [] {};
    broker_set_hooks(hooks);
  }

  void TearDown() override
  {
    plugin_exit();
    broker_exit();
    context_exit();
    free_differ_tree(changes_);
    std::filesystem::remove_all(dir_);
  }

  // Deals with all that the sockets hold.
  void run() const
  {
    epoll_event event = {};
    (void)plugin_service_wakeup(EPOLLIN);
    while (epoll_wait(epfd_.get(), &event, 1, 0) == 1) {
      (void)plugin_inst_wakeup(static_cast<int>(event.data.u32 & 0xffffU), event.events);
    }
    broker_run_pending();
  }

  // A plugin that has all of the configuration, and is ready.
  unique_fd connect_plugin(const std::string &name, int priority)
  {
    unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (void)(dir_ + "/plugin.sock").copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(0, connect(sock.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)));
    write(sock, 1,
          "<rpc><method>register</method><params><plugin-name>" + name +
              "</plugin-name><config-subscribe><path>/</path><priority>" + std::to_string(priority) +
              "</priority><callback>7</callback></config-subscribe></params><id>1</id></rpc>");
    write(sock, 2, "<rpc><method>activate</method><params><with-cfgr/></params><id>2</id></rpc>");
    run();
    EXPECT_EQ(texts_t({"reply", "reply", "16385 a"}), read(sock));
    answer(sock, 1);
    answer(sock, 2);
    EXPECT_EQ(texts_t({"16385 b", "kickoff"}), read(sock));
    answer(sock, 3);
    return sock;
  }

  static void write(const unique_fd &sock, uint16_t id, const std::string &text)
  {
    plugin_msg_head_t head = {PLUGIN_MSG_MAGIC, static_cast<uint32_t>(text.size()), id, 0};
    std::string bytes = std::string(reinterpret_cast<const char *>(&head), sizeof(head)) + text;
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(sock.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  void answer(const unique_fd &sock, int id) const
  {
    write(sock, static_cast<uint16_t>(id), "<reply><result/><id>" + std::to_string(id) + "</id></reply>");
    run();
  }

  // What has come: "reply", "kickoff", or "OPER-TYPE KEY" of a changed entry.
  static texts_t read(const unique_fd &sock)
  {
    texts_t texts;
    plugin_msg_head_t head = {};
    while (recv(sock.get(), &head, sizeof(head), 0) == static_cast<ssize_t>(sizeof(head))) {
      std::string text(head.length, '\0');
      EXPECT_EQ(static_cast<ssize_t>(head.length), recv(sock.get(), text.data(), head.length, 0));
      plugin_doc_ptr message = plugin_parse_message(text);
      const xmlNode *params = plugin_find_element(plugin_root_of(message), "params");
      const xmlNode *info = params == nullptr ? nullptr : plugin_find_element(params, "info");
      texts.push_back(params == nullptr ? "reply"
                      : info == nullptr ? *plugin_child_text(plugin_root_of(message), "method")
                                        : *plugin_child_text(info, "oper-type") + " " +
                                              plugin_child_text(info, "path")->substr(8, 1));
    }
    return texts;
  }

  static texts_t errors; // of the publication that has ended last
  static int ended;
  differ_node_t *changes_ = nullptr;

private:
  std::string dir_;
  ly_ctx_ptr ctx_;
  unique_fd epfd_;
};
texts_t plugin_life::errors;
int plugin_life::ended = 0;

} // namespace

TEST_F(plugin_life, overdue_plugin_holds_up_nobody_and_is_restored_when_it_is_back)
{
  unique_fd slow = connect_plugin("slow", 1);
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_ROLLBACK, changes_));
  answer(slow, 4);
  EXPECT_EQ(texts_t({"1 a", "1 b"}), read(slow));
  plugin_find_by_name("slow")->remote.tm_rpc = 1;
  plugin_timeout();
  EXPECT_EQ(texts_t({"Wait message reply timeout."}), errors);
  EXPECT_EQ(texts_t({"32769 a"}), read(slow)); // told, but not waited for
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_STOP, changes_));
  EXPECT_EQ(texts_t({"Plugin slow does not answer"}), errors);
  EXPECT_EQ(texts_t(), read(slow));
  answer(slow, 5); // too late
  EXPECT_EQ(texts_t({"16385 a"}), read(slow));
  answer(slow, 7);
  answer(slow, 8);
  answer(slow, 9);
  EXPECT_EQ(texts_t({"16385 b", "kickoff"}), read(slow));
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_STOP, changes_));
  answer(slow, 10);
  answer(slow, 11);
  EXPECT_EQ(texts_t(), errors);
  EXPECT_EQ(3, ended);
}

TEST_F(plugin_life, lost_plugin_fails_its_change_at_once_and_others_take_theirs_back)
{
  unique_fd first = connect_plugin("first", 1);
  unique_fd second = connect_plugin("second", 2);
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_ROLLBACK, changes_));
  answer(first, 4);
  answer(first, 5);
  EXPECT_EQ(texts_t({"1 a"}), read(second));
  second.reset();
  run();
  EXPECT_EQ(texts_t({"1 a", "1 b", "32769 b"}), read(first));
  EXPECT_EQ(nullptr, plugin_find_by_name("second"));
  first.reset(); // while it takes back
  run();
  EXPECT_EQ(texts_t({R"(Plugin second has gone while it was offered /m:l[k="a"])"}), errors);
}

TEST_F(plugin_life, change_waits_for_a_kickoff_and_message_ids_skip_zero)
{
  unique_fd plugin = connect_plugin("plugin", 1);
  plugin_inst_t *inst = plugin_find_by_name("plugin");
  inst->remote.rpc_id = 65535;
  plugin_kickoff(inst);
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_STOP, changes_));
  EXPECT_EQ(texts_t({"kickoff"}), read(plugin));
  answer(plugin, 65535);
  answer(plugin, 1);
  answer(plugin, 2);
  EXPECT_EQ(texts_t({"1 a", "1 b"}), read(plugin));
  EXPECT_EQ(texts_t(), errors);
  EXPECT_EQ(1, ended);
}
