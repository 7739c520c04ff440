#include "keytool/wb_generator.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <numeric>
#include <stdexcept>

#include <openssl/rand.h>

#include "keytool/aes_parts.h"
#include "keytool/gf2_matrix.h"
#include "keytool/secret.h"

namespace {

// Random bytes, drawn a block at a time. Whoever knows them knows the key: they are cleared at the end.
class random_source {
public:
  uint8_t byte()
  {
    if (used_ == block_.value.size()) {
      if (RAND_priv_bytes(block_.value.data(), static_cast<int>(block_.value.size())) != 1) {
        throw std::runtime_error("no random numbers");
      }
      used_ = 0;
    }
    return block_.value[used_++];
  }

  // Below `limit`, each number as likely as the others.
  int below(int limit)
  {
    int number = 0;
    do {
      number = byte();
    } while (number >= 256 - 256 % limit);
    return number % limit;
  }

private:
  secret_t<std::array<uint8_t, 4096>> block_;
  size_t used_ = sizeof(block_.value);
};

// A byte under two permutations, one for each nibble.
typedef struct _byte_code {
  std::array<uint8_t, 256> encode;
  std::array<uint8_t, 256> decode;
} byte_code_t;

byte_code_t plain_code()
{
  byte_code_t code;
  std::iota(code.encode.begin(), code.encode.end(), uint8_t{0});
  code.decode = code.encode;
  return code;
}

std::array<uint8_t, 16> draw_permutation(random_source *random)
{
  std::array<uint8_t, 16> permutation;
  std::iota(permutation.begin(), permutation.end(), uint8_t{0});
  for (int i = 15; i > 0; i--) {
    std::swap(permutation[i], permutation[random->below(i + 1)]);
  }
  return permutation;
}

byte_code_t draw_code(random_source *random)
{
  std::array<uint8_t, 16> low = draw_permutation(random);
  std::array<uint8_t, 16> high = draw_permutation(random);
  byte_code_t code;
  for (int i = 0; i < 256; i++) {
    code.encode[i] = static_cast<uint8_t>(high[i >> 4] << 4 | low[i & 0x0F]);
    code.decode[code.encode[i]] = static_cast<uint8_t>(i);
  }
  return code;
}

typedef std::array<byte_code_t, 4> word_code_t;

word_code_t draw_word_code(random_source *random)
{
  word_code_t codes;
  for (byte_code_t &code : codes) {
    code = draw_code(random);
  }
  return codes;
}

template <int SIZE>
struct linear_map_t {
  gf2_matrix<SIZE> forward;
  gf2_matrix<SIZE> inverse;
};

// Rejects what has not full rank: every invertible matrix is equally likely.
template <int SIZE>
linear_map_t<SIZE> draw_map(random_source *random)
{
  linear_map_t<SIZE> drawn;
  do {
    for (int i = 0; i < SIZE; i++) {
      drawn.forward.row(i) = 0;
      for (int bit = 0; bit < SIZE; bit += 8) {
        drawn.forward.row(i) |= uint32_t{random->byte()} << bit;
      }
    }
  } while (!drawn.forward.invert(&drawn.inverse));
  return drawn;
}

uint8_t byte_of(uint32_t word, int i)
{
  return static_cast<uint8_t>(word >> 8 * i);
}

// What is known of a byte of the state between two rounds.
typedef struct _state_byte {
  byte_code_t code;
  linear_map_t<8> map;
} state_byte_t;

typedef std::array<state_byte_t, 16> state_t;

state_t plain_state()
{
  state_t state;
  state.fill({plain_code(), {gf2_matrix<8>::identity(), gf2_matrix<8>::identity()}});
  return state;
}

state_t draw_state(random_source *random)
{
  state_t state;
  for (state_byte_t &byte : state) {
    byte = {draw_code(random), draw_map<8>(random)};
  }
  return state;
}

// The entries of an addition of two coded bytes, nibble by nibble.
void fill_sum(const byte_code_t &a, const byte_code_t &b, const byte_code_t &sum, uint8_t *table)
{
  for (int i = 0; i < 16; i++) {
    for (int j = 0; j < 16; j++) {
      // A code takes each nibble by itself, so the other nibble of these sums says nothing and is masked.
      uint8_t low = sum.encode[a.decode[i] ^ b.decode[j]];
      uint8_t high = sum.encode[a.decode[i << 4] ^ b.decode[j << 4]];
      table[i << 4 | j] = static_cast<uint8_t>((low & 0x0F) | (high & 0xF0));
    }
  }
}

// Fills a step that adds up word_of(row, byte) for the four bytes, which come and go under the given codes.
template <class word_fn>
void fill_step(const word_code_t &in, const word_code_t &out, word_fn word_of, random_source *random, wb_step_t *step)
{
  word_code_t sum_code;
  for (int row = 0; row < 4; row++) {
    word_code_t word_code = draw_word_code(random);
    for (int coded = 0; coded < 256; coded++) {
      uint32_t word = word_of(row, in[row].decode[coded]);
      for (int i = 0; i < 4; i++) {
        step->word[row][coded][i] = word_code[i].encode[byte_of(word, i)];
      }
    }
    if (row == 0) {
      sum_code = word_code;
      continue;
    }
    word_code_t next_code = row == 3 ? out : draw_word_code(random);
    for (int i = 0; i < 4; i++) {
      fill_sum(sum_code[i], word_code[i], next_code[i], step->sum[row - 1][i]);
    }
    sum_code = next_code;
  }
}

// The codes of a column of the state, in the order of rows.
word_code_t column_code(const state_t &state, int column)
{
  return {state[4 * column].code, state[4 * column + 1].code, state[4 * column + 2].code, state[4 * column + 3].code};
}

word_code_t shifted_code(const state_t &state, int column)
{
  return {state[wb_shifted_from(column, 0)].code, state[wb_shifted_from(column, 1)].code,
          state[wb_shifted_from(column, 2)].code, state[wb_shifted_from(column, 3)].code};
}

void fill_column(const state_t &before, const state_t &after, int column, const std::array<uint8_t, 16> &key,
                 random_source *random, wb_column_t *tables)
{
  linear_map_t<32> mix = draw_map<32>(random);
  word_code_t between = draw_word_code(random);
  auto substitute = [&](int row, uint8_t byte) {
    int from = wb_shifted_from(column, row);
    uint32_t plain = before[from].map.inverse.apply(byte);
    return mix.forward.apply(aes_inverse_mix(row, aes_inverse_s_box()[plain ^ key[from]]));
  };
  auto remix = [&](int row, uint8_t byte) {
    uint32_t plain = mix.inverse.apply(uint32_t{byte} << 8 * row);
    uint32_t word = 0;
    for (int i = 0; i < 4; i++) {
      word |= after[4 * column + i].map.forward.apply(byte_of(plain, i)) << 8 * i;
    }
    return word;
  };
  fill_step(shifted_code(before, column), between, substitute, random, &tables->substitute);
  fill_step(between, column_code(after, column), remix, random, &tables->remix);
}

// AddRoundKey stands before InvMixColumns: behind it, as a part of the next round, the key has gone through it too.
std::array<uint8_t, 16> mixed_key(const std::array<uint8_t, 16> &key)
{
  std::array<uint8_t, 16> mixed;
  for (int column = 0; column < 4; column++) {
    uint32_t word = 0;
    for (int row = 0; row < 4; row++) {
      word ^= aes_inverse_mix(row, key[4 * column + row]);
    }
    for (int row = 0; row < 4; row++) {
      mixed[4 * column + row] = byte_of(word, row);
    }
  }
  return mixed;
}

void fill_last(const state_t &before, const std::array<uint8_t, 16> &key, const std::array<uint8_t, 16> &last_key,
               wb_tables_t *tables)
{
  for (int i = 0; i < WB_BLOCK_LENGTH; i++) {
    int from = wb_shifted_from(i / 4, i % 4);
    for (int coded = 0; coded < 256; coded++) {
      uint32_t plain = before[from].map.inverse.apply(before[from].code.decode[coded]);
      tables->last[i][coded] = aes_inverse_s_box()[plain ^ key[from]] ^ last_key[i];
    }
  }
}

// All that tells the key from the tables.
typedef struct _generation {
  aes_round_keys_t keys;
  state_t before;
  state_t after;
} generation_t;

void generate(const unsigned char *key, random_source *random, generation_t *work, wb_tables_t *tables)
{
  aes_expand_key(key, &work->keys);
  work->before = plain_state();
  std::array<uint8_t, 16> *round_key = &work->keys[AES_ROUND_KEYS - 1];
  for (int round = 0; round < WB_MIXED_ROUNDS; round++) {
    work->after = draw_state(random);
    for (int column = 0; column < 4; column++) {
      fill_column(work->before, work->after, column, *round_key, random, &tables->rounds[round][column]);
    }
    work->before = work->after;
    round_key--;
    *round_key = mixed_key(*round_key);
  }
  fill_last(work->before, *round_key, work->keys[0], tables);
}

} // namespace

int wb_generate_tables(const unsigned char *key, wb_tables_t *ret_tables)
{
  try {
    auto random = std::make_unique<random_source>();
    auto work = std::make_unique<secret_t<generation_t>>();
    auto tables = std::make_unique<wb_tables_t>();
    generate(key, random.get(), &work->value, tables.get());
    *ret_tables = *tables;
    return 0;
  } catch (const std::exception &) { // of the random source, or short of memory
    return -1;
  }
}
