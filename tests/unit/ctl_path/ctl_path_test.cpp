#include "ctl/ctl_path.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include "ctl/ctl_schema.h"

namespace {

// As the daemon answers with the sample modules.
const std::string CAPABILITIES =
    "<rpc-reply xmlns='urn:ietf:params:xml:ns:netconf:base:1.0'><capabilities xmlns='com:zentra'>"
    "<capability>urn:ietf:params:netconf:capability:candidate:1.0</capability>"
    "<capability>urn:ex-types?revision=2026-01-01&amp;module=ex-types</capability>"
    "<capability>urn:ex-sys?revision=2026-01-01&amp;module=ex-sys&amp;features=ftp,multipath&amp;deviations=ex-sys-dev"
    "</capability>"
    "<capability>urn:ex-sys-dev?revision=2026-03-01&amp;module=ex-sys-dev</capability>"
    "<capability>urn:ex-ext?revision=&amp;module=ex-ext</capability></capabilities></rpc-reply>";

// Has a node that another module has, too, and one that clashes with the augmented module's own.
constexpr char TWIN[] = "module ex-twin { yang-version 1.1; namespace 'urn:twin'; prefix t;"
                        " import ex-sys { prefix sys; } container routes;"
                        " augment /sys:system { leaf location { type string; } leaf twin { type string; } } }";

class ctl_path : public testing::Test {
protected:
  void SetUp() override
  {
    std::string fault;
    context = ctl_load_modules(ctl_read_modules(CAPABILITIES), YMGR_EXAMPLE_MODULES, &fault);
    ASSERT_NE(context, nullptr) << fault;
    ASSERT_EQ(lys_parse_mem(context.get(), TWIN, LYS_IN_YANG, nullptr), LY_SUCCESS) << ly_errmsg(context.get());
    ASSERT_EQ(ly_ctx_compile(context.get()), LY_SUCCESS) << ly_errmsg(context.get());
  }

  ctl_path_t read(const std::string &text) const
  {
    ctl_path_t path;
    std::string fault;
    EXPECT_TRUE(ctl_read_path(context.get(), text, &path, &fault)) << text << ": " << fault;
    return path;
  }
  std::string fault_of(const std::string &text) const
  {
    ctl_path_t path;
    std::string fault;
    EXPECT_FALSE(ctl_read_path(context.get(), text, &path, &fault)) << text << " became " << ctl_path_text(path);
    return fault;
  }
  // The edit, or the fault that was told.
  std::string edit(const std::string &text, const char *operation, const char *value) const
  {
    const std::string given = value == nullptr ? "" : value;
    std::string config;
    ctl_device device("/nowhere", {});
    testing::internal::CaptureStderr();
    int result = ctl_edit(device, read(text), operation, value == nullptr ? nullptr : &given, &config);
    const std::string told = testing::internal::GetCapturedStderr();
    return result == CTL_OK ? config : told;
  }

