#include "ymgrd/crypto/sealed_text.h"
void sealed_text_append(std::string_view cipher, wiped_string *text)
{
  text->append(cipher);
}
bool sealed_text_is_in(std::string_view)
{
  return false;
}
void sealed_text_open(std::string_view text, wiped_string *ret)
{
  ret->assign(text);
}
void sealed_text_mask(std::string_view text, wiped_string *ret)
{
  ret->assign(text);
}
