#include <algorithm>

#include "schema_fixture.h"
#include "ymgrd/core/context.h"

using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;

namespace {

constexpr const char FEATURE_BODY[] =
    "include part; /*linkage*/ feature f1; feature f2 { if-feature f1; } "
    "leaf one { if-feature f1; type string; } leaf two { if-feature f2; type string; } "
    "leaf three { if-feature f3; type string; }";
constexpr const char FEATURE_PART[] = "submodule part { yang-version 1.1; belongs-to feat { prefix f; } feature f3; }";

constexpr const char TARGET_BODY[] = "feature extra; container c { leaf size { type uint8; default 1; } "
                                     "leaf more { if-feature extra; type uint8; default 1; } }";
constexpr const char DEVIATION_BODY[] =
    "import target { prefix t; } /*linkage*/ "
    "deviation /t:c/t:size { deviate replace { default 2; } } deviation /t:c/t:more { deviate replace { default 3; } }";

class schema_load : public schema_fixture {
protected:
  static bool has_node(const std::string &path)
  {
    return lys_find_path(schema_ctx(), nullptr, path.c_str(), 0) != nullptr;
  }
  static std::string default_of(const std::string &path)
  {
    const auto *leaf = reinterpret_cast<const lysc_node_leaf *>(lys_find_path(schema_ctx(), nullptr, path.c_str(), 0));
    return leaf == nullptr || leaf->dflt == nullptr ? "" : lyd_value_get_canonical(schema_ctx(), leaf->dflt);
  }
  AssertionResult announced(const std::string &capability) const
  {
    std::vector<std::string> all = capabilities();
    if (std::count(all.begin(), all.end(), capability) == 1) {
      return AssertionSuccess();
    }
    AssertionResult failure = AssertionFailure() << capability << " is not announced once among";
    for (const std::string &text : all) {
      failure << "\n  " << text;
    }
    return failure;
  }
  AssertionResult logged(const std::string &text) const
  {
    return log().find(text) != std::string::npos ? AssertionSuccess()
                                                 : AssertionFailure() << text << " not in\n"
                                                                      << log();
  }
  void write_feature_module()
  {
    write_module("feat", "2026-01-01", FEATURE_BODY);
    write_file("part.yang", FEATURE_PART);
  }
};

} // namespace

TEST_F(schema_load, features_are_off_unless_configured)
{
  write_feature_module();
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {}, {}}}));
  EXPECT_FALSE(has_node("/feat:one"));
  EXPECT_TRUE(announced("urn:feat?revision=2026-01-01&module=feat"));
}

TEST_F(schema_load, star_enables_and_announces_every_feature)
{
  write_feature_module();
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {"*"}, {}}}));
  EXPECT_TRUE(has_node("/feat:one") && has_node("/feat:two") && has_node("/feat:three"));
  EXPECT_TRUE(announced("urn:feat?revision=2026-01-01&module=feat&feature=f1,f2,f3"));
}

TEST_F(schema_load, feature_may_stand_before_the_one_it_needs)
{
  write_feature_module();
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {"f2", "f1"}, {}}}));
  EXPECT_TRUE(has_node("/feat:two"));
  EXPECT_TRUE(announced("urn:feat?revision=2026-01-01&module=feat&feature=f2,f1"));
}

TEST_F(schema_load, bad_feature_costs_neither_the_others_nor_later_modules)
{
  write_feature_module();
  write_module("other", "2026-01-01", "leaf l { type string; }");
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {"f2", "nonsense", "f1"}, {}}, {"other", "2026-01-01", {}, {}}}));
  EXPECT_TRUE(has_node("/feat:one") && has_node("/feat:two") && has_node("/other:l"));
  EXPECT_TRUE(logged("[WARN] Enable feature nonsense of module feat failed.\n"));

  // f2 alone is refused because it needs f1, and must not leave the context unusable.
  ASSERT_EQ(0, load({{"feat", "2026-01-01", {"f2"}, {}}, {"other", "2026-01-01", {}, {}}}));
  EXPECT_FALSE(has_node("/feat:two"));
  EXPECT_TRUE(has_node("/other:l"));
}

