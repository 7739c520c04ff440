// The words of a line.
#include "ctl/ctl_complete.h"

namespace {

constexpr std::string_view BLANKS = " \t\r\n";

bool is_one_of(char c, std::string_view set)
{
  return set.find(c) != std::string_view::npos;
}

// Takes a line in, character by character.
class line_reader {
public:
  explicit line_reader(std::string_view line) : line_(line) {}
  ctl_line_t read();

private:
  void read_quoted(char c);
  void read_plain(char c);
  bool take_escaped(std::string_view which);

  std::string_view line_;
  size_t at_ = 0;
  bool in_brackets_ = false;
  ctl_line_t result_;
};

ctl_line_t line_reader::read()
{
  for (; at_ < line_.size(); at_++) {
    const char c = line_[at_];
    if (result_.quote != '\0') {
      read_quoted(c);
    } else if (!in_brackets_ && is_one_of(c, BLANKS)) {
      result_.ends_in_word = false;
    } else {
      if (!result_.ends_in_word) {
        result_.words.emplace_back();
        result_.last_begin = at_;
        result_.ends_in_word = true;
      }
      read_plain(c);
    }
  }
  if (!result_.ends_in_word) {
    result_.last_begin = line_.size();
  }
  return std::move(result_);
}

void line_reader::read_quoted(char c)
{
  const bool is_end = c == result_.quote;
  if (is_end) {
    result_.quote = '\0';
  }
  if (in_brackets_ || (!is_end && (c != '\\' || result_.quote != '"' || !take_escaped("\"\\")))) {
    result_.words.back() += c;
  }
}

void line_reader::read_plain(char c)
{
  std::string &word = result_.words.back();
  if (is_one_of(c, "'\"")) {
    result_.quote = c;
    if (!in_brackets_) {
      return;
    }
  } else if (in_brackets_) {
    in_brackets_ = c != ']';
  } else if (c == '\\' && take_escaped({})) {
    return;
  } else if (c == '[' && !word.empty()) {
    in_brackets_ = true;
  }
  word += c;
}

// Takes the character behind a backslash when it is in `which`, or any when that is empty.
bool line_reader::take_escaped(std::string_view which)
{
  if (at_ + 1 == line_.size() || (!which.empty() && !is_one_of(line_[at_ + 1], which))) {
    return false;
  }
  result_.words.back() += line_[++at_];
  return true;
}

std::string escape(std::string_view word, std::string_view which)
{
  std::string text;
  for (char c : word) {
    text.append(is_one_of(c, which) ? 1 : 0, '\\') += c;
  }
  return text;
}

// With backslashes outside of brackets only.
std::string escape_around_brackets(std::string_view word)
{
  std::string text;
  while (!word.empty()) {
    const size_t open = word.find('[');
    text += escape(word.substr(0, open), " \t'\"\\");
    if (open == std::string_view::npos) {
      break;
    }
    word.remove_prefix(open);
    char quote = '\0';
    size_t size = 0;
    for (; size < word.size() && (quote != '\0' || word[size] != ']'); size++) {
      const char c = word[size];
      quote = c == quote ? '\0' : quote == '\0' && is_one_of(c, "'\"") ? c : quote;
    }
    text += word.substr(0, size);
    word.remove_prefix(size);
  }
  return text;
}

} // namespace

ctl_line_t ctl_split_line(std::string_view line)
{
  return line_reader(line).read();
}

std::string ctl_quote_word(std::string_view word, char quote)
{
  if (quote == '"') {
    return escape(word, "\"\\");
  }
  if (quote == '\0') {
    std::string plain = escape_around_brackets(word);
    if (ctl_split_line(plain).words == std::vector<std::string>{std::string(word)}) {
      return plain;
    }
  }
  // Nothing can be escaped between these: a quote in the word ends them, stands for itself, and begins them again.
  std::string text(quote == '\0' ? 1 : 0, '\'');
  for (char c : word) {
    text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return text + (quote == '\0' ? "'" : "");
}
