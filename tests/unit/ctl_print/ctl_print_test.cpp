#include <cstdlib>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include "ctl/ctl_diff.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_tree.h"

namespace {

// What the output in `format` gets from `write`.
std::string written(ctl_format format, const std::function<int(ctl_output_t &)> &write)
{
  char *text = nullptr;
  size_t size = 0;
  ctl_output_t output;
  output.out = open_memstream(&text, &size);
  output.format = format;
  EXPECT_EQ(write(output), CTL_OK);
  (void)fclose(output.out);
  std::string result(text, size);
  free(text);
  return result;
}

class ctl_text : public testing::Test {
protected:
  void SetUp() override
  {
    ly_ctx *made = nullptr;
    ASSERT_EQ(ly_ctx_new(YMGR_EXAMPLE_MODULES, LY_CTX_NO_YANGLIBRARY, &made), LY_SUCCESS);
    context.reset(made);
    const char *features[] = {"*", nullptr};
    for (const char *module : {"ex-sys", "ex-ext", "ex-bench"}) {
      ASSERT_NE(ly_ctx_load_module(made, module, nullptr, features), nullptr) << module;
    }
  }

  ctl_tree_ptr parse(const std::string &xml) const
  {
    lyd_node *tree = nullptr;
    EXPECT_EQ(lyd_parse_data_mem(context.get(), xml.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree),
              LY_SUCCESS)
        << ly_errmsg(context.get());
    return ctl_tree_ptr(tree);
  }
  static std::string system(const std::string &content)
  {
    return "<system xmlns=\"urn:ex-sys\">" + content + "</system>";
  }
  std::string print(const std::string &xml, ctl_format format = ctl_format::tree) const
  {
    const ctl_tree_ptr tree = parse(xml);
    return written(format, [&](ctl_output_t &output) { return ctl_print(output, tree.get()); });
  }
  std::string diff(const std::string &from, const std::string &to, ctl_format format = ctl_format::tree) const
  {
    const ctl_tree_ptr old_tree = parse(from);
    const ctl_tree_ptr new_tree = parse(to);
    bool is_different = false;
    std::string text = written(format, [&](ctl_output_t &output) {
      ctl_device device("/nowhere", output);
      return ctl_print_diff(device, old_tree.get(), new_tree.get(), &is_different);
    });
    EXPECT_EQ(is_different, !text.empty() && text != "{}\n") << text;
    return text;
  }

