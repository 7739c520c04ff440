#include "ymgrd/datastore/dbkey.h"

#include <cstring>

namespace {

// Follows a key from its begin and knows whether the next character lies inside a quoted value. A double quote behind
// an odd number of backslashes is part of the value.
class quote_scanner {
public:
  bool in_quotes() const { return in_quotes_; }
  void pass(char c)
  {
    if (c == '\\') {
      backslashes_++;
      return;
    }
    if (c == '"' && backslashes_ % 2 == 0) {
      in_quotes_ = !in_quotes_;
    }
    backslashes_ = 0;
  }

private:
  bool in_quotes_ = false;
  size_t backslashes_ = 0;
};

bool is_quoted(std::string_view text)
{
  return text.size() >= 2 && text.front() == '"' && text.back() == '"';
}

// Length of the value at the begin of `text`, its quotes included: up to its closing quote, or, for a bare one, up to
// the separator behind it. An unclosed quote reaches to the end.
size_t predicate_value_length(std::string_view text)
{
  if (text.front() == '\'') { // as in XPath, where nothing is escaped
    size_t closing = text.find('\'', 1);
    return closing == std::string_view::npos ? text.size() : closing + 1;
  }
  if (text.front() == '"') {
    quote_scanner scanner;
    size_t length = 0;
    do {
      scanner.pass(text[length++]);
    } while (length < text.size() && scanner.in_quotes());
    return length;
  }
  size_t separator = text.find_first_of(",]");
  return separator == std::string_view::npos ? text.size() : separator;
}

std::string predicate_value_quoted(std::string_view value)
{
  if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'') {
    return datastore_value_add_quotes(value.substr(1, value.size() - 2));
  }
  return is_quoted(value) ? std::string(value) : datastore_value_add_quotes(value);
}

// XPath has no escapes: a value with both kinds of quotes is put together from pieces.
std::string xpath_literal(const std::string &value)
{
  if (value.find('\'') == std::string::npos) {
    return "'" + value + "'";
  }
  if (value.find('"') == std::string::npos) {
    return '"' + value + '"';
  }
  std::string literal = "concat('";
  for (char c : value) {
    literal += c == '\'' ? std::string("', \"'\", '") : std::string(1, c);
  }
  return literal + "')";
}

} // namespace

std::string datastore_value_add_quotes(std::string_view value)
{
  std::string quoted;
  quoted.reserve(2 * value.size() + 2);
  quoted += '"';
  for (char c : value) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  quoted += '"';
  return quoted;
}

void datastore_value_rm_quotes(char *text)
{
  if (text == nullptr) {
    return;
  }
  std::string plain = datastore_value_rm_quotes(std::string_view(text));
  std::memcpy(text, plain.c_str(), plain.size() + 1); // never longer than what it was made from
}

std::string datastore_value_rm_quotes(std::string_view text)
{
  if (!is_quoted(text)) {
    return std::string(text);
  }
  std::string plain;
  plain.reserve(text.size());
  for (size_t i = 1; i + 1 < text.size(); i++) {
    if (text[i] == '\\' && i + 2 < text.size()) {
      i++;
    }
    plain += text[i];
  }
  return plain;
}

std::string datastore_path_add_quotes(std::string_view path)
{
  std::string quoted;
  quoted.reserve(path.size() + 16);
  bool in_predicate = false;
  size_t i = 0;
  while (i < path.size()) {
    char c = path[i++];
    quoted += c;
    if (c == '[') {
      in_predicate = true;
    } else if (c == ']') {
      in_predicate = false;
    } else if (c == '=' && in_predicate) {
      std::string_view rest = path.substr(i);
      size_t length = rest.empty() ? 0 : predicate_value_length(rest);
      quoted += predicate_value_quoted(rest.substr(0, length));
      i += length;
    }
  }
  return quoted;
}

std::string dbkey_to_xpath(std::string_view data_key)
{
  std::string xpath;
  bool in_predicate = false;
  for (size_t i = 0; i < data_key.size(); i++) {
    char c = data_key[i];
    if (in_predicate && c == '"') {
      size_t length = predicate_value_length(data_key.substr(i));
      xpath += xpath_literal(datastore_value_rm_quotes(data_key.substr(i, length)));
      i += length - 1;
      continue;
    }
    in_predicate = c == '[' || (in_predicate && c != ']');
    xpath += in_predicate && c == ',' ? std::string("][") : std::string(1, c);
  }
  return xpath;
}

int32_t datastore_is_in_quotes(const char *begin, const char *cur)
{
  if (begin == nullptr || cur == nullptr || cur < begin) {
    return 0;
  }
  quote_scanner scanner;
  for (const char *p = begin; p < cur && *p != '\0'; p++) {
    scanner.pass(*p);
  }
  return scanner.in_quotes() ? 1 : 0;
}

const char *datastore_find_next_key_char(const char *begin, const char *cur, char key)
{
  if (begin == nullptr || cur == nullptr || cur < begin) {
    return nullptr;
  }
  quote_scanner scanner;
  for (const char *p = begin; *p != '\0'; p++) {
    if (p >= cur && *p == key && !scanner.in_quotes()) {
      return p;
    }
    scanner.pass(*p);
  }
  return nullptr;
}

const char *datastore_find_last_key_char(const char *begin, const char *cur, char key)
{
  if (begin == nullptr || cur == nullptr || cur < begin) {
    return nullptr;
  }
  // Forwards: whether a character is quoted is only known from what stands before it.
  const char *last = nullptr;
  quote_scanner scanner;
  for (const char *p = begin; *p != '\0'; p++) {
    if (p >= cur && *p == key && !scanner.in_quotes()) {
      last = p;
    }
    scanner.pass(*p);
  }
  return last;
}

std::string ds_get_leaf_list_normal_path(std::string_view complete)
{
  std::string path(complete);
  const char *predicate = datastore_find_last_key_char(path.c_str(), path.c_str(), '[');
  if (predicate != nullptr && path.back() == ']') {
    path.resize(static_cast<size_t>(predicate - path.c_str()));
  }
  return path;
}

std::string datastore_key2special(std::string_view src)
{
  return std::string(src);
}

int datastore_special2key(char *)
{
  return 0;
}
