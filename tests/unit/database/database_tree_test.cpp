// What Redis holds for each kind of node, and what is read back.
#include "database_fixture.h"

#include "ymgrd/core/context.h"
#include "ymgrd/crypto/encrypt.h"

namespace {

constexpr const char EMPTY_NODE[] = "\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00\n";
constexpr const char LIST_NODE[] = "\\x02\\x00\\x00\\x00\\x00\\x00\\x00\\x00\n";

using database_tree = database_test;

std::string leaf(const std::string &text)
{
  return "\\x01\\x00\\x00\\x00" + text + "\\x00\\x00\\x00\\x00\n";
}

TEST_F(database_tree, layout_of_every_kind_of_node)
{
  fill(RUNNING);
  EXPECT_EQ(server_.dump(REDIS_RUNNING_DB_MASTER),
            std::string("hash /\n  m = ") + EMPTY_NODE + "hash /m\n  top = " + EMPTY_NODE + "hash /m/top\n  dns = " +
                LIST_NODE + "  ext:ntp = " + EMPTY_NODE + "  leaf = " + leaf("text") + "  user = " + LIST_NODE +
                "list /m/top/dns\n  .=\"10.1.1.1\"\nhash /m/top/ext:ntp\n  server = " + leaf("s") +
                "list /m/top/user\n  name=\"a\"\n  name=\"b\"\nhash /m/top/user[name=\"a\"]\n  group = " + leaf("g"));
  EXPECT_EQ(server_.dump(REDIS_RUNNING_DB_CLUSTER), "");
}

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
}

TEST_F(database_tree, absent_nodes_read_as_null_and_wrong_arguments_as_failure)
{
  fill(RUNNING);
  for (const char *path : {"/x:top", "/m:other", "/m:top/none", "/m:top/user[name=\"c\"]", "/m:top/user[9]",
                           "/m:top/user[name=\"c\"]/group", "/m:top/user[name=\"b\"]/none", "/x"}) {
    EXPECT_EQ(get_from(RUNNING, path), "(null)") << path;
  }
  EXPECT_EQ(get_from(CANDIDATE, "/"), "(null)");
  EXPECT_EQ(get_from(RUNNING, "/", 0), "(null)");
  EXPECT_EQ(get_from(RUNNING, "/", -2), "(failed)");
  EXPECT_EQ(get_from(RUNNING, "no-path"), "(failed)");
  EXPECT_NE(log_of([&] {
              get_from(RUNNING, "/m:top/none");
            }).find("[ERROR] Value is NULL for key:field(/m/top:none)  from path(/m:top/none).\n"),
            std::string::npos);
  EXPECT_NE(log_of([&] {
              get_from(RUNNING, "/m:top/user[name=\"c\"]");
            }).find("[WARN] Invalid value(name=\"c\") in key(/m/top/user).\n"),
            std::string::npos);
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

TEST_F(database_tree, entries_can_be_addressed_by_position)
{
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  for (const char *path : {"/m:top/l[k=\"[0]\"]", "/m:top/l[k=\"b\"]", "/m:top/l[k=\"[0]\"]/i[j=\"x\"]"}) {
    add(hdb, path);
  }
  set(hdb, "/m:top/l[k=\"[0]\"]/i[j=\"x\"]/v", "deep");
  commit_and_close(hdb);
  EXPECT_EQ(get_from(RUNNING, "/m:top/l[1]"), "<l><k>b</k></l>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/l[0]/i[0]/v"), "<v>deep</v>");
  EXPECT_EQ(get_from(RUNNING, "/m:top/l[2]"), "(null)");
  EXPECT_EQ(get_from(RUNNING, "/m:top/l[99999999999999999999]"), "(null)");
}