  ctl_context_ptr context;
};

TEST_F(ctl_path, has_one_form_however_it_was_typed)
{
  const struct {
    const char *typed;
    const char *text;
  } rows[] = {
      {"", "/"},
      {" / ", "/"},
      {"system/hostname/", "/ex-sys:system/hostname"},
      {"/sys:system/ex-sys:hostname", "/ex-sys:system/hostname"},
      {"system/ntp/server", "/ex-sys:system/ex-ext:ntp/server"},
      {"system/dhcp/retries", "/ex-sys:system/dhcp/retries"}, // below a choice and a case
      {"system/location", "/ex-sys:system/location"},         // the augmented module's own goes first
      {"system/ex-twin:location", "/ex-sys:system/ex-twin:location"},
      {"ex-sys:routes/route[mask='08'][ dest = \"10.0.0.0\" ]", "/ex-sys:routes/route[dest='10.0.0.0'][mask='8']"},
      {"ex-sys:routes/route[10.0.0.0][8]/metric", "/ex-sys:routes/route[dest='10.0.0.0'][mask='8']/metric"},
      {"ex-sys:routes/route[mask=8]", "/ex-sys:routes/route[mask='8']"},
      {"system/user[sys:name=admin]/key", "/ex-sys:system/user[name='admin']/key"},
      {"system/dns[2001:DB8::1]", "/ex-sys:system/dns[.='2001:db8::1']"},
      {"system/dns[.='192.0.2.53']", "/ex-sys:system/dns[.='192.0.2.53']"},
      {"system/tag['a b/]']", "/ex-sys:system/tag[.='a b/]']"},
      {"system/tag[\"it's\"]", "/ex-sys:system/tag[.=\"it's\"]"},
      {"system/tag['it''s \"x\"']", "/ex-sys:system/tag[.='it''s \"x\"']"},
  };
  for (const auto &row : rows) {
    const ctl_path_t path = read(row.typed);
    EXPECT_EQ(ctl_path_text(path), row.text);
    EXPECT_EQ(ctl_path_text(read(row.text)), row.text);
  }
}

TEST_F(ctl_path, faults_name_the_step_and_what_was_possible)
{
  const struct {
    const char *typed;
    const char *fault;
  } rows[] = {
      {"routes", "\"routes\" in / may be ex-sys:routes or ex-twin:routes"},
      {"sistem/hostname", "there is no \"sistem\" in /; did you mean system?"},
      {"system/hsotname", "did you mean hostname?"},
      {"system/window/begin", "there is no \"begin\" in /ex-sys:system/window; there are min, max"},
      {"ex-ext:system", "there is no \"ex-ext:system\" in /; did you mean ex-sys:system?"},
      {"system/vendor-data", "there is no \"vendor-data\""}, // a deviation has removed it
      {"system/hostname/x", "nothing stands below /ex-sys:system/hostname, a leaf"},
      {"system//hostname", "a name is missing behind /ex-sys:system"},
      {"system/user[nam=x]", "/ex-sys:system/user has no key \"nam\"; there is name"},
      {"system/user[a][b]", "/ex-sys:system/user has no more keys than name"},
      {"system/logging[a]", "/ex-sys:system/logging has no keys"},
      {"ex-sys:routes/route[mask=8][mask=9]", "two values for one key of /ex-sys:routes/route"},
      {"ex-sys:routes/route[dest=x]", "key dest of /ex-sys:routes/route: "},
      {"ex-sys:routes/route[mask=33]", "allowed: 0..32"},
      {"system/user[name='a]", "the closing ' is missing"},
      {"system/user[a", "a \"]\" is missing"},
      {"system/user[a]x", "\"x\" cannot stand behind /ex-sys:system/user[name='a']"},
  };
  for (const auto &row : rows) {
    EXPECT_NE(fault_of(row.typed).find(row.fault), std::string::npos) << row.typed << ": " << fault_of(row.typed);
  }
}

TEST_F(ctl_path, becomes_a_filter_that_selects_it_with_the_keys_on_the_way)
{
  const struct {
    const char *typed;
    const char *filter;
  } rows[] = {
      {"/", ""},
      {"system/hostname", "<system xmlns=\"urn:ex-sys\"><hostname/></system>"},
      {"system/user[a]/quota", "<system xmlns=\"urn:ex-sys\"><user><name>a</name>"
                               "<quota xmlns=\"urn:ex-ext\"/></user></system>"},
      {"ex-sys:routes/route[mask=8]/metric",
       "<routes xmlns=\"urn:ex-sys\"><route><dest/><mask>8</mask><metric/></route>"
       "</routes>"},
      {"system/user[a]", "<system xmlns=\"urn:ex-sys\"><user><name>a</name></user></system>"},
      {"system/tag[a]", "<system xmlns=\"urn:ex-sys\"><tag/></system>"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(ctl_filter(read(row.typed)), row.filter);
  }
}

TEST_F(ctl_path, becomes_an_edit_or_a_fault_before_anything_is_sent)
{
  const struct {
    const char *typed;
    const char *operation;
    const char *value;
    const char *wanted; // a part of it
  } rows[] = {
      {"system/location", "merge", "a<b&\"c\"", "<location>a&lt;b&amp;&quot;c&quot;</location>"},
      {"system/transport", "merge", "tcp", "<transport xmlns:ex-types=\"urn:ex-types\">ex-types:tcp</transport>"},
      {"system/watched", "merge", "/ex-sys:system/user[name='a']", ">/ex-sys:system/ex-sys:user[ex-sys:name='a']<"},
      {"system/read-only", "merge", nullptr, "<read-only></read-only>"},
      {"system/telnet", "merge", nullptr, "<telnet></telnet>"},
      {"system/user[a]/quota", "merge", "007", "<user><name>a</name><quota xmlns=\"urn:ex-ext\">7</quota></user>"},
      {"system/dns", "merge", "192.0.2.1", "<dns>192.0.2.1</dns>"},
      {"system/hostname", "delete", nullptr, " nc:operation=\"delete\"></hostname>"},
      {"system/dns[192.0.2.1]", "delete", nullptr, " nc:operation=\"delete\">192.0.2.1</dns>"},
      {"system/user[a]", "delete", nullptr, " nc:operation=\"delete\"><name>a</name></user>"},
      {"/", "delete", nullptr, "which node?"},
      {"system/hostname", "merge", nullptr, "/ex-sys:system/hostname needs a value"},
      {"system/hostname", "merge", "-x", "does not conform to"},
      {"system/hostname", "merge", "", "allowed: a text of 1..64 characters"},
      {"system/logging/level", "merge", "loud", "allowed: error, warning, info, debug"},
      {"system/transport", "merge", "ipx", "allowed: ex-types:tcp, ex-types:udp, ex-sys:ssh, ex-ext:sctp"},
      {"system/drift", "merge", "11", "allowed: -10..10"},
      {"system/port", "merge", "70000", "allowed: 0..65535"},
      {"system/logging/thresholds/low", "merge", "101", "A percentage lies between 0 and 100"},
      {"system/telnet", "merge", "x", "/ex-sys:system/telnet is a container: it has no value"},
      {"system/user", "merge", nullptr, "which entry? /ex-sys:system/user[name=...]"},
      {"system/user[a]/name", "merge", "b", "is a key"},
      {"ex-sys:state", "merge", nullptr, "is state of the device"},
      {"system/dns[192.0.2.1]", "merge", "192.0.2.2", "differ"},
  };
  for (const auto &row : rows) {
    const std::string result = edit(row.typed, row.operation, row.value);
    EXPECT_NE(result.find(row.wanted), std::string::npos) << row.typed << ": " << result;
  }
}

TEST_F(ctl_path, finds_its_nodes_in_data_and_keeps_only_them)
{
  const std::string data = "<system xmlns='urn:ex-sys'><hostname>h</hostname><user><name>a</name><uid>1</uid></user>"
                           "<user><name>b</name></user><tag>x</tag><tag>y</tag></system>"
                           "<routes xmlns='urn:ex-sys'/><unknown xmlns='urn:x'/>";
  const struct {
    const char *typed;
    size_t count;
    const char *kept;
  } rows[] = {
      {"system/user/uid", 1, "<system xmlns=\"urn:ex-sys\"><user><name>a</name><uid>1</uid></user></system>"},
      {"system/user", 2,
       "<system xmlns=\"urn:ex-sys\"><user><name>a</name><uid>1</uid></user><user><name>b</name></user></system>"},
      {"system/tag[y]", 1, "<system xmlns=\"urn:ex-sys\"><tag>y</tag></system>"},
      {"system/user[c]", 0, ""},
      {"ex-sys:routes", 1, "<routes xmlns=\"urn:ex-sys\"/>"},
  };
  for (const auto &row : rows) {
    lyd_node *tree = nullptr;
    ASSERT_EQ(lyd_parse_data_mem(context.get(), data.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree),
              LY_SUCCESS);
    const ctl_path_t path = read(row.typed);
    EXPECT_EQ(ctl_find(tree, path).size(), row.count) << row.typed;
    ctl_tree_ptr kept = ctl_keep_only(ctl_tree_ptr(tree), path);
    char *text = nullptr;
    const uint32_t options = LYD_PRINT_SHRINK | LYD_PRINT_WITHSIBLINGS | LYD_PRINT_KEEPEMPTYCONT;
    ASSERT_EQ(lyd_print_mem(&text, kept.get(), LYD_XML, options), LY_SUCCESS);
    EXPECT_EQ(std::string(text == nullptr ? "" : text), row.kept) << row.typed;
    free(text);
  }
}

TEST_F(ctl_path, modules_come_from_their_files_and_one_without_is_named)
{
  std::string fault;
  ctl_module_t module;
  module.name = "ex-types";
  EXPECT_EQ(ctl_load_modules({module}, "/nowhere", &fault), nullptr);
  EXPECT_NE(fault.find("/nowhere"), std::string::npos) << fault;
  module.revision = "2020-02-02"; // as the profile may have it
  EXPECT_NE(ctl_load_modules({module}, YMGR_EXAMPLE_MODULES, &fault), nullptr) << fault;
}

} // namespace
