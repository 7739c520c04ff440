#include <string>

#include <gtest/gtest.h>

#include "ymgrd/datastore/dbkey.h"

TEST(dbkey_text, quoting_a_value_and_unquoting_it_gives_the_value_back)
{
  const std::string values[] = {"", "plain", "a\"b", "\\", "\\\\\"", "\"quoted\"", "a/b,c]d[e='f'", "tail\\"};
  for (const std::string &value : values) {
    std::string quoted = datastore_value_add_quotes(value);
    EXPECT_EQ(value, datastore_value_rm_quotes(std::string_view(quoted)));
    datastore_value_rm_quotes(quoted.data());
    EXPECT_STREQ(value.c_str(), quoted.c_str());
  }
  EXPECT_EQ("\"a\\\"b\\\\\"", datastore_value_add_quotes("a\"b\\"));
}

TEST(dbkey_text, separators_inside_quoted_values_are_not_found)
{
  const std::string key = R"(/m:a/l[k="x/\"/[\\",j="2"]/leaf)";
  const char *begin = key.c_str();
  EXPECT_EQ(begin + key.rfind('/'), datastore_find_last_key_char(begin, begin, '/'));
  EXPECT_EQ(begin + key.find('['), datastore_find_last_key_char(begin, begin, '['));
  EXPECT_EQ(nullptr, datastore_find_last_key_char(begin, begin + key.rfind('/') + 1, '/'));
  EXPECT_EQ(begin + key.rfind('/'), datastore_find_next_key_char(begin, begin + key.find("l[") + 1, '/'));
  EXPECT_EQ(nullptr, datastore_find_next_key_char(begin, begin, '!'));
  EXPECT_EQ(1, datastore_is_in_quotes(begin, begin + key.find("/[\\"))); // behind an escaped quote
  EXPECT_EQ(0, datastore_is_in_quotes(begin, begin + key.find(",j")));   // behind a closing quote after two backslashes
  EXPECT_EQ(0, datastore_is_in_quotes(begin + 3, begin));
  EXPECT_EQ(0, datastore_is_in_quotes(nullptr, begin));
}

TEST(dbkey_text, values_of_a_path_are_quoted_whatever_form_they_had)
{
  EXPECT_EQ(R"(/m:a/l[k="v",j="w"]/x[.="5"])", datastore_path_add_quotes(R"(/m:a/l[k=v,j='w']/x[.="5"])"));
  EXPECT_EQ(R"(/m:l[k="say \"hi, ]\"",j=""])", datastore_path_add_quotes(R"(/m:l[k='say "hi, ]"',j=])"));
  EXPECT_EQ(R"(/m:l[k="a\"]=b"]/c)", datastore_path_add_quotes(R"(/m:l[k="a\"]=b"]/c)"));
  EXPECT_EQ("/m:l[]/x", datastore_path_add_quotes("/m:l[]/x"));
  EXPECT_EQ("/m:l[k=\"'open\"", datastore_path_add_quotes("/m:l[k='open"));
}
