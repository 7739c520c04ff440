// What plugins read and push, and what they are told after a kill, against a Redis server.
#include <functional>

#include "libconf/plugin_message.h"
#include "unit/edit/edit_fixture.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_plugin_data.h"
#include "ymgrd/datastore/ds_restore.h"

namespace {

const char plugin_module[] = R"(
module sample {
  yang-version 1.1; namespace "urn:sample"; prefix s; revision 2026-01-01;
  container top {
    leaf name { type string; }
    list item { key k; ordered-by user; leaf k { type string; } leaf v { type uint8; }
      container stats { config false; leaf packets { type uint32; } } }
    leaf-list tag { type string; ordered-by user; }
    list pair { key "a b"; leaf a { type string; } leaf b { type uint8; } }
    choice way { case left { leaf side { type string; } } }
    container state { config false; leaf up { type boolean; }
      list row { key i; leaf i { type uint32; } leaf text { type string; } }
      list loose { leaf text { type string; } } }
  }
})";

std::function<void()> on_offer; // what the subscriber does when a change is offered

int offer(int, const plugin_publish_info_t *, int *status)
{
  on_offer();
  *status = SUBPUB_CONTINUE;
  return 0;
}

const std::string CHANGE = "<item nc:operation='delete'><k>a</k></item><item yang:insert='first'><k>d</k></item>"
                           "<item><k>b</k><v>9</v></item>";
const std::string CHANGE_BACK = "<item nc:operation='delete'><k>d</k></item><item yang:insert='first'><k>a</k><v>1</v>"
                                "</item><item><k>b</k><v>2</v></item>";

// Each node's code and last segment, with what is below it.
std::string diff_text(const differ_node_t *tree)
{
  std::string text;
  for (const differ_node_t *node = tree; node != nullptr; node = node->next) {
    std::string path = node->data_path;
    text += std::to_string(node->oper_type) + " " + path.substr(path.find_last_of("/:") + 1) + " ";
    text += node->child == nullptr ? "" : "(" + diff_text(node->child) + ") ";
  }
  return text;
}

class plugin_data : public edit_fixture {
protected:
  const char *module() const override { return plugin_module; }

  void SetUp() override
  {
    edit_fixture::SetUp();
    broker_hooks_t hooks = {};
    hooks.publish_config = offer;
    hooks.publish_ended = datastore_publish_callback;
    hooks.status_ended = ds_get_callback;
    hooks.plugin_id = [](const plugin_inst_t *) { return 1; };
    broker_set_hooks(hooks);
    ASSERT_EQ(0, broker_reg_config_subscriber(nullptr, "/sample:top", 1, {}));
    on_offer = [] {};
    edit("running", "<item><k>a</k><v>1</v></item><item><k>b</k><v>2</v></item><item><k>c</k></item><tag>x</tag>"
                    "<tag>y/'\"</tag><pair><a>p\"'q</a><b>1</b></pair><pair><a>r</a><b>2</b></pair>");
  }

  // The replies find no session.
  static void edit(const std::string &target, const std::string &content)
  {
    (void)run(ds_edit_config, "<edit-config><target><" + target + "/></target><config><top xmlns='urn:sample'>" +
                                  content + "</top></config></edit-config>");
  }
  static int run(oper_handler_fn handler, const std::string &operation)
  {
    std::string base = NETCONF_BASE_NS_1_0;
    std::string text = "<rpc message-id='1' xmlns='" + base + "' xmlns:nc='" + base +
                       "' xmlns:yang='urn:ietf:params:xml:ns:yang:1'>" + operation + "</rpc>";
    lyxml_ptr rpc = lyxml_parse_mem(text);
    return handler(1, text.c_str(), rpc.get());
  }

  // Without the element top.
  static std::string pull(const std::string &path, ds_moment_t moment = DS_NEW)
  {
    wiped_string text;
    std::string error;
    if (ds_plugin_pull(path, moment, &text, &error) != 0) {
      return "error: " + error;
    }
    const std::string head = "<top xmlns=\"urn:sample\">";
    std::string result(text);
    return result.starts_with(head) ? result.substr(head.size(), result.size() - head.size() - 6) : result;
  }
  static std::string around(const std::string &path, ds_moment_t moment = DS_NEW)
  {
    std::string prev;
    std::string next;
    std::string error;
    return ds_plugin_locate(path, moment, &prev, &next, &error) == 0 ? prev + " " + next : "error: " + error;
  }

