// Filtering of text in which sensitive values are sealed (crypto/sealed_text.h): finding tags around seals, comparing
// what is sealed, and a form of seals that an XML parser takes.
#pragma once

#include <string_view>

#include "libconf/wiped_string.h"

// Position of the next "<" outside of seals; npos when there is none.
size_t ds_find_tag(std::string_view text, size_t from);
bool ds_is_sealed(std::string_view content);
// The clear value of sealed content, in `buffer`; cipher text that cannot be decrypted stays what it is.
std::string_view ds_open_sealed(std::string_view content, wiped_string *buffer);

// Text without the bytes that no XML holds, for a parser, and back. In between seals stand in private-use characters;
// those that stood in the text are told apart.
bool ds_needs_xml_seals(std::string_view text);
wiped_string ds_seals_to_xml(std::string_view text);
wiped_string ds_seals_from_xml(std::string_view text);
// The same as the two functions on content above, for that form.
bool ds_is_sealed_in_xml(std::string_view content);
std::string_view ds_open_sealed_in_xml(std::string_view content, wiped_string *buffer);
