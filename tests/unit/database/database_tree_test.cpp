// What is read back of each kind of node.
#include "database_fixture.h"

namespace {

using database_tree = database_test;

TEST_F(database_tree, reading_gives_namespaces_where_they_change_and_keys_from_the_predicates)
{
  fill(RUNNING);
  EXPECT_EQ(get_from(RUNNING, "/"),
            "<top xmlns=\"urn:m\"><leaf>text</leaf><dns>10.1.1.1</dns><user><name>a</name><group>g</group></user>"
            "<user><name>b</name></user><ntp xmlns=\"urn:ext\"><server>s</server></ntp></top>");
  EXPECT_EQ(get_from(RUNNING, "/m:top"), get_from(RUNNING, "/"));
  EXPECT_EQ(get_from(RUNNING, "/m"), get_from(RUNNING, "/"));
  EXPECT_EQ(get_from(RUNNING, "/m:top/user[name=\"b\"]"), "<user><name>b</name></user>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/user[name=\"a\"]/group"), "<group>g</group>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/user[name=\"a\"]/name"), "<name>a</name>"); // beside a hash
  EXPECT_EQ(get_from(RUNNING, "/m:top/user[name=\"b\"]/name"), "<name>b</name>"); // without one
  EXPECT_EQ(get_from(RUNNING, "/m:top/dns[.=\"10.1.1.1\"]"), "<dns>10.1.1.1</dns>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/ext:ntp"), "<ntp xmlns=\"urn:ext\"><server>s</server></ntp>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/user[0]/group"), "<group>g</group>"); // by position
}

TEST_F(database_tree, absent_nodes_read_as_null_and_wrong_arguments_as_failure)
{
  fill(RUNNING);
  for (const char *path :
       {"/x:top", "/m:other", "/m:top/none", "/m:top/user[name=\"c\"]", "/m:top/user[9]",
        "/m:top/user[99999999999999999999]", "/m:top/user[name=\"c\"]/group", "/m:top/user[name=\"b\"]/none", "/x"}) {
    EXPECT_EQ(get_from(RUNNING, path), "(null)") << path;
  }
  EXPECT_EQ(get_from(CANDIDATE, "/"), "(null)");
  EXPECT_EQ(get_from(RUNNING, "/", 0), "(null)");
  EXPECT_EQ(get_from(RUNNING, "/", -2), "(failed)");
  EXPECT_EQ(get_from(RUNNING, "no-path"), "(failed)");
}

TEST_F(database_tree, depth_limits_what_is_read)
{
  fill(RUNNING);
  EXPECT_EQ(get_from(RUNNING, "/m:top", 1), "<top xmlns=\"urn:m\"></top>");
  EXPECT_EQ(get_from(RUNNING, "/m:top", 2),
            "<top xmlns=\"urn:m\"><leaf>text</leaf><ntp xmlns=\"urn:ext\"></ntp></top>");
  EXPECT_EQ(get_from(RUNNING, "/", 1), "<top xmlns=\"urn:m\"></top>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/user[name=\"a\"]", 1), "<user><name>a</name></user>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/user[name=\"a\"]", 2), "<user><name>a</name><group>g</group></user>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/user", 1), "<user></user>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/dns", 2), "<dns>10.1.1.1</dns>");
}

TEST_F(database_tree, values_are_escaped_and_the_modules_they_name_are_declared)
{
  struct row_t {
    std::string value;
    std::string element;
  };
  const row_t rows[] = {
      {"a<b&\"c\"\t\r\n", "<v>a&lt;b&amp;&quot;c&quot;&#9;&#13;&#10;</v>"},
      {"ext:id", "<v xmlns:ext=\"urn:ext\">ext:id</v>"},
      {"e:id", "<v xmlns:e=\"urn:ext\">e:id</v>"},
      {"odd:id", "<v xmlns:odd=\"urn:a&amp;b\">odd:id</v>"},
      {"10:20", "<v>10:20</v>"},
      {":x", "<v>:x</v>"},
      {"/m:a/m:b[ext:k='odd:x']/ext:c", "<v xmlns:ext=\"urn:ext\" xmlns:m=\"urn:m\">/m:a/m:b[ext:k='odd:x']/ext:c</v>"},
  };
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  for (const row_t &row : rows) {
    set(hdb, "/m:top/v", row.value);
    EXPECT_EQ(get(hdb, "/m:top/v", DB_DEPTH_ALL, DB_TFLAG_TRANS), row.element);
  }
  set(hdb, "/m:top/ext:v", "m:id");
  EXPECT_EQ(get(hdb, "/m:top/ext:v", DB_DEPTH_ALL, DB_TFLAG_TRANS), "<v xmlns=\"urn:ext\" xmlns:m=\"urn:m\">m:id</v>");
  const std::string odd = "/m:top/l[k=\"a/\\\"]\\\\[,b\",j=\"'<\"]";
  add(hdb, odd);
  set(hdb, odd + "/v", "1");
  commit_and_close(hdb);
  EXPECT_EQ(get_from(RUNNING, odd), "<l><k>a/&quot;]\\[,b</k><j>'&lt;</j><v>1</v></l>");
}

TEST_F(database_tree, wrong_data_is_refused)
{
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  EXPECT_EQ(database_set(hdb, "/m:top", DB_DATA_NODE, "<leaf>a&lt;b</leaf>"), 0);
  EXPECT_EQ(get(hdb, "/m:top/leaf", DB_DEPTH_ALL, DB_TFLAG_TRANS), "<leaf>a&lt;b</leaf>");
  for (const char *element : {"<a><b/></a>", "<a>", ""}) {
    EXPECT_EQ(database_set(hdb, "/m:top", DB_DATA_NODE, element), -1) << element;
  }
  EXPECT_EQ(database_set(hdb, "/nomodule", DB_DATA_CONTENT, "x"), -1);
  EXPECT_EQ(database_set(hdb, nullptr, DB_DATA_CONTENT, "x"), -1);
}

} // namespace
