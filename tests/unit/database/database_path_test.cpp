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
    EXPECT_EQ(db_get_type(row.path), row.type) << row.path;
    ASSERT_EQ(db_find_address(row.path, &address), 0) << row.path;
    EXPECT_EQ(address.key, row.key) << row.path;
    EXPECT_EQ(address.item, row.item) << row.path;
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
}

} // namespace
