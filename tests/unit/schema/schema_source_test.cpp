#include <gtest/gtest.h>

#include "ymgrd/schema/schema_internal.h"

TEST(schema_source, revision_statement_is_told_from_look_alikes)
{
  EXPECT_TRUE(schema_yang_has_revision("// x\nmodule/**/ a{namespace 'u';prefix p;revision \"2026-01-01\"{}}"));
  EXPECT_TRUE(schema_yang_has_revision("module a { description \"a } \\\" { b\" + '}'; revision 2026-01-01 { } }"));
  const char *without[] = {
      "module a { /* revision 2026-01-01; */ prefix p; // revision 2026-01-01;\n }",
      "module a { description \"; revision 2026-01-01;\"; }",
      "module a { description '; \\'; leaf revision { type string; } }",
      "module a { description\n revision; }",
      "module a { import b { prefix b; revision-date 2026-01-01; } container c { x:revision 2026-01-01; } }",
      "module a { grouping g { revision 2026-01-01; } }",
      "module a { description \"open; revision 2026-01-01;",
      "module a { /* open ; revision 2026-01-01;",
      "",
  };
  for (const char *text : without) {
    EXPECT_FALSE(schema_yang_has_revision(text)) << text;
  }
}
