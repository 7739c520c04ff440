#include <gtest/gtest.h>

#include "libconf/plugin_message.h"
#include "ymgrd/rpc/lyxml.h"

namespace {

// Before any test uses libxml2: all of them run with the clearing allocator.
const bool memory_is_wiped = (lyxml_init_wiping_memory(), true);

std::string repeat(const std::string &text, int count)
{
  std::string result;
  for (int i = 0; i < count; i++) {
    result += text;
  }
  return result;
}

std::string nested(int depth)
{
  return repeat("<a>", depth) + repeat("</a>", depth);
}

std::string attributes(int count, const std::string &name)
{
  std::string text;
  for (int i = 0; i < count; i++) {
    text += " " + name + std::to_string(i) + "=\"u:x\"";
  }
  return text;
}

} // namespace

TEST(lyxml_parse, hostile_documents_are_refused)
{
  ASSERT_TRUE(memory_is_wiped);
  const std::string documents[] = {"",
                                   "not xml",
                                   "<a><b></a>",
                                   "<a/><b/>",
                                   "<a b=\"1\" b=\"2\"/>",
                                   "<p:a/>",
                                   "<!DOCTYPE a><a/>",
                                   "<!DOCTYPE a [<!ENTITY e SYSTEM \"file:///etc/passwd\">]><a>&e;</a>",
                                   "<!DOCTYPE a [<!ENTITY x \"ha\"><!ENTITY y \"&x;&x;&x;\">]><a>&y;</a>",
                                   "<!DOCTYPE a SYSTEM \"http://127.0.0.1:1/a.dtd\"><a/>",
                                   "<a>&undefined;</a>",
                                   "<a>\xE9</a>",
                                   "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xE9</a>",
                                   std::string("\xFF\xFE<\0a\0/\0>\0", 10),
                                   std::string("<a>\0</a>", 8),
                                   nested(257),
                                   nested(2000000),
                                   repeat("<a>", 1000000),
                                   "<a" + attributes(40000, "b") + "/>",
                                   "<a" + attributes(60, "xmlns:b") + ">" +
                                       repeat("<a" + attributes(60, "xmlns:c") + ">", 4) + repeat("</a>", 5)};
  for (const std::string &document : documents) {
    EXPECT_EQ(nullptr, lyxml_parse_mem(document)) << document.substr(0, 200);
    EXPECT_EQ(nullptr, plugin_parse_message(document)) << document.substr(0, 200);
  }
}

TEST(lyxml_parse, ordinary_documents_keep_their_content)
{
  const std::pair<std::string, std::string> documents[] = {
      {"<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<a/>", "<a/>"},
      {"\xEF\xBB\xBF<a/>", "<a/>"},
      {"<a x=\"a>b='\"><![CDATA[<&>]]></a>", "<a x=\"a&gt;b='\">&lt;&amp;&gt;</a>"},
      {"<a>one<!-- = > < -->two<?pi = ?></a><!-- end -->", "<a>onetwo</a>"},
      {"<a><b> </b>\n</a>", "<a><b> </b>\n</a>"},
      {"<p:a xmlns:p=\"u:x\" p:i=\"1\">\xC3\xA9</p:a>", "<p:a xmlns:p=\"u:x\" p:i=\"1\">\xC3\xA9</p:a>"},
      {nested(256), repeat("<a>", 255) + "<a/>" + repeat("</a>", 255)},
  };
  for (const auto &[document, printed] : documents) {
    lyxml_ptr root = lyxml_parse_mem(document);
    ASSERT_NE(nullptr, root) << document;
    EXPECT_EQ(printed, lyxml_print_mem(root.get()));
  }
}
