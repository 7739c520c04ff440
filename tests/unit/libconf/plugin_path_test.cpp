#include <gtest/gtest.h>

#include "libconf/plugin_path.h"

namespace {

TEST(plugin_path, schema_paths_take_one_form)
{
  EXPECT_EQ(plugin_path_schema2std("ietf-netconf:edit-config"), "/ietf-netconf:edit-config");
  EXPECT_EQ(plugin_path_schema2std("/m:a/m:b[k='x/y']/n:c[]/"), "/m:a/b/n:c");
  EXPECT_EQ(plugin_path_schema2std("//m:a///b[]//"), "/m:a/b");
  EXPECT_EQ(plugin_path_schema2std("/m:a/n:b/m:c/m:d"), "/m:a/n:b/m:c/d");
  EXPECT_EQ(plugin_path_schema2std("/"), "/");
  EXPECT_EQ(*plugin_path_schema2std(*plugin_path_schema2std("m:a/m:b[]")), "/m:a/b");
}

TEST(plugin_path, data_paths_keep_their_predicates)
{
  EXPECT_EQ(plugin_path_data2std("/m:a/m:b[k='x/y']/n:c[]/"), "/m:a/b[k='x/y']/n:c");
  EXPECT_EQ(plugin_path_data2std("m:a/m:l[k1=\"1\",k2=\"]/n:z[\"]/m:v[.=\"m:q\"]"),
            "/m:a/l[k1=\"1\",k2=\"]/n:z[\"]/v[.=\"m:q\"]");
  EXPECT_EQ(plugin_path_data2std("/m:a[k='1'][j='2']/m:b"), "/m:a[k='1'][j='2']/b");
}

TEST(plugin_path, quoted_values_may_hold_quotes_and_brackets)
{
  EXPECT_EQ(plugin_path_schema2std("/m:a[k=\"a\\\"]/b\"]/m:c"), "/m:a/c");
  EXPECT_EQ(plugin_path_schema2std("/m:a[k='\"]']/m:c"), "/m:a/c");
  EXPECT_EQ(plugin_path_schema2std("/m:a[k='\\']/m:c"), "/m:a/c"); // in single quotes a backslash is a plain character
  EXPECT_EQ(plugin_path_schema2std("/m:a[b[c='1']/d='2']/m:c"), "/m:a/c");
}

TEST(plugin_path, malformed_paths_are_refused)
{
  for (const char *path : {"", "/m:a[k='x]", "/m:a[k='x'", "/m:a]/b", "/m:a[k=\"x\\\"]", "/[k='x']", "/m:a[k='x']b",
                           "/m:a'b'", "/m:a[", "/m:a[]]"}) {
    EXPECT_FALSE(plugin_path_schema2std(path)) << path;
    EXPECT_FALSE(plugin_path_data2std(path)) << path;
  }
}

} // namespace
