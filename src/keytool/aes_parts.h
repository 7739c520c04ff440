// The pieces of AES-128 (FIPS 197) that its tables are made of.
#pragma once

#include <array>
#include <cstdint>

constexpr int AES_ROUND_KEYS = 11;
typedef std::array<std::array<uint8_t, 16>, AES_ROUND_KEYS> aes_round_keys_t; // to be cleared by their owner

const std::array<uint8_t, 256> &aes_inverse_s_box();
void aes_expand_key(const unsigned char *key, aes_round_keys_t *ret_keys);
// A byte of a column, in the given row, through InvMixColumns: its share of the new column, row 0 in the low bits.
uint32_t aes_inverse_mix(int row, uint8_t byte);