  static plugin_doc_ptr data_of(const std::string &content)
  {
    return plugin_parse_message(
        "<data>" + (content.empty() ? content : "<top xmlns='urn:sample'>" + content + "</top>") + "</data>");
  }
  static std::string push(int plugin, const std::string &path, const std::string &content)
  {
    std::string error;
    plugin_doc_ptr data = data_of(content);
    std::vector<std::string> published = {"/sample:top/state", "/sample:top/item/stats"};
    return ds_plugin_push(plugin, path, plugin_root_of(data), published, &error) == 0 ? "" : error;
  }
  // The state that the status datastore holds.
  static std::string status(const std::string &path)
  {
    ds_session_db db;
    c_string_ptr text;
    EXPECT_EQ(0, db.open(ENUM_DATASTORE_STATUS));
    EXPECT_EQ(0, ds_get_xmltext(db.hdb(), DB_TFLAG_ABSENT_OK, path.c_str(), &text));
    return text == nullptr ? "" : text.get();
  }
};

} // namespace

TEST_F(plugin_data, pulls_find_what_the_path_names_with_the_way_to_it_from_the_tree_as_from_the_database)
{
  for (bool is_kept : {true, false}) {
    auto pulled = [is_kept](const std::string &path) {
      if (!is_kept) {
        ds_kept_drop();
      }
      return pull(path);
    };
    EXPECT_EQ("<item><k>b</k><v>2</v></item>", pulled("/sample:top/item[k='b']/v"));
    EXPECT_EQ("<item><k>b</k></item>", pulled("/sample:top/sample:item[sample:k=\"b\"]/k"));
    EXPECT_EQ("<tag>x</tag><tag>y/'&quot;</tag>", pulled("/sample:top/tag"));
    EXPECT_EQ("<tag>y/'&quot;</tag>", pulled("/sample:top/tag[.=\"y/'\\\"\"]"));
    EXPECT_EQ("<pair><a>p&quot;'q</a><b>1</b></pair>", pulled("/sample:top/pair[b='01'][a=\"p\\\"'q\"]"));
    EXPECT_EQ("", pulled("/sample:top/item[k='d']/v"));
    EXPECT_EQ("", pulled("/sample:top/item[k='d']/k"));
    EXPECT_EQ("", pulled("/sample:top/way/left/side"));
    EXPECT_EQ(pulled("/"), "<item><k>a</k><v>1</v></item><item><k>b</k><v>2</v></item><item><k>c</k></item>" +
                               pulled("/sample:top/tag") + pulled("/sample:top/pair"));
  }
  for (const char *wrong : {"", "top", "/none:top", "/sample:top/none", "/sample:top/item/v", "/sample:top[k='1']",
                            "/sample:top/item[v='1']", "/sample:top/pair[a='r']", "/sample:top/item[k='a'"}) {
    EXPECT_EQ(0U, pull(wrong).find("error: ")) << wrong;
  }
}

TEST_F(plugin_data, new_and_old_differ_while_a_change_is_handed_out)
{
  int offers = 0;
  on_offer = [&offers] {
    offers++;
    EXPECT_EQ("<item><k>b</k><v>9</v></item>", pull("/sample:top/item[k='b']"));
    EXPECT_EQ("<item><k>b</k><v>2</v></item>", pull("/sample:top/item[k='b']", DS_OLD));
    EXPECT_EQ("", pull("/sample:top/item[k='a']"));
    EXPECT_EQ("<item><k>a</k><v>1</v></item>", pull("/sample:top/item[k='a']/v", DS_OLD));
    EXPECT_EQ("/sample:top/item[k=\"d\"] /sample:top/item[k=\"c\"]", around("/sample:top/item[k='b']"));
    EXPECT_EQ("/sample:top/item[k=\"a\"] /sample:top/item[k=\"c\"]", around("/sample:top/item[k='b']", DS_OLD));
    EXPECT_EQ(" /sample:top/tag[.=\"y/'\\\"\"]", around("/sample:top/tag[.='x']", DS_OLD));
    EXPECT_EQ(0U, around("/sample:top/item[k='a']").find("error: "));
  };
  edit("candidate", CHANGE);
  EXPECT_EQ("<item><k>b</k><v>2</v></item>", pull("/sample:top/item[k='b']")); // not committed
  EXPECT_EQ(" /sample:top/item[k=\"b\"]", around("/sample:top/item[k='a']"));
  (void)run(ds_commit, "<commit/>");
  EXPECT_EQ(1, offers);
  std::function<void()> check = std::exchange(on_offer, [] {});
  edit("running", CHANGE_BACK);
  on_offer = check;
  edit("running", CHANGE);
  EXPECT_EQ(2, offers);
  EXPECT_EQ(pull("/"), pull("/", DS_OLD));
  EXPECT_EQ("/sample:top/item[k=\"b\"] ", around("/sample:top/item[k='c']"));
}

