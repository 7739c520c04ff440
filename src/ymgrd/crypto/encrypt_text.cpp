#include "ymgrd/crypto/encrypt_text.h"

#include <algorithm>

namespace {

constexpr size_t GROUP_BYTES = 3;
constexpr size_t GROUP_CHARACTERS = 4;
constexpr int FIELD_BITS = 6;
constexpr unsigned FIELD_MASK = 0x3F;
constexpr unsigned char LOWEST_CHARACTER = 0x21;

} // namespace

std::string bin2asc(std::string_view bytes)
{
  std::string text;
  text.reserve((bytes.size() + GROUP_BYTES - 1) / GROUP_BYTES * GROUP_CHARACTERS);
  for (size_t at = 0; at < bytes.size(); at += GROUP_BYTES) {
    unsigned group = 0;
    for (size_t i = at; i < at + GROUP_BYTES; i++) {
      group = group << 8 | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U);
    }
    for (int shift = FIELD_BITS * (static_cast<int>(GROUP_CHARACTERS) - 1); shift >= 0; shift -= FIELD_BITS) {
      text.push_back(static_cast<char>((group >> shift & FIELD_MASK) + LOWEST_CHARACTER));
    }
  }
  return text;
}

int asc2bin(std::string_view text, std::vector<unsigned char> *ret_bytes)
{
  auto is_outside = [](unsigned char c) { return c < LOWEST_CHARACTER || c > LOWEST_CHARACTER + FIELD_MASK; };
  if (text.size() % GROUP_CHARACTERS != 0 || std::any_of(text.begin(), text.end(), is_outside)) {
    return -1;
  }
  std::vector<unsigned char> bytes;
  bytes.reserve(text.size() / GROUP_CHARACTERS * GROUP_BYTES);
  for (size_t at = 0; at < text.size(); at += GROUP_CHARACTERS) {
    unsigned group = 0;
    for (size_t i = at; i < at + GROUP_CHARACTERS; i++) {
      group = group << FIELD_BITS | (static_cast<unsigned char>(text[i]) - LOWEST_CHARACTER);
    }
    for (int shift = 16; shift >= 0; shift -= 8) {
      bytes.push_back(static_cast<unsigned char>(group >> shift & 0xFF));
    }
  }
  *ret_bytes = std::move(bytes);
  return 0;
}
