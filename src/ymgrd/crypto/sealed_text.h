// Markup on its way to a client: a sensitive value stands in it sealed, as cipher text between two bytes 0x01, which no
// XML holds. The cipher text may be escaped like other text, or not. It is opened when the message is queued, and never
// in what is logged.
#pragma once

#include <string_view>

#include "libconf/wiped_string.h"

constexpr char SEAL = '\x01';

void sealed_text_append(std::string_view cipher_text, wiped_string *text);
bool sealed_text_is_in(std::string_view text);
// The markup with the values in clear, escaped. One that cannot be decrypted stays cipher text (logged).
void sealed_text_open(std::string_view text, wiped_string *ret_text);
// The markup with "***" for the values: for the log.
void sealed_text_mask(std::string_view text, wiped_string *ret_text);
