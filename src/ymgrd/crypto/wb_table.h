// The key table: lookup tables that decrypt one block with AES-128 (FIPS 197) under a key that stands nowhere in them
// as such, and the file that holds them. White-box cryptography after Chow, Eisen, Johnson and van Oorschot ("White-Box
// Cryptography and an AES Implementation", 2002), turned round for the inverse cipher:
//
// - A round key is folded into the tables of InvSubBytes, one table for each byte of the state.
// - These tables multiply by the byte's column of InvMixColumns too and give four bytes, of which four are summed. They
//   stand under a random linear map of 32 bits, which a second step of the same form takes away again; that one puts
//   random linear maps of 8 bits on the bytes, which the next round's tables undo.
// - Each nibble that passes between two tables stands under a random permutation. Sums are tables as well, therefore.
//
// There are no external encodings: what goes in and comes out is that of plain AES.
//
// What this is good for: whoever finds the bytes of the file, on a disk or in a backup, does not read a key in them.
// What not: the key can be computed from the tables (Billet, Gilbert, Ech-Chatbi 2004; differential computation
// analysis 2016), and the tables decrypt for everybody who holds them. The file's mode is what protects it.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

constexpr int WB_BLOCK_LENGTH = 16;
constexpr int WB_MIXED_ROUNDS = 9; // the tenth has no InvMixColumns

// Four bytes to four bytes: one of four words for each, and their sum.
typedef struct _wb_step {
  uint8_t word[4][256][4];
  // The three additions, for each of the word's bytes. The index is a nibble of the sum so far and one of the word that
  // is added: the low nibbles give the low nibble of an entry, the high ones its high nibble.
  uint8_t sum[3][4][256];
} wb_step_t;

typedef struct _wb_column {
  wb_step_t substitute; // round key, InvSubBytes, InvMixColumns, onto the linear map of 32 bits
  wb_step_t remix;      // from that onto the linear maps of 8 bits
} wb_column_t;

typedef struct _wb_tables {
  wb_column_t rounds[WB_MIXED_ROUNDS][4];
  uint8_t last[WB_BLOCK_LENGTH][256];
} wb_tables_t;

// Bytes only: the file's layout is that of the structure, on every machine.
typedef struct _wb_table_file {
  uint8_t magic[8];
  uint8_t version[4]; // big-endian
  wb_tables_t tables;
  uint8_t key_check[16]; // tells the working key that the tables are for: wb_key_check
  uint8_t digest[32];    // SHA-256 of all before
} wb_table_file_t;
static_assert(std::is_trivially_copyable_v<wb_table_file_t> && alignof(wb_table_file_t) == 1);

using wb_table_file_ptr = std::unique_ptr<wb_table_file_t>;

typedef enum _wb_table_fault {
  WB_TABLE_WHOLE = 0,
  WB_TABLE_MISSING,
  WB_TABLE_UNREADABLE, // errno says why
  WB_TABLE_INVALID,    // of another size or version, or damaged
} wb_table_fault_t;

// Where the byte of a column's row stands before InvShiftRows. The state's bytes are numbered column by column.
constexpr int wb_shifted_from(int column, int row)
{
  return 4 * ((column - row) & 3) + row;
}

// The file's content, zero but for magic and version; null when memory is short.
wb_table_file_ptr wb_table_new();
// Completes the content, whose tables are made: check of the working key, digest.
void wb_table_seal(wb_table_file_t *file, const unsigned char *working_key);
// Reads and checks a file. Logs nothing. `ret_file` is set when it is whole.
wb_table_fault_t wb_table_read(const char *filename, wb_table_file_ptr *ret_file);
// Whether the tables were made for the working key, of 16 bytes.
bool wb_table_is_for(const wb_table_file_t &file, const unsigned char *working_key);

// Decrypts one block; `input` and `output` may be the same.
void wb_tables_decrypt(const wb_tables_t &tables, const unsigned char *input, unsigned char *output);
