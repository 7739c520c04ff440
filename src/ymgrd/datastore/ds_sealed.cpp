#include "ymgrd/datastore/ds_sealed.h"

#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/crypto/sealed_text.h"
#include "ymgrd/database/database_path.h"

namespace {

constexpr std::string_view PRIVATE = "\xEE\x80\x80"; // U+E000
constexpr std::string_view XML_SEAL = "\xEE\x80\x80S";
constexpr std::string_view XML_LITERAL = "\xEE\x80\x80L";

// Cipher text is written escaped or not: it has no characters of which entities are made.
void append_unescaped(std::string_view written, wiped_string *text)
{
  text->reserve(text->size() + written.size()); // a short text would not be wiped
  handle_special_key(text, written, DB_XML_UNESCAPE);
}

std::string_view open(std::string_view written, wiped_string *buffer)
{
  wiped_string cipher_text;
  wiped_string clear;
  append_unescaped(written, &cipher_text);
  clear.reserve(cipher_text.size());
  *buffer = decrypt_sensitive(cipher_text, &clear) == 0 ? std::move(clear) : std::move(cipher_text);
  return *buffer;
}

} // namespace

size_t ds_find_tag(std::string_view text, size_t from)
{
  while (true) {
    size_t tag = text.find('<', from);
    size_t seal = text.substr(0, tag).find(SEAL, from);
    if (seal == std::string_view::npos) {
      return tag;
    }
    size_t end = text.find(SEAL, seal + 1);
    if (end == std::string_view::npos) {
      return std::string_view::npos;
    }
    from = end + 1;
  }
}

bool ds_is_sealed(std::string_view content)
{
  return content.size() > 2 && content.front() == SEAL && content.back() == SEAL;
}

std::string_view ds_open_sealed(std::string_view content, wiped_string *buffer)
{
  return open(content.substr(1, content.size() - 2), buffer);
}

bool ds_needs_xml_seals(std::string_view text)
{
  return text.find(SEAL) != std::string_view::npos || text.find(PRIVATE) != std::string_view::npos;
}

wiped_string ds_seals_to_xml(std::string_view text)
{
  wiped_string xml;
  xml.reserve(text.size() + sizeof(xml));
  while (!text.empty()) {
    size_t at = std::min(text.find(SEAL), text.find(PRIVATE));
    xml.append(text.substr(0, at));
    text.remove_prefix(std::min(at, text.size()));
    if (text.starts_with(PRIVATE)) {
      xml.append(XML_LITERAL);
      text.remove_prefix(PRIVATE.size());
    } else if (!text.empty()) {
      size_t end = std::min(text.find(SEAL, 1), text.size());
      wiped_string cipher_text;
      append_unescaped(text.substr(1, end - 1), &cipher_text);
      xml.append(XML_SEAL);
      handle_special_key(&xml, cipher_text, DB_XML_ESCAPE);
      xml.append(XML_SEAL);
      text.remove_prefix(std::min(end + 1, text.size()));
    }
  }
  return xml;
}

wiped_string ds_seals_from_xml(std::string_view text)
{
  wiped_string sealed;
  sealed.reserve(text.size() + sizeof(sealed));
  while (!text.empty()) {
    size_t at = text.find(PRIVATE);
    sealed.append(text.substr(0, at));
    text.remove_prefix(std::min(at, text.size()));
    if (text.starts_with(XML_SEAL)) {
      text.remove_prefix(XML_SEAL.size());
      size_t end = std::min(text.find(XML_SEAL), text.size());
      wiped_string cipher_text;
      append_unescaped(text.substr(0, end), &cipher_text);
      sealed_text_append(cipher_text, &sealed);
      text.remove_prefix(std::min(end + XML_SEAL.size(), text.size()));
    } else if (!text.empty()) {
      sealed.append(PRIVATE);
      text.remove_prefix(std::min(XML_LITERAL.size(), text.size()));
    }
  }
  return sealed;
}

bool ds_is_sealed_in_xml(std::string_view content)
{
  return content.size() > 2 * XML_SEAL.size() && content.starts_with(XML_SEAL) && content.ends_with(XML_SEAL);
}

std::string_view ds_open_sealed_in_xml(std::string_view content, wiped_string *buffer)
{
  return open(content.substr(XML_SEAL.size(), content.size() - 2 * XML_SEAL.size()), buffer);
}