TEST_F(plugin_data, pushed_state_stands_until_it_is_replaced_and_comes_back_with_a_get)
{
  auto get = [] { (void)run(ds_get, "<get><filter><top xmlns='urn:sample'/></filter></get>"); };
  const std::string stats = "/sample:top/item[k=\"a\"]/stats";
  get();
  EXPECT_EQ("", push(1, stats, "<item><k>a</k><stats><packets>1</packets></stats></item>"));
  EXPECT_EQ("", push(1, "/sample:top/state",
                     "<state><up>true</up><row><i>2</i></row><row><i>1</i><text>t</text></row></state>"));
  EXPECT_EQ("", push(2, "/sample:top/state/row[i='2']", "<state><row><i>2</i><text>u</text></row></state>"));
  for (int time = 0; time < 2; time++) {
    EXPECT_EQ("<row><i>2</i><text>u</text></row><row><i>1</i><text>t</text></row>", status("/sample:top/state/row"));
    EXPECT_EQ("<item><k>a</k><v>1</v><stats><packets>1</packets></stats></item>", status("/sample:top/item[k=\"a\"]"));
    get();
  }
  EXPECT_EQ("", push(1, "/sample:top/state/row", "<state><row><i>3</i></row></state>"));
  EXPECT_EQ("", push(1, stats, ""));
  get();
  EXPECT_EQ("<row><i>3</i></row><row><i>2</i><text>u</text></row>", status("/sample:top/state/row"));
  EXPECT_EQ("<item><k>a</k><v>1</v></item>", status("/sample:top/item[k=\"a\"]"));
  ds_plugin_forget_pushed(1);
  EXPECT_EQ("<state><row><i>2</i><text>u</text></row></state>", status("/sample:top/state"));

  EXPECT_NE("", push(1, "/sample:top/item", "<item><k>a</k></item>")); // lies above what it publishes
  EXPECT_NE("", push(1, "/sample:top/item/stats", "<item><k>a</k><v>2</v><stats/></item>"));
  EXPECT_NE("", push(1, stats, "<item><k>b</k><stats/></item>"));
  EXPECT_NE("", push(1, "/sample:top/state", "<state><loose><text>t</text></loose></state>"));
}

TEST_F(plugin_data, a_publication_that_was_cut_off_is_told_as_running_stands_now)
{
  std::string journal;
  on_offer = [this, &journal] { journal = redis.command(4, {"GET", "ymgrd-publication"}).front(); };
  edit("running", CHANGE);
  on_offer = [] {};
  auto smooth = [this, &journal] {
    redis.command(4, {"SET", "ymgrd-publication", journal});
    EXPECT_EQ(0, ds_begin_smooth_start());
    return diff_text(ds_smooth_differ());
  };
  EXPECT_EQ("8 top (2 item[k=\"a\"] (2 v ) 17 item[k=\"d\"] 8 item[k=\"b\"] (4 v ) ) ", smooth());
  edit("running", CHANGE_BACK);
  EXPECT_EQ("8 top (1 item[k=\"a\"] (1 v ) 2 item[k=\"d\"] 8 item[k=\"b\"] (4 v ) ) ", smooth());
  journal.pop_back(); // what can be read of it
  EXPECT_EQ("8 top (1 item[k=\"a\"] (1 v ) 2 item[k=\"d\"] 8 item[k=\"b\"] ) ", smooth());
  context_save_int("OPT-smooth-start", 1);
  ds_end_smooth_start();
  EXPECT_EQ(nullptr, ds_smooth_differ());
  EXPECT_TRUE(redis.command(4, {"GET", "ymgrd-publication"}).empty());
  differ_node_t *all = nullptr;
  EXPECT_EQ(0, ds_get_cfgr_differ([](const char *) { return DIFFER_BELOW; }, &all));
  EXPECT_EQ(
      0U, diff_text(all).find("1 top (1 item[k=\"a\"] (1 v ) 1 item[k=\"b\"] (1 v ) 1 item[k=\"c\"] 1 tag[.=\"x\"] "));
}
