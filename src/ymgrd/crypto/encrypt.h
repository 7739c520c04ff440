// Encryption of sensitive values: AES-128 in CBC mode (NIST SP 800-38A) under the device's working key, which is
// deciphered anew at each use (working_key.h) and wiped after it. encrypt_aes.h has the cipher itself.
//
// Cipher text is the marker "#%", the text form (encrypt_text.h) of a random IV and the encrypted value, and the marker
// again.
#pragma once

#include <string>
#include <string_view>

#include "libconf/wiped_string.h"

// One use of the working key for many values: while the object lives the key is deciphered once, when the first value
// needs it, and wiped with the object. A local variable of whoever handles a request's values; one inside another is
// the outer one's use. That there is no key is logged once in a use.
class encrypt_use {
public:
  encrypt_use();
  ~encrypt_use();
  encrypt_use(const encrypt_use &) = delete;
  encrypt_use &operator=(const encrypt_use &) = delete;

private:
  friend class working_key_t;
  static constexpr int KEY_LENGTH = 16;
  unsigned char key_[KEY_LENGTH] = {};
  enum { NOT_TRIED, HAS_KEY, HAS_NO_KEY } state_ = NOT_TRIED;
};

// What a sensitive value may hold: the characters 0x21 to 0x7E. Others cannot be told from a failed decryption.
bool encrypt_is_printable(std::string_view value);

// 0 with the cipher text, different at each call; -1 (logged) when there is no working key, or the value is not
// printable.
int encrypt_sensitive(std::string_view value, std::string *ret_cipher_text);
// 0 with the value; -1 (logged, without a key once in a use) when the text is no cipher text, is damaged, or belongs to
// another key.
int decrypt_sensitive(std::string_view cipher_text, wiped_string *ret_value);
// Whether the text begins and ends with the marker: cheap, and true of every cipher text.
bool encrypt_is_marked(std::string_view text);
// Whether it has cipher text's whole form: the marker, the characters and the length. Needs no key.
bool encrypt_has_form(std::string_view text);
// Whether it is marked and can be decrypted. Logs nothing.
bool is_cipher_text(std::string_view text);
