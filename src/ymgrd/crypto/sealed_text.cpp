#include "ymgrd/crypto/sealed_text.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"

namespace {

constexpr std::string_view MASK = "***";

const struct {
  char character;
  std::string_view entity;
} entities[] = {{'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&apos;"}};

void append_escaped(std::string_view value, wiped_string *text)
{
  for (char c : value) {
    auto found =
        std::find_if(std::begin(entities), std::end(entities), [c](const auto &row) { return row.character == c; });
    if (found == std::end(entities)) {
      text->push_back(c);
    } else {
      text->append(found->entity);
    }
  }
}

// Cipher text has no characters of which entities are made: what looks like one is one.
std::string unescaped(std::string_view cipher_text)
{
  std::string plain;
  while (!cipher_text.empty()) {
    auto found = std::find_if(std::begin(entities), std::end(entities),
                              [&](const auto &row) { return cipher_text.starts_with(row.entity); });
    bool is_entity = found != std::end(entities);
    plain.push_back(is_entity ? found->character : cipher_text.front());
    cipher_text.remove_prefix(is_entity ? found->entity.size() : 1);
  }
  return plain;
}

// The name of the element that was opened last in the markup.
std::string open_element(std::string_view markup)
{
  size_t begin = markup.rfind('<');
  std::string_view tag = begin == std::string_view::npos ? "" : markup.substr(begin + 1);
  return std::string(tag.substr(0, tag.find_first_of(" >")));
}

// Opens the values of one text. Without the key none of them can be: one line in the log has to do for all.
class opener {
public:
  opener() = default;
  opener(const opener &) = delete;
  opener &operator=(const opener &) = delete;
  ~opener()
  {
    if (failed_ > 1) {
      log_error("So did %zu more of the same text.", failed_ - 1);
    }
  }

  void operator()(std::string_view sealed, wiped_string *text)
  {
    std::string cipher_text = unescaped(sealed);
    wiped_string value;
    if (decrypt_sensitive(cipher_text, &value) == 0) {
      append_escaped(value, text);
      return;
    }
    if (++failed_ == 1) {
      log_error("Decrypt text of node(%.512s) failed.", open_element(*text).c_str());
    }
    append_escaped(cipher_text, text);
  }

private:
  encrypt_use all_values_;
  size_t failed_ = 0;
};

// Copies the text, with what `append_value` makes of the sealed values. One that does not end is taken to the end.
template <class T>
void replace_sealed(std::string_view text, T &&append_value, wiped_string *ret_text)
{
  wiped_string replaced;
  replaced.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    size_t begin = std::min(text.find(SEAL, at), text.size());
    replaced.append(text.substr(at, begin - at));
    size_t end = begin == text.size() ? begin : std::min(text.find(SEAL, begin + 1), text.size());
    if (begin < text.size()) {
      append_value(text.substr(begin + 1, end - begin - 1), &replaced);
    }
    at = end == text.size() ? end : end + 1;
  }
  *ret_text = std::move(replaced);
}

} // namespace

void sealed_text_append(std::string_view cipher_text, wiped_string *text)
{
  text->push_back(SEAL);
  text->append(cipher_text);
  text->push_back(SEAL);
}

bool sealed_text_is_in(std::string_view text)
{
  return text.find(SEAL) != std::string_view::npos;
}

void sealed_text_open(std::string_view text, wiped_string *ret_text)
{
  replace_sealed(text, opener(), ret_text);
}

void sealed_text_mask(std::string_view text, wiped_string *ret_text)
{
  replace_sealed(
      text, [](std::string_view, wiped_string *masked) { masked->append(MASK); }, ret_text);
}
