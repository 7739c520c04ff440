#include <gtest/gtest.h>

#include "libconf/plugin_path.h"

TEST(plugin_path, paths_take_one_form_with_or_without_their_predicates)
{
  const struct {
    const char *path;
    const char *schema_form;
    const char *data_form;
  } rows[] = {
      {"ietf-netconf:edit-config", "/ietf-netconf:edit-config", "/ietf-netconf:edit-config"},
      {"/", "/", "/"},
      {"//m:a///b//", "/m:a/b", "/m:a/b"},
      {"/m:a/n:b/m:c/m:d", "/m:a/n:b/m:c/d", "/m:a/n:b/m:c/d"},
      {"/m:a/m:b[k='x/y']/n:c[]/", "/m:a/b/n:c", "/m:a/b[k='x/y']/n:c"},
      {"m:a/m:l[k1=\"1\",k2=\"]/n:z[\"]/m:v[.=\"m:q\"]", "/m:a/l/v", "/m:a/l[k1=\"1\",k2=\"]/n:z[\"]/v[.=\"m:q\"]"},
      {"/m:a[k='1'][j='2']/m:b", "/m:a/b", "/m:a[k='1'][j='2']/b"},
      {"/m:a[k=\"a\\\"]/b\"]/m:c", "/m:a/c", "/m:a[k=\"a\\\"]/b\"]/c"},
      {"/m:a[k='\"]']/m:c", "/m:a/c", "/m:a[k='\"]']/c"},
      {"/m:a[k='\\']/m:c", "/m:a/c", "/m:a[k='\\']/c"}, // in single quotes a backslash is a plain character
      {"/m:a[b[c='1']/d='2']/m:c", "/m:a/c", "/m:a[b[c='1']/d='2']/c"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(plugin_path_schema2std(row.path), row.schema_form);
    EXPECT_EQ(plugin_path_data2std(row.path), row.data_form);
  }
  for (const char *malformed : {"", "/m:a[k='x]", "/m:a[k='x'", "/m:a]/b", "/m:a[k=\"x\\\"]", "/[k='x']",
                                "/m:a[k='x']b", "/m:a'b'", "/m:a[", "/m:a[]]"}) {
    EXPECT_FALSE(plugin_path_schema2std(malformed)) << malformed;
    EXPECT_FALSE(plugin_path_data2std(malformed)) << malformed;
  }
}
