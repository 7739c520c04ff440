#include <map>
#include <string>

#include <gtest/gtest.h>

#include "ymgrd/core/handles.h"
#include "ymgrd/datastore/dbkey.h"

namespace {

const char system_module[] = R"(
module ex-sys {
  namespace "urn:ex-sys"; prefix s;
  container system {
    leaf-list dns { type string; }
    list user { key "name"; leaf name { type string; } leaf level { type uint8; } container home { leaf dir { type string; } } }
    choice mode {
      case static { leaf ntp-server { type string; } choice inner { case deep { leaf depth { type uint8; } } } }
      leaf automatic { type empty; }
      case same { leaf same { type empty; } }
    }
  }
  rpc restart;
})";

const char extending_module[] = R"(
module ex-ext {
  namespace "urn:ex-ext"; prefix e;
  import ex-sys { prefix s; }
  augment "/s:system" { choice clock { case gps { leaf antenna { type string; } } } }
  augment "/s:system/s:mode/s:static" { leaf extra { type string; } leaf twice { type string; } }
  augment "/s:system/s:mode" { case other { leaf dns-only { type string; } } }
})";

const char other_module[] = R"(
module ex-other {
  namespace "urn:ex-other"; prefix o;
  import ex-sys { prefix s; }
  augment "/s:system" { leaf twice { type string; } }
})";

class dbkey : public testing::Test {
protected:
  void SetUp() override
  {
    ly_ctx *made = nullptr;
    ASSERT_EQ(LY_SUCCESS, ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY, &made));
    ctx_.reset(made);
    ASSERT_EQ(LY_SUCCESS, lys_parse_mem(made, system_module, LYS_IN_YANG, nullptr));
    ASSERT_EQ(LY_SUCCESS, lys_parse_mem(made, extending_module, LYS_IN_YANG, nullptr));
    ASSERT_EQ(LY_SUCCESS, lys_parse_mem(made, other_module, LYS_IN_YANG, nullptr));
    ASSERT_EQ(0, dbkey_prepare(made));
  }
  void TearDown() override { dbkey_release(); }

  lyd_tree_ptr parse_system(const std::string &content)
  {
    lyd_node *tree = nullptr;
    std::string xml = "<system xmlns='urn:ex-sys' xmlns:e='urn:ex-ext'>" + content + "</system>";
    EXPECT_EQ(LY_SUCCESS,
              lyd_parse_data_mem(ctx_.get(), xml.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree));
    return lyd_tree_ptr(tree);
  }

  ly_ctx_ptr ctx_;
};

} // namespace

TEST_F(dbkey, schema_keys_empty_predicates_and_name_choices_and_cases_but_not_shorthand_cases)
{
  auto tree = parse_system("<dns>a\"b</dns><user><name>x/y</name><home><dir>d</dir></home></user><user><name>z</name>"
                           "<level/></user><ntp-server>n</ntp-server><depth>1</depth><automatic/><same/>"
                           "<e:antenna>a</e:antenna><e:extra>x</e:extra>");
  const std::map<std::string, std::string> expected = {
      {"", ""},
      {R"(/dns[.="a\"b"])", "/dns[]"},
      {R"(/user[name="x/y"])", "/user[]"},
      {R"(/user[name="x/y"]/name)", "/user[]/name"},
      {R"(/user[name="x/y"]/home)", "/user[]/home"},
      {R"(/user[name="x/y"]/home/dir)", "/user[]/home/dir"},
      {R"(/user[name="z"])", "/user[]"},
      {R"(/user[name="z"]/name)", "/user[]/name"},
      {R"(/user[name="z"]/level)", "/user[]/level"}, // although its type refuses the empty value
      {"/ntp-server", "/mode/static/ntp-server"},
      {"/depth", "/mode/static/inner/deep/depth"},
      {"/automatic", "/mode/automatic"},
      {"/same", "/mode/same/same"},
      {"/ex-ext:antenna", "/ex-ext:clock/gps/antenna"},
      {"/ex-ext:extra", "/mode/static/ex-ext:extra"},
  };
  ds_node_arena arena;
  ASSERT_EQ(0, parse_dbkey(tree.get(), &arena));
  std::map<std::string, std::string> keys;
  lyd_node *node = nullptr;
  LYD_TREE_DFS_BEGIN(tree.get(), node)
  {
    const ds_node_record_t *record = ds_node_record(node);
    EXPECT_EQ(record->data_key, dbkey_data_key(node));
    keys[record->data_key] = record->schema_key;
    LYD_TREE_DFS_END(tree.get(), node);
  }
  EXPECT_EQ(expected.size(), keys.size());
  for (const auto &[data_key, schema_key] : expected) {
    EXPECT_EQ("/ex-sys:system" + schema_key, keys["/ex-sys:system" + data_key]) << data_key;
  }

  EXPECT_EQ(-1, parse_dbkey(parse_system("<unknown/>").get(), &arena));
}

