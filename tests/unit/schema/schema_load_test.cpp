#include "schema_fixture.h"

namespace {

class schema_load : public schema_fixture {
protected:
  static bool has_node(const char *path) { return lys_find_path(schema_ctx(), nullptr, path, 0) != nullptr; }
  static std::string default_of(const char *path)
  {
    const auto *leaf = reinterpret_cast<const lysc_node_leaf *>(lys_find_path(schema_ctx(), nullptr, path, 0));
    return leaf == nullptr || leaf->dflt == nullptr ? "" : lyd_value_get_canonical(schema_ctx(), leaf->dflt);
  }
  void write_feature_module()
  {
    write_module("feat", "2026-01-01", "include part;",
                 "feature f1; feature f2 { if-feature f1; } leaf one { if-feature f1; type string; } leaf two { "
                 "if-feature f2; type string; } leaf three { if-feature f3; type string; } container box;");
    write_file("part.yang", "submodule part { yang-version 1.1; belongs-to feat { prefix f; } feature f3; }");
  }
};

} // namespace

TEST_F(schema_load, features_are_enabled_and_announced_as_configured)
{
  write_feature_module();
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {}, {}}}));
  EXPECT_FALSE(has_node("/feat:one"));
  EXPECT_EQ(1, announced("urn:feat?revision=2026-01-01&module=feat"));

  // A feature may stand before the one it needs.
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {"f2", "f1"}, {}}}));
  EXPECT_TRUE(has_node("/feat:two") && !has_node("/feat:three"));
  EXPECT_EQ(1, announced("urn:feat?revision=2026-01-01&module=feat&feature=f2,f1"));

  ASSERT_EQ(0, load({{"feat", "2026-01-01", {"*"}, {}}}));
  EXPECT_TRUE(has_node("/feat:one") && has_node("/feat:two") && has_node("/feat:three"));
  EXPECT_EQ(1, announced("urn:feat?revision=2026-01-01&module=feat&feature=f1,f2,f3"));
}

TEST_F(schema_load, bad_feature_costs_neither_the_others_nor_later_modules)
{
  write_feature_module();
  // It makes feat be compiled once more.
  write_module("other", "2026-01-01", "import feat { prefix f; }", "augment /f:box { leaf l { type string; } }");
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {"f2", "nonsense", "f1"}, {}}, {"other", "2026-01-01", {}, {}}}));
  EXPECT_TRUE(has_node("/feat:one") && has_node("/feat:two") && has_node("/feat:box/other:l"));
  EXPECT_TRUE(logged("[WARN] Enable feature nonsense of module feat failed.\n"));

  // f2 is refused because it needs f1.
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {"f2"}, {}}, {"other", "2026-01-01", {}, {}}}));
  EXPECT_TRUE(!has_node("/feat:two") && has_node("/feat:box/other:l"));
}

TEST_F(schema_load, deviation_applies_and_raises_the_revision_wherever_its_entry_stands)
{
  write_module("target", "2026-01-01", "",
               "feature extra; container c { leaf size { type uint8; default 1; } leaf more { if-feature extra; type "
               "uint8; default 1; } }");
  write_module("dev", "2026-03-01", "import target { prefix t; }",
               "deviation /t:c/t:size { deviate replace { default 2; } } "
               "deviation /t:c/t:more { deviate replace { default 3; } }");
  const model_config_t target = {"target", "2026-01-01", {"extra"}, {"dev"}};
  const model_config_t dev = {"dev", "2026-03-01", {}, {}};
  for (const std::vector<model_config_t> &profile : {std::vector{target, dev}, std::vector{dev, target}}) {
    ASSERT_EQ(0, load(profile));
    EXPECT_EQ("2", default_of("/target:c/target:size"));
    EXPECT_EQ("3", default_of("/target:c/target:more")) << "a node behind a feature is deviated too";
    EXPECT_FALSE(logged("Schema add module")) << log;
    EXPECT_EQ(1, announced("urn:dev?revision=2026-03-01&module=dev"));
    EXPECT_EQ(1, announced("urn:target?revision=2026-03-01&module=target&feature=extra&deviations=dev"));
    EXPECT_EQ("2026-03-01", stored_record("target").substr(0, 10));
  }
  // An older deviation raises nothing.
  ASSERT_EQ(0, load({target, {"dev", "2025-03-01", {}, {}}}));
  EXPECT_EQ(1, announced("urn:target?revision=2026-01-01&module=target&feature=extra&deviations=dev"));
}

