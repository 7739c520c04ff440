// What is read back of each kind of node, and what is no node.
#include "database_fixture.h"

namespace {

using database_tree = database_test;

TEST_F(database_tree, nodes_are_read_one_by_one_and_down_to_a_depth)
{
  fill(RUNNING);
  const std::string whole =
      "<top xmlns=\"urn:m\"><leaf>text</leaf><dns>10.1.1.1</dns><user><name>a</name><group>g</group></user>"
      "<user><name>b</name></user><ntp xmlns=\"urn:ext\"><server>s</server></ntp></top>";
  const struct {
    const char *path;
    int depth;
    std::string text;
  } rows[] = {
      {"/", DB_DEPTH_ALL, whole},
      {"/m", DB_DEPTH_ALL, whole},
      {"/m:top", DB_DEPTH_ALL, whole},
      {"/m:top/user[name=\"b\"]", DB_DEPTH_ALL, "<user><name>b</name></user>"},
      {"/m:top/user[name=\"a\"]/group", DB_DEPTH_ALL, "<group>g</group>"},
      {"/m:top/user[name=\"a\"]/name", DB_DEPTH_ALL, "<name>a</name>"}, // beside a hash
      {"/m:top/user[name=\"b\"]/name", DB_DEPTH_ALL, "<name>b</name>"}, // without one
      {"/m:top/dns[.=\"10.1.1.1\"]", DB_DEPTH_ALL, "<dns>10.1.1.1</dns>"},
      {"/m:top/ext:ntp", DB_DEPTH_ALL, "<ntp xmlns=\"urn:ext\"><server>s</server></ntp>"},
      {"/m:top/user[0]/group", DB_DEPTH_ALL, "<group>g</group>"}, // by position
      {"/", 0, "(null)"},
      {"/", 1, "<top xmlns=\"urn:m\"></top>"},
      {"/m:top", 1, "<top xmlns=\"urn:m\"></top>"},
      {"/m:top", 2, "<top xmlns=\"urn:m\"><leaf>text</leaf><ntp xmlns=\"urn:ext\"></ntp></top>"},
      {"/m:top/user", 1, "<user></user>"},
      {"/m:top/user[name=\"a\"]", 1, "<user><name>a</name></user>"},
      {"/m:top/user[name=\"a\"]", 2, "<user><name>a</name><group>g</group></user>"},
      {"/m:top/dns", 2, "<dns>10.1.1.1</dns>"},
      {"/", -2, "(failed)"},
      {"no-path", DB_DEPTH_ALL, "(failed)"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(get_from(RUNNING, row.path, row.depth), row.text) << row.path << ", " << row.depth;
  }
  for (const char *absent :
       {"/x:top", "/m:other", "/m:top/none", "/m:top/user[name=\"c\"]", "/m:top/user[9]",
        "/m:top/user[99999999999999999999]", "/m:top/user[name=\"c\"]/group", "/m:top/user[name=\"b\"]/none", "/x"}) {
    EXPECT_EQ(get_from(RUNNING, absent), "(null)") << absent;
  }
  EXPECT_EQ(get_from(CANDIDATE, "/"), "(null)");
}

TEST_F(database_tree, values_are_escaped_and_the_modules_they_name_are_declared)
{
  const struct {
    std::string value;
    std::string element;
  } rows[] = {
      {"a<b&\"c\"\t\r\n", "<v>a&lt;b&amp;&quot;c&quot;&#9;&#13;&#10;</v>"},
      {"odd:id", "<v xmlns:odd=\"urn:a&amp;b\">odd:id</v>"},
      {"10:20", "<v>10:20</v>"},
      {":x", "<v>:x</v>"},
      {"/m:a/m:b[ext:k='odd:x']/ext:c", "<v xmlns:ext=\"urn:ext\" xmlns:m=\"urn:m\">/m:a/m:b[ext:k='odd:x']/ext:c</v>"},
  };
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  for (const auto &row : rows) {
    set(hdb, "/m:top/v", row.value);
    EXPECT_EQ(get(hdb, "/m:top/v", DB_DEPTH_ALL, DB_TFLAG_TRANS), row.element);
  }
  const std::string odd = "/m:top/l[k=\"a/\\\"]\\\\[,b\",j=\"'<\"]";
  add(hdb, odd);
  EXPECT_EQ(get(hdb, odd, DB_DEPTH_ALL, DB_TFLAG_TRANS), "<l><k>a/&quot;]\\[,b</k><j>'&lt;</j></l>");
}

TEST_F(database_tree, wrong_data_and_paths_are_refused)
{
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  EXPECT_EQ(database_set(hdb, "/m:top", DB_DATA_NODE, "<leaf>a&lt;b</leaf>"), 0);
  EXPECT_EQ(get(hdb, "/m:top/leaf", DB_DEPTH_ALL, DB_TFLAG_TRANS), "<leaf>a&lt;b</leaf>");
  for (const char *element : {"<a><b/></a>", "<a>", ""}) {
    EXPECT_EQ(database_set(hdb, "/m:top", DB_DATA_NODE, element), -1) << element;
  }
  EXPECT_EQ(database_set(hdb, nullptr, DB_DATA_CONTENT, "x"), -1);
  for (const char *path : {"", "/", "m:top", "/top", "/:top", "/m:", "/m:/a", "/m/a:b", "/m:top/l[3]", "/m:top/l[k=\"v",
                           "/m:top/l[k=\"v\"", "/m:top/l[k=\"v\"]x"}) {
    EXPECT_EQ(database_set(hdb, path, DB_DATA_CONTENT, "x"), -1) << path;
  }
}

} // namespace
