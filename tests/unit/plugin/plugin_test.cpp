// Plugins that do not answer in time. Time is moved by setting deadlines back.
#include <chrono>
#include <filesystem>

#include <gtest/gtest.h>
#include <sys/epoll.h>

#include "libconf/conf_service.h"
#include "support/plugin_peer.h"
#include "unit/differ_tree/differ_builder.h"
#include "ymgrd/broker/plugin_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"

namespace {

using texts_t = std::vector<std::string>;

using support::plugin_call_t;

plugin_call_t next_of(support::plugin_peer *peer)
{
  return peer->next(std::chrono::milliseconds(0));
}

class plugin_deadline : public testing::Test {
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
  support::plugin_peer connect_plugin(const std::string &name) const
  {
    support::plugin_peer peer(dir_, name);
    peer.send_text("<rpc><method>register</method><params><plugin-name>" + name +
                       "</plugin-name><config-subscribe><path>/</path><priority>1</priority><callback>7</callback>"
                       "</config-subscribe></params><id>1</id></rpc>",
                   1);
    peer.send_text("<rpc><method>activate</method><params><with-cfgr/></params><id>2</id></rpc>", 2);
    run();
    EXPECT_EQ(texts_t({"reply", "reply", "16385 a"}), read(&peer));
    answer(&peer, 1);
    answer(&peer, 2);
    EXPECT_EQ(texts_t({"16385 b", "kickoff"}), read(&peer));
    answer(&peer, 3);
    return peer;
  }
  void answer(support::plugin_peer *peer, int id) const
  {
    peer->accept({"", id, ""});
    run();
  }

  // What has come: "reply", "kickoff", or "OPER-TYPE KEY" of a changed entry.
  static texts_t read(support::plugin_peer *peer)
  {
    texts_t texts;
    for (plugin_call_t call = next_of(peer); call.id != 0; call = next_of(peer)) {
      std::string text = call.method.empty() ? "reply" : call.method;
      if (call.method == "publish") { // 1 /m:l[k="a"]
        text = call.change();
        text = text.substr(0, text.find(' ')) + " " + text[text.find('"') + 1];
      }
      texts.push_back(text);
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
texts_t plugin_deadline::errors;
int plugin_deadline::ended = 0;

} // namespace

TEST_F(plugin_deadline, overdue_plugin_holds_up_nobody_and_is_restored_when_it_is_back)
{
  support::plugin_peer slow = connect_plugin("slow");
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_ROLLBACK, changes_));
  answer(&slow, 4);
  EXPECT_EQ(texts_t({"1 a", "1 b"}), read(&slow));
  plugin_find_by_name("slow")->remote.tm_rpc = 1;
  plugin_timeout();
  EXPECT_EQ(texts_t({"Wait message reply timeout."}), errors);
  EXPECT_EQ(texts_t({"32769 a"}), read(&slow)); // told, but not waited for
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_STOP, changes_));
  EXPECT_EQ(texts_t({"Plugin slow does not answer"}), errors);
  EXPECT_EQ(texts_t(), read(&slow));
  answer(&slow, 5); // too late
  EXPECT_EQ(texts_t({"16385 a"}), read(&slow));
  answer(&slow, 7);
  answer(&slow, 8);
  answer(&slow, 9);
  EXPECT_EQ(texts_t({"16385 b", "kickoff"}), read(&slow));
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_STOP, changes_));
  answer(&slow, 10);
  answer(&slow, 11);
  EXPECT_EQ(texts_t(), errors);
  EXPECT_EQ(3, ended);
}

TEST_F(plugin_deadline, change_waits_for_a_kickoff_and_message_ids_skip_zero)
{
  support::plugin_peer plugin = connect_plugin("plugin");
  plugin_inst_t *inst = plugin_find_by_name("plugin");
  inst->remote.rpc_id = 65535;
  plugin_kickoff(inst);
  ASSERT_EQ(0, broker_publish_config(9, ERROR_OPTION_STOP, changes_));
  EXPECT_EQ(texts_t({"kickoff"}), read(&plugin));
  answer(&plugin, 65535);
  answer(&plugin, 1);
  answer(&plugin, 2);
  EXPECT_EQ(texts_t({"1 a", "1 b"}), read(&plugin));
  EXPECT_EQ(texts_t(), errors);
  EXPECT_EQ(1, ended);
}
