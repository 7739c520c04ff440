// The text form of cipher text: each three bytes, as a 24-bit big-endian number, give four characters of six bits each,
// 0x21 added; missing bytes of the last group count as zero.
#pragma once

#include <string>
#include <string_view>
#include <vector>

std::string bin2asc(std::string_view bytes);
// 0, or -1 when the text has characters outside 0x21 to 0x60, or a length that is no multiple of four. The
// bytes that filled the last group come back with the rest: the length of the text does not tell them.
int asc2bin(std::string_view text, std::vector<unsigned char> *ret_bytes);
