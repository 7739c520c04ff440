#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/ymgrd.h"
bool encrypt_is_printable(std::string_view)
{
  return true;
}
int encrypt_sensitive(std::string_view value, std::string *ret)
{
  ret->assign(CIPHER_TEXT_MARKER).append(value).append(CIPHER_TEXT_MARKER);
  return 0;
}
int decrypt_sensitive(std::string_view text, wiped_string *ret)
{
  if (!encrypt_is_marked(text))
    return -1;
  ret->assign(text.substr(2, text.size() - 4));
  return 0;
}
bool encrypt_is_marked(std::string_view text)
{
  return text.size() >= 4 && text.starts_with(CIPHER_TEXT_MARKER) && text.ends_with(CIPHER_TEXT_MARKER);
}
bool is_cipher_text(std::string_view text)
{
  return encrypt_is_marked(text);
}
