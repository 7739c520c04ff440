// Cipher text under a given key: AES-128 in CBC mode. The value is filled up with one to sixteen zero bytes. Nothing is
// logged here.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "libconf/wiped_string.h"

constexpr size_t AES_KEY_LENGTH = 16;

// 0 with the cipher text, its marker included; -1 when the value is not printable or the library refuses.
int AES_Encrypt(const unsigned char *key, std::string_view value, std::string *ret_cipher_text);
// Takes the text form apart: the IV and the encrypted value behind it. -1 when the text has not that form.
int AES_read(std::string_view cipher_text, std::vector<unsigned char> *ret_bytes);
// 0 with the value; -1 when the text is no cipher text, or what comes out is no printable value with its filling.
int AES_Decrypt(const unsigned char *key, std::string_view cipher_text, wiped_string *ret_value);