TEST_F(dbkey, paths_are_found_by_data_and_schema_names_or_the_unknown_step_is_named)
{
  const std::map<std::string, std::string> keys = {
      {"ex-sys:system", "/ex-sys:system"},
      {R"(/ex-sys:system/user[name="a/b"]/ex-sys:home/dir)", "/ex-sys:system/user[]/home/dir"},
      {"/ex-sys:system/user[]/name", "/ex-sys:system/user[]/name"},
      {"/ex-sys:system/depth", "/ex-sys:system/mode/static/inner/deep/depth"},
      {"/ex-sys:system/static/deep/depth", "/ex-sys:system/mode/static/inner/deep/depth"},
      {"/ex-sys:system/mode/inner/depth", "/ex-sys:system/mode/static/inner/deep/depth"},
      {"/ex-sys:system/mode/automatic/automatic", "/ex-sys:system/mode/automatic"},
      {"/ex-sys:system/same", "/ex-sys:system/mode/same/same"},
      {"/ex-sys:system/mode", "/ex-sys:system/mode"},
      {"/ex-sys:system/mode/other/ex-ext:dns-only", "/ex-sys:system/mode/other/ex-ext:dns-only"},
      {"/ex-sys:system/ex-ext:clock/gps/antenna", "/ex-sys:system/ex-ext:clock/gps/antenna"},
      {"/ex-sys:system/antenna", "/ex-sys:system/ex-ext:clock/gps/antenna"},
      {"/ex-sys:system/ex-other:twice", "/ex-sys:system/ex-other:twice"},
      {"/ex-sys:system/mode/twice", "/ex-sys:system/mode/static/ex-ext:twice"},
      {"/ex-sys:restart", "/ex-sys:restart"},
  };
  std::string error;
  for (const auto &[path, key] : keys) {
    const lysc_node *node = dbkey_find_path(ctx_.get(), path, &error);
    EXPECT_STREQ(key.c_str(), node == nullptr ? error.c_str() : dbkey_schema_key(node)) << path;
  }
  const std::map<std::string, std::string> faults = {
      {"/", "/: this is no path of a node"},
      {"/ex-sys:system/user[name=\"a", "/ex-sys:system/user[name=\"a: this is no path of a node"},
      {"/system", "/system: the first name needs its module"},
      {"/s:system/user", "/s:system: there is no module s"},
      {"/ex-sys:user/home", "/ex-sys:user: module ex-sys has no child user"},
      {"/ex-sys:system/user[name='a']/ex-ext:home/dir",
       "/ex-sys:system/user[name='a']/ex-ext:home: user has no child ex-ext:home"},
      {"/ex-sys:system/static/automatic", "/ex-sys:system/static/automatic: static has no child automatic"},
      {"/ex-sys:system/twice", "/ex-sys:system/twice: several modules have put a twice there, its module is needed"},
  };
  for (const auto &[path, fault] : faults) {
    EXPECT_EQ(nullptr, dbkey_find_path(ctx_.get(), path, &error)) << path;
    EXPECT_EQ(fault, error);
  }
}