TEST_F(database_tree, values_are_escaped_and_the_modules_they_name_are_declared)
{
  struct row_t {
    std::string value;
    std::string element;
  };
  const row_t rows[] = {
      {"a<b&\"c\"", "<v>a&lt;b&amp;&quot;c&quot;</v>"},
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

TEST_F(database_tree, elements_in_single_quotes_by_others_are_understood)
{
  server_.command(REDIS_RUNNING_DB_MASTER, {"HSET", "/", "m", std::string("\1\0\0\0\0\0\0\0", 8)});
  server_.command(REDIS_RUNNING_DB_MASTER, {"HSET", "/m", "l", std::string("\2\0\0\0\0\0\0\0", 8)});
  server_.command(REDIS_RUNNING_DB_MASTER, {"RPUSH", "/m/l", "k='a,b'", "k='c'"});
  EXPECT_EQ(get_from(RUNNING, "/"), "<l xmlns=\"urn:m\"><k>a,b</k></l><l xmlns=\"urn:m\"><k>c</k></l>");
  EXPECT_EQ(get_from(RUNNING, "/m:l[k='c']"), "<l xmlns=\"urn:m\"><k>c</k></l>");
}

TEST_F(database_tree, sensitive_values_are_decrypted_only_on_demand)
{
  encrypt_hooks_t hooks = {};
  hooks.decrypt = [](std::string_view cipher, wiped_string *value) {
    *value = "secret&";
    return cipher == "#%good" ? 0 : -1;
  };
  encrypt_set_hooks(hooks);
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  set(hdb, "/m:top/a", "#%good");
  set(hdb, "/m:top/b", "#%bad");
  commit_and_close(hdb);
  hdb = database_open(RUNNING);
  EXPECT_EQ(get(hdb, "/m:top"), "<top xmlns=\"urn:m\"><a>#%good</a><b>#%bad</b></top>");
  EXPECT_EQ(get(hdb, "/m:top", DB_DEPTH_ALL, DB_TFLAG_DECRYPT),
            "<top xmlns=\"urn:m\"><a>secret&amp;</a><b>#%bad</b></top>");
  database_close(hdb);
  encrypt_set_hooks({});
}

TEST_F(database_tree, setting_by_element_and_wrong_data)
{
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  EXPECT_EQ(database_set(hdb, "/m:top", DB_DATA_NODE, "<leaf>a&lt;b</leaf>"), 0);
  EXPECT_EQ(get(hdb, "/m:top/leaf", DB_DEPTH_ALL, DB_TFLAG_TRANS), "<leaf>a&lt;b</leaf>");
  EXPECT_EQ(database_set(hdb, "/m:top", DB_DATA_NODE, "<a><b/></a>"), -1);
  EXPECT_EQ(database_set(hdb, "/m:top", DB_DATA_NODE, "<a>"), -1);
  EXPECT_EQ(database_set(hdb, "/m:top", DB_DATA_TREE, "<a/>"), -1);
  EXPECT_EQ(database_set(hdb, "/m:top/x", 9, "x"), -1);
  EXPECT_EQ(database_set(hdb, "/nomodule", DB_DATA_CONTENT, "x"), -1);
  EXPECT_EQ(database_new(hdb, "/m:top/l[k=\"a\"]", nullptr, 0, DB_DATA_CONTENT, "x"), -1);
  EXPECT_EQ(database_set(hdb, nullptr, DB_DATA_CONTENT, "x"), -1);
  EXPECT_EQ(database_delete(hdb, nullptr), -1);
  database_close(hdb);
}

TEST_F(database_tree, large_lists_are_read_whole_and_in_order)
{
  constexpr int ENTRIES = 5000; // more than one piece of the reader, entries with keys only among them
  int hdb = begin(RUNNING);
  set(hdb, "/m:top");
  std::string expected = "<top xmlns=\"urn:m\">";
  for (int i = 0; i < ENTRIES; i++) {
    std::string number = std::to_string(i);
    std::string entry = "/m:top/l[k=\"" + number + "\"]";
    add(hdb, entry);
    expected += "<l><k>" + number + "</k>";
    if (i % 3 != 0) {
      set(hdb, entry + "/c");
      add(hdb, entry + "/c/d[.=\"x\"]");
      expected += "<c><d>x</d></c>";
    }
    expected += "</l>";
  }
  commit_and_close(hdb);
  std::string text;
  hdb = database_open(RUNNING);
  long long commands = commands_of([&] { text = get(hdb, "/"); });
  database_close(hdb);
  EXPECT_TRUE(text == expected + "</top>");
  EXPECT_LT(commands, 3 * ENTRIES + 10); // one for each hash and list
}

TEST_F(database_tree, a_key_of_a_foreign_type_is_an_error)
{
  fill(RUNNING);
  server_.command(REDIS_RUNNING_DB_MASTER, {"DEL", "/m/top/user"});
  server_.command(REDIS_RUNNING_DB_MASTER, {"SET", "/m/top/user", "x"});
  EXPECT_EQ(get_from(RUNNING, "/"), "(failed)");
  server_.command(REDIS_RUNNING_DB_MASTER, {"HSET", "/m/top", "leaf", "x"});
  EXPECT_EQ(get_from(RUNNING, "/m:top/leaf"), "(failed)");
}

} // namespace
