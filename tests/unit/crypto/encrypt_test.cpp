// Cipher text as it stands in databases: it must stay readable, and nothing else may pass for it.
#include <gtest/gtest.h>

#include "ymgrd/core/context.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/crypto/encrypt_aes.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/crypto/encrypt_text.h"

namespace {

// The example key and IV of NIST SP 800-38A; the cipher texts were made with the openssl command.
const unsigned char key[] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                             0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
const std::string IV = R"(#%!!%#!Q1&"A=)#1I,$!U/$)";
const std::string THIRTEEN_BYTES = IV + R"(U>>64Y%]T;USUUIEO'+*;)!#%)";

std::string decrypted(const std::string &text)
{
  wiped_string value;
  return AES_Decrypt(key, text, &value) == 0 ? std::string(value) : "(refused)";
}

} // namespace

TEST(encrypt, known_cipher_texts_give_their_values)
{
  EXPECT_EQ("correct-horse", decrypted(THIRTEEN_BYTES));
  EXPECT_EQ("0123456789abcdef", decrypted(IV + R"(W2WB5A!?O_@037/8$4.QBOR0ZY9P:C'DN&5^V*<ZDS4#%)"));
  EXPECT_EQ(std::string(33, 'x'),
            decrypted(IV + R"(W=.O#J"[&^J/R6<@C?;+A=9A*0W?L("26*8LJ(#T;FW+55R2+#8`8'.#`;9B1G:L1!!#%)"));
}

TEST(encrypt, values_of_any_length_come_back_and_never_look_the_same_twice)
{
  for (size_t length = 0; length <= 50; length++) {
    std::string value(length, '~');
    std::string first;
    std::string second;
    ASSERT_EQ(0, AES_Encrypt(key, value, &first));
    ASSERT_EQ(0, AES_Encrypt(key, value, &second));
    EXPECT_NE(first, second);
    EXPECT_EQ(value, decrypted(first));
    EXPECT_EQ(value, decrypted(second));
    EXPECT_EQ(4 + ((length + 16) / 16 * 16 + 16 + 2) / 3 * 4, first.size());
  }
}

TEST(encrypt, what_is_no_cipher_text_or_hides_no_value_is_refused)
{
  const std::string refused[] = {
      "",
      "#%",
      "#%#%",
      "correct-horse",
      IV + R"(V6M*7F5;3S:WM30A=*>'?E!#%)",       // "with blank"
      IV + R"(`ZNJVE?-$6U)Y4V,M)S5M)!#%)",       // a line feed
      IV + R"(ZXP$"ITZ;A&+`V?\1US->)!#%)",       // a letter beyond ASCII
      IV + R"(U>>64Y%]T;USUUIEO'+*;))" + "\"#%", // a byte too many that is not zero
      IV + R"(U>>64Y%]T;USUUIEO'+#%)",           // half a block
      IV + R"(U>>64Y%]T;USUUIEO'+*;)a#%)",       // not of the text form
      IV + "#%",                                 // nothing behind the IV
      THIRTEEN_BYTES.substr(0, THIRTEEN_BYTES.size() - 1),
      THIRTEEN_BYTES.substr(1),
      "#%" + THIRTEEN_BYTES + "#%",
  };
  for (const std::string &text : refused) {
    EXPECT_EQ("(refused)", decrypted(text)) << text;
  }
  std::string untouched = "x";
  EXPECT_EQ(-1, AES_Encrypt(key, "a b", &untouched));
  EXPECT_EQ(-1, AES_Encrypt(key, "caf\xc3\xa9", &untouched));
  EXPECT_EQ("x", untouched);
}

// Whoever changes any one character gets another value or none, never a crash; with the marker in the text form too.
TEST(encrypt, damaged_cipher_text_does_not_give_the_value)
{
  for (size_t at = 24; at < THIRTEEN_BYTES.size() - 2; at++) {
    std::string damaged = THIRTEEN_BYTES;
    damaged[at] = damaged[at] == '#' ? '%' : '#';
    EXPECT_NE("correct-horse", decrypted(damaged)) << at;
  }
  std::string text;
  do {
    ASSERT_EQ(0, AES_Encrypt(key, "correct-horse", &text));
  } while (text.find("#%", 2) == text.size() - 2);
  EXPECT_EQ("correct-horse", decrypted(text));
}