TEST_F(schema_load, deviation_applies_wherever_its_own_entry_stands)
{
  write_module("target", "2026-01-01", TARGET_BODY);
  write_module("dev", "2026-03-01", DEVIATION_BODY);
  const profile_module_t target = {"target", "2026-01-01", {"extra"}, {"dev"}};
  const profile_module_t dev = {"dev", "2026-03-01", {}, {}};
  for (const std::vector<profile_module_t> &profile : {std::vector{target, dev}, std::vector{target}}) {
    ASSERT_EQ(0, load(profile));
    EXPECT_EQ("2", default_of("/target:c/target:size"));
    EXPECT_EQ("3", default_of("/target:c/target:more")) << "a node behind a feature is deviated too";
    EXPECT_TRUE(announced("urn:dev?revision=2026-03-01&module=dev"));
    EXPECT_EQ(std::string::npos, log().find("Schema add module"));
  }
}

TEST_F(schema_load, deviated_module_is_announced_with_the_newer_revision_of_its_deviation)
{
  write_module("target", "2026-01-01", TARGET_BODY);
  write_module("dev", "2026-03-01", DEVIATION_BODY);
  ASSERT_EQ(0, load({{"target", "2026-01-01", {"extra"}, {"dev"}}, {"dev", "2026-03-01", {}, {}}}));
  EXPECT_TRUE(announced("urn:target?revision=2026-03-01&module=target&feature=extra&deviations=dev"));
  EXPECT_EQ("2026-03-01", stored_record("target").substr(0, 10));

  ASSERT_EQ(0, load({{"target", "2026-01-01", {"extra"}, {"dev"}}, {"dev", "2025-03-01", {}, {}}}));
  EXPECT_TRUE(announced("urn:target?revision=2026-01-01&module=target&feature=extra&deviations=dev"));
}

TEST_F(schema_load, module_without_revision_is_refused)
{
  write_file("bare.yang", "module bare { namespace 'urn:bare'; prefix b; leaf l { type string; } }");
  write_file("bareyin.yin", "<module name='bareyin' xmlns='urn:ietf:params:xml:ns:yang:yin:1'><namespace uri='urn:y'/>"
                            "<prefix value='y'/><!-- <revision date='2026-01-01'/> --></module>");
  write_module("good", "2026-01-01", "");
  ASSERT_EQ(0,
            load({{"bare", "2026-01-01", {}, {}}, {"bareyin", "2026-01-01", {}, {}}, {"good", "2026-01-01", {}, {}}}));
  EXPECT_TRUE(logged("[ERROR] model bare have no revision.\n\n"));
  EXPECT_TRUE(logged("[ERROR] model bareyin have no revision.\n\n"));
  EXPECT_TRUE(logged("[WARN] Schema add module bare failed.\n"));
  EXPECT_EQ("", schema_get_module_ns("bare"));
  EXPECT_EQ("", stored_record("bareyin"));
  EXPECT_TRUE(announced("urn:good?revision=2026-01-01&module=good"));
}

TEST_F(schema_load, yin_file_is_preferred_to_yang_file)
{
  write_module("twice", "2026-01-01", "");
  write_file("twice.yin", "<module name='twice' xmlns='urn:ietf:params:xml:ns:yang:yin:1'><namespace uri='urn:twice'/>"
                          "<prefix value='t'/><revision date='2026-02-02'/></module>");
  ASSERT_EQ(0, load({{"twice", "2026-02-02", {}, {}}}));
  EXPECT_TRUE(announced("urn:twice?revision=2026-02-02&module=twice"));
}

TEST_F(schema_load, broken_module_is_left_out_and_the_reason_logged)
{
  write_module("broken", "2026-01-01", "leaf l { type nonsense; }");
  write_module("good", "2026-01-01", "");
  ASSERT_EQ(0,
            load({{"broken", "2026-01-01", {}, {}}, {"absent", "2026-01-01", {}, {}}, {"good", "2026-01-01", {}, {}}}));
  EXPECT_TRUE(logged("model broken.yang parse faild.\n[WARN] libyang: "));
  EXPECT_TRUE(logged("[WARN] Schema add module absent failed.\n"));
  EXPECT_TRUE(announced("urn:good?revision=2026-01-01&module=good"));
}

