// Lines of the shell: their words, what history keeps of them, how candidates are listed.
#include "ctl/ctl_complete.h"

#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ctl/ctl_shell_editor.h"
#include "ctl/ctl_shell_history.h"
#include "support/environment.h"

namespace {

using words_t = std::vector<std::string>;

TEST(ctl_words, are_read_as_an_operator_means_them)
{
  const struct {
    const char *line;
    words_t words;
    size_t last_begin;
    char quote;
  } cases[] = {
      {"", {}, 0, '\0'},
      {"  show  x ", {"show", "x"}, 10, '\0'},
      {"a 'b c'd\\ e \"f\\\"g\\h\"", {"a", "b cd e", "f\"g\\h"}, 12, '\0'},
      {"show route[dest='a b'][\"c ]\"]/x y", {"show", "route[dest='a b'][\"c ]\"]/x", "y"}, 32, '\0'},
      {"show \"user[name='a b", {"show", "user[name='a b"}, 5, '"'},
      {"show user[name='a b", {"show", "user[name='a b"}, 5, '\''},
      {"set x [y z", {"set", "x", "[y", "z"}, 9, '\0'},
      {"set x ''", {"set", "x", ""}, 6, '\0'},
      {"x\\", {"x\\"}, 0, '\0'},
  };
  for (const auto &c : cases) {
    const ctl_line_t line = ctl_split_line(c.line);
    EXPECT_EQ(line.words, c.words) << c.line;
    EXPECT_EQ(line.last_begin, c.last_begin) << c.line;
    EXPECT_EQ(line.quote, c.quote) << c.line;
  }
  EXPECT_FALSE(ctl_split_line("show ").ends_in_word);
  EXPECT_TRUE(ctl_split_line("show").ends_in_word);
}

TEST(ctl_words, are_quoted_so_that_they_are_read_again)
{
  for (const std::string word : {"", "a b", "it's", "user[name='a b']/x", "user[", "user[name='a", "[x y", "a\\b",
                                 "a]b c", "user[\"it's\"]", "\"both' kinds\" \\"}) {
    EXPECT_EQ(ctl_split_line(ctl_quote_word(word)).words, words_t{word}) << word;
    for (char quote : {'\'', '"'}) {
      EXPECT_EQ(ctl_split_line(quote + ctl_quote_word(word, quote) + quote).words, words_t{word}) << word;
    }
  }
  EXPECT_EQ(ctl_quote_word("user[name='a b']"), "user[name='a b']");
}

TEST(ctl_history, keeps_no_secrets)
{
  const std::pair<const char *, const char *> cases[] = {
      {"show /system  ", "show /system"},
      {" set /x 1", ""},
      {"", ""},
      {"set /system/hostname gw", "set /system/hostname gw"},
      {"set '/system/user[a b]/password' hunter2", "set /system/user[a b]/password"},
      {"set --running /ex:server/Shared-Secret 'a b'", "set --running /ex:server/Shared-Secret"},
      {"set /system/user[x]/key[1]/data abc", "set /system/user[x]/key[1]/data"},
      {"set /system/user[password]/uid 5", "set /system/user[password]/uid 5"},
      {"show /system/user[x]/password --value", "show /system/user[x]/password --value"},
  };
  for (const auto &[line, kept] : cases) {
    EXPECT_EQ(ctl_history_line(line), kept) << line;
  }
}

TEST(ctl_history, is_shared_private_and_bounded)
{
  const support::temp_dir dir;
  const std::string path = dir.path() + "/new/folder/history";
  words_t lines;
  ASSERT_EQ(ctl_load_history(path, &lines), 0);
  for (size_t i = 0; i <= 2 * CTL_MOST_HISTORY; i++) {
    ASSERT_EQ(ctl_append_history(path, "line " + std::to_string(i)), 0);
  }
  struct stat state = {};
  ASSERT_EQ(stat(path.c_str(), &state), 0);
  EXPECT_EQ(state.st_mode & 0777U, 0600U);
  for (int round = 0; round < 2; round++) { // what was cut off is the same afterwards
    ASSERT_EQ(ctl_load_history(path, &lines), 0);
    ASSERT_EQ(lines.size(), CTL_MOST_HISTORY);
    EXPECT_EQ(lines.front(), "line " + std::to_string(CTL_MOST_HISTORY + 1));
  }
  EXPECT_LT(support::read_file(path, 0).size(), CTL_MOST_HISTORY * 11);
  EXPECT_EQ(ctl_load_history("/proc/nowhere/history", &lines), -1);
}

TEST(ctl_columns, fit_the_width_and_end_somewhere)
{
  EXPECT_EQ(ctl_columns({"a", "bbb", "cc", "d", "e"}, 12), "a    d\nbbb  e\ncc\n");
  EXPECT_EQ(ctl_columns({"much too wide"}, 5), "much too wide\n");
  const std::string many = ctl_columns(words_t(1000, "xxxx"), 11);
  EXPECT_EQ(std::count(many.begin(), many.end(), '\n'), 101);
  EXPECT_TRUE(many.ends_with("... and 800 more\n"));
}

} // namespace