  std::unique_ptr<ly_ctx, void (*)(ly_ctx *)> context{nullptr, ly_ctx_destroy};
};

TEST_F(ctl_text, json_has_the_elements_of_an_anyxml_as_a_text)
{
  const std::string xml = system("<vendor-data><v:x xmlns:v=\"urn:v\" v:at=\"1\">t</v:x></vendor-data>");
  EXPECT_NE(print(xml, ctl_format::json).find(R"("vendor-data": "<x xmlns=\"urn:v\")"), std::string::npos);
  EXPECT_NE(print(xml, ctl_format::xml).find("v:at=\"1\">t</x>"), std::string::npos);
}

TEST_F(ctl_text, a_key_with_both_quotes_stands_as_it_is_typed)
{
  EXPECT_EQ(print(system("<rule><id>a'\"b</id></rule>")), "system\n  rule[id='a''\"b']\n");
}

TEST_F(ctl_text, every_kind_of_node_has_its_line)
{
  EXPECT_EQ(
      print(
          system("<hostname>gw</hostname><location>room 5, \"left\"\nrack \\ 2\u009b2J</location>"
                 "<user><name>a</name><full-name/><key><index>1</index><data>x</data></key></user>"
                 "<dns>192.0.2.53</dns><dns>192.0.2.54</dns><rule><id>o'neil</id></rule><dhcp/><ftp/><read-only/>"
                 "<vendor-data><a xmlns=\"urn:a\"><b>1</b></a></vendor-data>"
                 "<ntp xmlns=\"urn:ex-ext\"><server><address>192.0.2.1</address><retries>5</retries></server></ntp>") +
          "<state xmlns=\"urn:ex-sys\"><event><text>up</text></event><event><text>down</text></event></state>"
          "<x:new xmlns:x=\"urn:unknown\"><x:leaf>1</x:leaf></x:new>"),
      "system\n"
      "  hostname gw\n"
      "  location \"room 5, \\\"left\\\"\\nrack \\\\ 2\\u009b2J\"\n" // which a terminal would obey
      "  user[name='a']\n"
      "    full-name \"\"\n"
      "    key[index='1']\n"
      "      data x\n"
      "  dns 192.0.2.53\n"
      "  dns 192.0.2.54\n"
      "  rule[id=\"o'neil\"]\n"
      "  dhcp\n"
      "  read-only\n"
      "  vendor-data\n"
      "    a\n"
      "      b 1\n"
      "  ex-ext:ntp\n"
      "    server[address='192.0.2.1']\n"
      "      retries 5\n"
      "state\n"
      "  event\n"
      "    text up\n"
      "  event\n"
      "    text down\n"
      "x:new\n"
      "  x:leaf 1\n");
}

TEST_F(ctl_text, encoded_data_is_one_document)
{
  const std::string one = system("<hostname>gw</hostname>");
  const std::string other = "<routes xmlns=\"urn:ex-sys\"><route><dest>10.0.0.0</dest><mask>8</mask></route></routes>";
  EXPECT_EQ(print(one, ctl_format::xml), "<system xmlns=\"urn:ex-sys\">\n  <hostname>gw</hostname>\n</system>\n");
  const std::string both = print(one + other, ctl_format::xml);
  EXPECT_EQ(both.find("<data xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">\n<"), 0U) << both;
  EXPECT_EQ(print(both.substr(both.find('\n') + 1, both.rfind("</data>") - both.find('\n') - 1)), print(one + other));
  EXPECT_EQ(print(one, ctl_format::json), "{\n  \"ex-sys:system\": {\n    \"hostname\": \"gw\"\n  }\n}\n");
  EXPECT_EQ(print("", ctl_format::xml), "");
  EXPECT_EQ(print("", ctl_format::json), "{}\n");
}

TEST_F(ctl_text, difference_shows_what_came_went_changed_and_moved)
{
  const struct {
    const char *from;
    const char *to;
    const char *text;
  } rows[] = {
      {"<hostname>a</hostname><tag>x</tag><tag>y</tag>", "<hostname>a</hostname><tag>y</tag><tag>x</tag>", ""},
      {"<hostname>a</hostname>", "<hostname>b</hostname>", "-   hostname a\n+   hostname b\n"},
      {"<tag>x</tag><tag>y</tag>", "<tag>y</tag><tag>z</tag>", "-   tag x\n+   tag z\n"},
      {"<user><name>a</name><uid>1</uid></user>", "<user><name>b</name><uid>1</uid></user>",
       "-   user[name='a']\n-     uid 1\n+   user[name='b']\n+     uid 1\n"},
      {"<user><name>a</name><key><index>1</index><data>x</data></key></user><port>1</port>",
       "<user><name>a</name><key><index>1</index><data>y</data></key></user>",
       "-   port 1\n    user[name='a']\n      key[index='1']\n-       data x\n+       data y\n"},
      // As few moves as there can be: two entries changed places with the one that went to the front.
      {"<rule><id>a</id></rule><rule><id>b</id></rule><rule><id>c</id><action>deny</action></rule>",
       "<rule><id>c</id><action>permit</action></rule><rule><id>a</id></rule><rule><id>b</id></rule>",
       "~   rule[id='c'] moved first\n    rule[id='c']\n-     action deny\n+     action permit\n"},
      {"<dns>10.0.0.1</dns><dns>10.0.0.2</dns><dns>10.0.0.3</dns>",
       "<dns>10.0.0.4</dns><dns>10.0.0.2</dns><dns>10.0.0.3</dns><dns>10.0.0.1</dns>",
       "+   dns 10.0.0.4\n~   dns 10.0.0.1 moved after 10.0.0.3\n"},
      {"<rule><id>a</id><port>1</port><port>2</port></rule>", "<rule><id>a</id><port>2</port><port>1</port></rule>",
       "    rule[id='a']\n~     port 2 moved first\n"},
      // A presence container by itself, one case of a choice for another, a container that only holds what is new.
      {"<telnet/><dhcp><client-id>i</client-id></dhcp>", "<gateway>10.0.0.1</gateway><ftp><root>/</root></ftp>",
       "-   dhcp\n-     client-id i\n-   telnet\n+   gateway 10.0.0.1\n    ftp\n+     root /\n"},
      {"<vendor-data><a xmlns=\"urn:a\"><b>1</b></a></vendor-data>",
       "<vendor-data><a xmlns=\"urn:a\"><b>2</b></a></vendor-data>",
       "-   vendor-data\n-     a\n-       b 1\n+   vendor-data\n+     a\n+       b 2\n"},
  };
  for (const auto &row : rows) {
    const std::string text = diff(system(row.from + std::string("<location>l</location>")),
                                  system(row.to + std::string("<location>l</location>")));
    EXPECT_EQ(text, (*row.text == '\0' ? "" : "  system\n") + std::string(row.text)) << row.from << "\n" << row.to;
  }
  EXPECT_EQ(diff("", system("<hostname>a</hostname>")), "  system\n+   hostname a\n");
  EXPECT_EQ(diff(system("<hostname>a</hostname>"), ""), "  system\n-   hostname a\n");
  EXPECT_NE(diff("", system("<hostname>a</hostname>"), ctl_format::xml).find("yang:operation=\"create\""),
            std::string::npos);
  EXPECT_EQ(diff("", "", ctl_format::json), "{}\n");
}

} // namespace