TEST_F(schema_load, modules_that_requests_are_checked_against_are_loaded_unasked)
{
  write_module("good", "2026-01-01", "");
  ASSERT_EQ(0, load({{"good", "2026-01-01", {}, {}}}));
  EXPECT_NE(nullptr, ly_ctx_get_module_implemented(schema_ctx(), "ietf-netconf"));
  EXPECT_TRUE(has_node("/zentra-ymgrd:shutdown"));
  EXPECT_TRUE(logged("[WARN] Module ietf-netconf is not in the profile"));
}

TEST_F(schema_load, module_of_libyang_is_announced_only_when_the_profile_names_it)
{
  write_module("good", "2026-01-01", "import ietf-inet-types { prefix inet; } /*linkage*/");
  ASSERT_EQ(0, load({{"good", "2026-01-01", {}, {}}}));
  EXPECT_EQ(3U, capabilities().size());
  ASSERT_EQ(0, load({{"good", "2026-01-01", {}, {}}, {"ietf-inet-types", "2013-07-15", {}, {}}}));
  EXPECT_TRUE(announced("urn:ietf:params:xml:ns:yang:ietf-inet-types?revision=2013-07-15&module=ietf-inet-types"));
}

TEST_F(schema_load, lookups_know_names_namespaces_and_prefixes)
{
  write_file("a.yang", "module a { namespace 'urn:a'; prefix b; import ietf-yang-types { prefix yt; } "
                       "revision 2026-01-01; container top; rpc act; }");
  write_module("b", "2026-01-01", "leaf other { type string; }");
  ASSERT_EQ(0, load({{"a", "2026-01-01", {}, {}}, {"b", "2026-01-01", {}, {}}}));
  EXPECT_EQ("urn:a", schema_get_module_ns("a"));
  EXPECT_EQ("", schema_get_module_ns("c"));
  EXPECT_EQ("a", schema_get_module_name("urn:a"));
  EXPECT_EQ("", schema_get_module_name("urn:c"));
  EXPECT_EQ("b", schema_get_module_prefix("a"));
  EXPECT_EQ("urn:ietf:params:xml:ns:netconf:base:1.0", schema_get_module_prefix("ietf-netconf"));
  EXPECT_EQ("com:zentra:netconf:private:opal:device:ymgrd", schema_get_module_prefix("zentra-ymgrd"));
  EXPECT_EQ("ietf-netconf", schema_get_module_name("urn:ietf:params:xml:ns:netconf:base:1.0"));

  // "b" is the prefix of a and the name of b: the name wins. The token need not end with NUL.
  EXPECT_STREQ("b", schema_find_module("b:x", 1)->name);
  EXPECT_STREQ("b", schema_find_module("p-b", 3)->name);
  EXPECT_EQ(nullptr, schema_find_module("fe80::1", 4));
  EXPECT_EQ(nullptr, schema_find_module("yang", 0));

  EXPECT_EQ("/a:top", schema_make_toppath("urn:a", "top"));
  EXPECT_EQ("", schema_make_toppath("urn:c", "top"));
  EXPECT_EQ("/b:other", schema_make_toppath("", "other"));
  EXPECT_EQ("", schema_make_toppath("", "act")) << "an rpc is no data";
  unload();
  EXPECT_EQ("", schema_get_module_ns("a"));
  EXPECT_EQ(nullptr, schema_find_module("a", 1));
}

TEST_F(schema_load, exit_listeners_run_while_the_context_lives)
{
  static std::string calls;
  calls.clear();
  ASSERT_EQ(0, load({}));
  schema_on_exit([] { calls += schema_ctx() != nullptr ? "first" : "late"; });
  schema_on_exit([] { calls += "second "; });
  unload();
  EXPECT_EQ("second first", calls);
}
