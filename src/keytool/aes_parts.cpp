#include "keytool/aes_parts.h"

#include <bit>

namespace {

uint8_t multiply(uint8_t a, uint8_t b)
{
  constexpr int REDUCTION = 0x1B; // of x^8 + x^4 + x^3 + x + 1
  int product = 0;
  for (int power = a; b != 0; b >>= 1) {
    product ^= (b & 1) != 0 ? power : 0;
    power = (power << 1 ^ ((power & 0x80) != 0 ? REDUCTION : 0)) & 0xFF;
  }
  return static_cast<uint8_t>(product);
}

struct s_boxes_t {
  std::array<uint8_t, 256> forward;
  std::array<uint8_t, 256> inverse;

  s_boxes_t()
  {
    // 3 generates the field's multiplicative group, and so does its inverse 0xF6: the two run through it together.
    uint8_t element = 1;
    uint8_t reciprocal = 1;
    do {
      element = multiply(element, 3);
      reciprocal = multiply(reciprocal, 0xF6);
      set(element, reciprocal);
    } while (element != 1);
    set(0, 0);
  }

private:
  void set(uint8_t element, uint8_t reciprocal)
  {
    uint8_t value = reciprocal;
    for (int i = 1; i <= 4; i++) {
      value ^= std::rotl(reciprocal, i);
    }
    value ^= 0x63;
    forward[element] = value;
    inverse[value] = element;
  }
};

const s_boxes_t &s_boxes()
{
  static const s_boxes_t boxes;
  return boxes;
}

} // namespace

const std::array<uint8_t, 256> &aes_inverse_s_box()
{
  return s_boxes().inverse;
}

void aes_expand_key(const unsigned char *key, aes_round_keys_t *ret_keys)
{
  const std::array<uint8_t, 256> &s_box = s_boxes().forward;
  aes_round_keys_t &keys = *ret_keys;
  for (int i = 0; i < 16; i++) {
    keys[0][i] = key[i];
  }
  uint8_t constant = 1;
  for (int round = 1; round < AES_ROUND_KEYS; round++) {
    const auto &before = keys[round - 1];
    for (int i = 0; i < 4; i++) {
      keys[round][i] = before[i] ^ s_box[before[12 + (i + 1) % 4]];
    }
    keys[round][0] ^= constant;
    for (int i = 4; i < 16; i++) {
      keys[round][i] = before[i] ^ keys[round][i - 4];
    }
    constant = multiply(constant, 2);
  }
}

uint32_t aes_inverse_mix(int row, uint8_t byte)
{
  constexpr uint8_t FACTORS[4] = {0x0E, 0x09, 0x0D, 0x0B}; // of the first row's byte, for rows 0 to 3
  uint32_t column = 0;
  for (int i = 0; i < 4; i++) {
    column |= uint32_t{multiply(byte, FACTORS[(i - row) & 3])} << 8 * i;
  }
  return column;
}
