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
    leaf hostname { type string; }
    leaf-list dns { type string; }
    list user { key "name"; leaf name { type string; } leaf level { type uint8; } container home { leaf dir { type string; } } }
    choice mode {
      case static { leaf ntp-server { type string; } choice inner { case deep { leaf depth { type uint8; } } } }
      leaf automatic { type empty; }
      case same { leaf same { type empty; } }
    }
  }
  container routes { list route { key "dest mask"; leaf mask { type uint8; } leaf dest { type string; } } }
  list top { key "id"; leaf id { type uint8; } }
})";

const char extending_module[] = R"(
module ex-ext {
  namespace "urn:ex-ext"; prefix e;
  import ex-sys { prefix s; }
  augment "/s:system" {
    container ntp { leaf port { type uint16; } }
    choice clock { case gps { leaf antenna { type string; } } }
  }
  augment "/s:system/s:mode/s:static" { leaf extra { type string; } }
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
    ASSERT_EQ(0, dbkey_prepare(made));
  }
  void TearDown() override { dbkey_release(); }

  lyd_tree_ptr parse(const std::string &xml)
  {
    lyd_node *tree = nullptr;
    EXPECT_EQ(LY_SUCCESS,
              lyd_parse_data_mem(ctx_.get(), xml.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree));
    return lyd_tree_ptr(tree);
  }
  lyd_tree_ptr parse_system(const std::string &content)
  {
    return parse("<system xmlns='urn:ex-sys' xmlns:e='urn:ex-ext'>" + content + "</system>");
  }
  // Data key -> schema key of all nodes.
  std::map<std::string, std::string> keys_of(lyd_node *tree)
  {
    ds_node_arena arena;
    std::map<std::string, std::string> keys;
    EXPECT_EQ(0, parse_dbkey(tree, &arena));
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(tree, node)
    {
      const ds_node_record_t *record = ds_node_record(node);
      EXPECT_EQ(record->data_key, dbkey_data_key(node));
      keys[record->data_key] = record->schema_key;
      LYD_TREE_DFS_END(tree, node);
    }
    return keys;
  }

  ly_ctx_ptr ctx_;
};

using key_map = std::map<std::string, std::string>;

} // namespace

TEST_F(dbkey, modules_stand_where_they_change_and_entries_have_their_predicate)
{
  auto tree =
      parse_system("<hostname>h</hostname><dns>a\"b</dns><dns>c\\d</dns><user><name>x/y</name><home><dir>/</dir>"
                   "</home></user><user><name/></user><e:ntp><e:port>12</e:port></e:ntp>");
  EXPECT_EQ((key_map{
                {"/ex-sys:system", "/ex-sys:system"},
                {"/ex-sys:system/hostname", "/ex-sys:system/hostname"},
                {R"(/ex-sys:system/dns[.="a\"b"])", "/ex-sys:system/dns[]"},
                {R"(/ex-sys:system/dns[.="c\\d"])", "/ex-sys:system/dns[]"},
                {R"(/ex-sys:system/user[name="x/y"])", "/ex-sys:system/user[]"},
                {R"(/ex-sys:system/user[name="x/y"]/name)", "/ex-sys:system/user[]/name"},
                {R"(/ex-sys:system/user[name="x/y"]/home)", "/ex-sys:system/user[]/home"},
                {R"(/ex-sys:system/user[name="x/y"]/home/dir)", "/ex-sys:system/user[]/home/dir"},
                {R"(/ex-sys:system/user[name=""])", "/ex-sys:system/user[]"},
                {R"(/ex-sys:system/user[name=""]/name)", "/ex-sys:system/user[]/name"},
                {"/ex-sys:system/ex-ext:ntp", "/ex-sys:system/ex-ext:ntp"},
                {"/ex-sys:system/ex-ext:ntp/port", "/ex-sys:system/ex-ext:ntp/port"},
            }),
            keys_of(tree.get()));
}

TEST_F(dbkey, keys_of_an_entry_stand_in_the_schemas_key_order_with_canonical_values)
{
  auto tree = parse("<routes xmlns='urn:ex-sys'><route><mask> 8\n</mask><dest>10.0.0.0</dest></route></routes>");
  EXPECT_EQ(R"(/ex-sys:routes/route[dest="10.0.0.0",mask="8"])", dbkey_data_key(lyd_child(tree.get())));
  EXPECT_EQ(R"(dest="10.0.0.0",mask="8")", dbkey_predicate(lyd_child(tree.get())));
}

TEST_F(dbkey, schema_keys_name_choices_and_cases_but_not_shorthand_cases)
{
  auto keys = keys_of(parse_system("<ntp-server>n</ntp-server><depth>1</depth><automatic/><same/>"
                                   "<e:antenna>a</e:antenna><e:extra>x</e:extra>")
                          .get());
  const key_map expected = {
      {"ntp-server", "mode/static/ntp-server"},
      {"depth", "mode/static/inner/deep/depth"},
      {"automatic", "mode/automatic"},
      {"same", "mode/same/same"},
      {"ex-ext:antenna", "ex-ext:clock/gps/antenna"},
      {"ex-ext:extra", "mode/static/ex-ext:extra"},
  };
  for (const auto &[data_key, schema_key] : expected) {
    EXPECT_EQ("/ex-sys:system/" + schema_key, keys["/ex-sys:system/" + data_key]);
  }
}

TEST_F(dbkey, empty_element_that_its_type_refuses_has_the_keys_of_its_leaf)
{
  auto tree = parse_system("<user><name>a</name><level/></user>");
  auto keys = keys_of(tree.get());
  EXPECT_EQ("/ex-sys:system/user[]/level", keys["/ex-sys:system/user[name=\"a\"]/level"]);

  ds_node_arena arena;
  EXPECT_EQ(-1, parse_dbkey(parse_system("<unknown/>").get(), &arena));
}
