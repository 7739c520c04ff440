#include "ymgrd/database/database_path.h"

#include <gtest/gtest.h>

namespace {

TEST(database_path, paths_are_classified_and_cut_into_key_and_item)
{
  struct row_t {
    const char *path;
    db_node_type_t type;
    const char *key;
    const char *item;
  };
  const row_t rows[] = {
      {"/m:top", DB_NODE_TOPNODE, "/m", "top"},
      {"/m:top/a", DB_NODE_OTHER, "/m/top", "a"},
      {"/m:top/x:a", DB_NODE_OTHER, "/m/top", "x:a"},
      {"/m:top/l[k=\"v\"]", DB_NODE_LIST, "/m/top/l", "k=\"v\""},
      {"/m:top/l[k=\"a/b]c\",j=\"\\\"]/\"]", DB_NODE_LIST, "/m/top/l", "k=\"a/b]c\",j=\"\\\"]/\""},
      {"/m:top/l[k='a/\"]']/b", DB_NODE_OTHER, "/m/top/l[k='a/\"]']", "b"},
      {"/m:top/d[.=\"1:2\"]", DB_NODE_LEAFLIST, "/m/top/d", ".=\"1:2\""},
      {"/m:l[k=\"v\"]", DB_NODE_LIST, "/m/l", "k=\"v\""},
  };
  for (const row_t &row : rows) {
    db_address_t address;
    std::string key;
    std::string item;
    EXPECT_EQ(db_get_type(row.path), row.type) << row.path;
    ASSERT_EQ(db_find_address(row.path, &address), 0) << row.path;
    EXPECT_EQ(address.key, row.key) << row.path;
    EXPECT_EQ(address.item, row.item) << row.path;
    ASSERT_EQ(path2key_value(row.path, &key, &item), 0) << row.path;
    EXPECT_EQ(key, row.key) << row.path;
    EXPECT_EQ(item, row.item) << row.path;
  }
}

TEST(database_path, wrong_paths_are_errors)
{
  for (const char *path : {"", "/", "m:top", "/top", "/:top", "/m:", "/m:/a", "/m/a:b", "/m:top/l[3]", "/m:top/l[k=\"v",
                           "/m:top/l[k=\"v\"", "/m:top/l[k=\"v\"]x"}) {
    db_address_t address;
    EXPECT_EQ(db_get_type(path), DB_NODE_ERROR) << path;
    EXPECT_EQ(db_find_address(path, &address), -1) << path;
  }
  std::string key = "untouched";
  EXPECT_EQ(path2key_value("/", &key, &key), -1);
  EXPECT_EQ(path2key_value(nullptr, &key, &key), 0);
  EXPECT_EQ(key, "untouched");
}

TEST(database_path, module_of_a_path_ends_at_the_first_slash_or_colon)
{
  EXPECT_EQ(belong_module("/m:top/a"), "/m");
  EXPECT_EQ(belong_module("/m/top"), "/m");
  EXPECT_EQ(belong_module("/m"), "/m");
  EXPECT_EQ(belong_module("/"), "");
  EXPECT_EQ(belong_module("m:top"), "");
}

TEST(database_path, stored_values_have_type_text_and_four_zero_bytes)
{
  std::string value = db_make_value(DB_VALUE_NODE, "ab");
  ASSERT_EQ(value.size(), 10U);
  int32_t type = 0;
  std::string_view text;
  ASSERT_EQ(db_read_value(value, &type, &text), 0);
  EXPECT_EQ(type, DB_VALUE_NODE);
  EXPECT_EQ(text, "ab");
  EXPECT_EQ(db_make_value(DB_VALUE_LIST, ""), std::string("\2\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(db_read_value("abc", &type, &text), -1);
  ASSERT_EQ(db_read_value(std::string_view("\1\0\0\0text without end", 20), &type, &text), 0);
  EXPECT_EQ(text, "text without end");
}

TEST(database_path, predicates_are_split_outside_of_quotes)
{
  std::string_view predicate = "a=\"1,2\\\"\",b='x\"y',c=plain";
  std::string_view name;
  std::string value;
  std::string all;
  while (db_next_predicate_pair(&predicate, &name, &value)) {
    all.append(name).append(":").append(value).append(";");
  }
  EXPECT_EQ(all, "a:1,2\";b:x\"y;c:plain;");
  EXPECT_TRUE(predicate.empty());
  predicate = "a=\"1\"x";
  EXPECT_FALSE(db_next_predicate_pair(&predicate, &name, &value));
}

TEST(database_path, xml_escaping_covers_seven_characters_both_ways)
{
  const std::string plain = "a&<>\"\t\r\n'\x7f\xc3\xa4;";
  wiped_string escaped;
  handle_special_key(&escaped, plain, DB_XML_ESCAPE);
  EXPECT_EQ(escaped, "a&amp;&lt;&gt;&quot;&#9;&#13;&#10;'\x7f\xc3\xa4;");
  wiped_string again;
  handle_special_key(&again, escaped, DB_XML_UNESCAPE);
  EXPECT_EQ(again, plain.c_str());
  wiped_string odd;
  handle_special_key(&odd, "&unknown;&&lt", DB_XML_UNESCAPE);
  EXPECT_EQ(odd, "&unknown;&&lt");
}

} // namespace