TEST_F(schema_load, module_without_revision_or_file_is_left_out)
{
  write_file("bare.yang", "module bare { namespace 'urn:bare'; prefix b; leaf l { type string; } }");
  write_file("bareyin.yin", "<module name='bareyin' xmlns='urn:ietf:params:xml:ns:yang:yin:1'><namespace uri='urn:y'/>"
                            "<prefix value='y'/><!-- <revision date='2026-01-01'/> --></module>");
  // The .yin file is preferred.
  write_module("good", "2026-01-01");
  write_file("good.yin", "<module name='good' xmlns='urn:ietf:params:xml:ns:yang:yin:1'><namespace uri='urn:good'/>"
                         "<prefix value='g'/><revision date='2026-02-02'/></module>");
  ASSERT_EQ(0, load({{"bare", "x", {}, {}}, {"bareyin", "x", {}, {}}, {"absent", "x", {}, {}}, {"good", "x", {}, {}}}));
  EXPECT_TRUE(logged("[ERROR] model bare have no revision.\n\n[WARN] Schema add module bare failed.\n")) << log;
  EXPECT_TRUE(logged("[ERROR] model bareyin have no revision.\n\n"));
  EXPECT_TRUE(logged("[WARN] Schema add module absent failed.\n"));
  EXPECT_EQ("", schema_get_module_ns("bare") + schema_get_module_ns("bareyin") + stored_record("bareyin"));
  EXPECT_EQ(1, announced("urn:good?revision=2026-02-02&module=good"));
}

TEST_F(schema_load, lookups_know_names_namespaces_and_prefixes_until_the_end)
{
  write_file("a.yang", "module a { namespace 'urn:a'; prefix b; revision 2026-01-01; container top; rpc act; }");
  write_module("b", "2026-01-01", "", "leaf other { type string; }");
  ASSERT_EQ(0, load({{"a", "2026-01-01", {}, {}}, {"b", "2026-01-01", {}, {}}}));
  EXPECT_EQ("urn:a", schema_get_module_ns("a"));
  EXPECT_EQ("a", schema_get_module_name("urn:a"));
  EXPECT_EQ("", schema_get_module_name("urn:c"));
  EXPECT_EQ("b", schema_get_module_prefix("a"));
  EXPECT_EQ("urn:ietf:params:xml:ns:netconf:base:1.0", schema_get_module_prefix("ietf-netconf"));

  // "b" is the prefix of a and the name of b: the name wins. The token need not end with NUL.
  EXPECT_STREQ("b", schema_find_module("b:x", 1)->name);
  EXPECT_STREQ("b", schema_find_module("p-b:x", 3)->name);
  EXPECT_EQ(nullptr, schema_find_module("inet", 4)) << "the prefix of a module that is only imported";

  EXPECT_EQ("/a:top", schema_make_toppath("urn:a", "top"));
  EXPECT_EQ("", schema_make_toppath("urn:c", "top"));
  EXPECT_EQ("/b:other", schema_make_toppath("", "other"));
  EXPECT_EQ("", schema_make_toppath("", "act")) << "an rpc is no data";

  static std::string calls;
  schema_on_exit([] { calls += schema_ctx() != nullptr ? "first" : "too late"; });
  schema_on_exit([] { calls += "second "; });
  unload();
  EXPECT_EQ("second first", calls);
  EXPECT_EQ("", schema_get_module_ns("a"));
  EXPECT_EQ(nullptr, schema_find_module("a", 1));
}
