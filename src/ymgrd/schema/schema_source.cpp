#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "ymgrd/core/paths.h"
#include "ymgrd/schema/schema_internal.h"

namespace {

// Splits YANG text into what separates statements ("{", "}", ";") and words (keywords and arguments); comments vanish.
class yang_scanner {
public:
  explicit yang_scanner(std::string_view text) : text_(text) {}

  // The next word or separator; a quoted text is given with its quotes, so that it never looks like either. False at
  // the end, also where a quote or comment is left open.
  bool next(std::string_view *ret_token)
  {
    if (!skip_blanks()) {
      return false;
    }
    size_t begin = pos_;
    char first = text_[begin];
    if (first == '{' || first == '}' || first == ';') {
      pos_ = begin + 1;
    } else if (first == '"' || first == '\'') {
      if (!skip_quoted(first)) {
        return false;
      }
    } else {
      pos_ = std::min(text_.find_first_of(" \t\r\n;{}", begin), text_.size());
    }
    *ret_token = text_.substr(begin, pos_ - begin);
    return true;
  }

private:
  bool skip_blanks()
  {
    for (;;) {
      pos_ = text_.find_first_not_of(" \t\r\n", pos_);
      if (pos_ == std::string_view::npos) {
        return false;
      }
      std::string_view rest = text_.substr(pos_);
      if (rest.starts_with("//")) {
        pos_ = text_.find('\n', pos_);
      } else if (rest.starts_with("/*")) {
        size_t end = text_.find("*/", pos_ + 2);
        pos_ = end == std::string_view::npos ? end : end + 2;
      } else {
        return true;
      }
      if (pos_ == std::string_view::npos) {
        return false;
      }
    }
  }

  bool skip_quoted(char quote)
  {
    for (pos_++; pos_ < text_.size(); pos_++) {
      if (text_[pos_] == '\\' && quote == '"') {
        pos_++;
      } else if (text_[pos_] == quote) {
        pos_++;
        return true;
      }
    }
    return false;
  }

  std::string_view text_;
  size_t pos_ = 0;
};

bool is_yin_element(const xmlNode *node, const char *name)
{
  return node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, reinterpret_cast<const xmlChar *>(name));
}

schema_revision_state_t yin_revision_state(const std::string &path)
{
  xml_doc_ptr doc(xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  const xmlNode *root = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
  if (root == nullptr || !is_yin_element(root, "module")) {
    return SCHEMA_REVISION_UNKNOWN;
  }
  for (const xmlNode *child = root->children; child != nullptr; child = child->next) {
    if (is_yin_element(child, "revision")) {
      return SCHEMA_REVISION_FOUND;
    }
  }
  return SCHEMA_REVISION_MISSING;
}

schema_revision_state_t yang_revision_state(const std::string &path)
{
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) {
    return SCHEMA_REVISION_UNKNOWN;
  }
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return schema_yang_has_revision(text) ? SCHEMA_REVISION_FOUND : SCHEMA_REVISION_MISSING;
}

} // namespace

bool schema_yang_has_revision(std::string_view text)
{
  yang_scanner scanner(text);
  std::string_view token;
  int depth = 0;
  bool at_keyword = true;
  while (scanner.next(&token)) {
    if (at_keyword && depth == 1 && token == "revision") {
      return true;
    }
    depth += token == "{" ? 1 : 0;
    depth -= token == "}" ? 1 : 0;
    at_keyword = token == "{" || token == "}" || token == ";";
  }
  return false;
}

schema_source_t schema_get_file_path(std::string_view module_name)
{
  std::string stem(module_name);
  if (const char *dir = ymgrd_modules_dir(); dir != nullptr && *dir != '\0') {
    stem = std::string(dir) + "/" + stem;
  }
  std::error_code ignored; // a file that cannot be looked at is reported by the parser
  if (!std::filesystem::exists(stem + ".yin", ignored) && std::filesystem::exists(stem + ".yang", ignored)) {
    return {stem + ".yang", LYS_IN_YANG};
  }
  return {stem + ".yin", LYS_IN_YIN};
}

schema_revision_state_t schema_read_revision_state(const schema_source_t &source)
{
  return source.format == LYS_IN_YIN ? yin_revision_state(source.path) : yang_revision_state(source.path);
}
