// The key table: it decrypts as AES does, and nothing but a whole table of the right key is used.
#include <fstream>
#include <random>
#include <thread>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include "keytool/wb_generator.h"
#include "support/environment.h"
#include "unit/core/captured_log.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/crypto/wb_aes.h"
#include "ymgrd/crypto/working_key.h"

namespace {

typedef std::array<unsigned char, 16> block_t;

block_t from_hex(const std::string &text)
{
  block_t block;
  for (size_t i = 0; i < block.size(); i++) {
    block[i] = static_cast<unsigned char>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
  }
  return block;
}

// Plain AES-128, by OpenSSL.
block_t run_aes(bool encrypts, const block_t &key, const block_t &input)
{
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  block_t output = {};
  int length = 0;
  EVP_CipherInit_ex(ctx, EVP_aes_128_ecb(), nullptr, key.data(), nullptr, encrypts ? 1 : 0);
  EVP_CIPHER_CTX_set_padding(ctx, 0);
  EVP_CipherUpdate(ctx, output.data(), &length, input.data(), 16);
  EVP_CIPHER_CTX_free(ctx);
  return output;
}

block_t run_tables(const wb_table_file_t &file, const block_t &input)
{
  block_t output;
  wb_tables_decrypt(file.tables, input.data(), output.data());
  return output;
}

wb_table_file_ptr make_table(const block_t &table_key, const block_t &working_key = {})
{
  wb_table_file_ptr file = wb_table_new();
  EXPECT_EQ(0, wb_generate_tables(table_key.data(), &file->tables));
  wb_table_seal(file.get(), working_key.data());
  return file;
}

std::string bytes_of(const wb_table_file_t &file)
{
  return {reinterpret_cast<const char *>(&file), sizeof(file)};
}

const block_t FIPS_KEY = from_hex("000102030405060708090a0b0c0d0e0f");
// Example blocks of NIST SP 800-38A, F.1.1.
const block_t TABLE_KEY = from_hex("2b7e151628aed2a6abf7158809cf4f3c");
const block_t WORKING_KEY = from_hex("6bc1bee22e409f96e93d7e117393172a");
const block_t STORED_KEY = from_hex("3ad77bb40d7a3660a89ecaf32466ef97"); // the working key under the table's

class working_key : public testing::Test {
protected:
  working_key() { ymgrd_set_profile_path(dir_ / "ymgrd.conf"); }
  ~working_key() override { ymgrd_set_profile_path(DEFAULT_PROFILE_PATH); }

  // As a device does it: the new file takes the place of the old one.
  void put_table(const std::string &content, mode_t mode = 0600)
  {
    support::write_file(path_ + ".new", content);
    ASSERT_EQ(0, chmod((path_ + ".new").c_str(), mode));
    ASSERT_EQ(0, rename((path_ + ".new").c_str(), path_.c_str()));
  }

  // The working key, once that of `stored` was asked for; nothing when it was refused.
  static std::optional<block_t> deciphered(const block_t &stored)
  {
    block_t untouched;
    untouched.fill(0xA5);
    block_t key = untouched;
    if (ymgrm_decrypt_working(stored.data(), key.data()) == 0) {
      return key;
    }
    EXPECT_EQ(untouched, key);
    return std::nullopt;
  }

  support::temp_dir dir_;
  const std::string path_ = dir_ / "table2.key";
};

} // namespace

TEST(key_table, decrypts_as_aes_does)
{
  EXPECT_EQ(WORKING_KEY, run_tables(*make_table(TABLE_KEY), STORED_KEY));
  block_t block = from_hex("69c4e0d86a7b0430d8cdb78070b4c55a"); // FIPS 197, appendix C.1
  wb_table_file_ptr fips = make_table(FIPS_KEY);
  wb_tables_decrypt(fips->tables, block.data(), block.data());
  EXPECT_EQ(from_hex("00112233445566778899aabbccddeeff"), block);

  std::mt19937_64 random(support::number_from("YMGR_SEED", 1));
  auto draw = [&] {
    std::generate(block.begin(), block.end(), [&] { return static_cast<unsigned char>(random()); });
    return block;
  };
  for (int table = 0; table < 8; table++) {
    block_t key = draw();
    wb_table_file_ptr file = make_table(key);
    for (int i = 0; i < 1250; i++) {
      draw();
      ASSERT_EQ(run_aes(false, key, block), run_tables(*file, block)) << "table " << table << ", block " << i;
    }
  }
}

// With encodings left out, or drawn once for all, tables of one key would have much in common.
TEST(key_table, two_tables_of_one_key_have_nothing_in_common)
{
  std::string first = bytes_of(*make_table(TABLE_KEY));
  std::string second = bytes_of(*make_table(TABLE_KEY));
  size_t equal = 0;
  for (size_t i = 0; i < first.size(); i++) {
    equal += first[i] == second[i] ? 1 : 0;
  }
  EXPECT_LT(equal, first.size() / 200); // one byte of 256 by chance
}

TEST_F(working_key, only_a_whole_table_file_is_taken)
{
  const std::string whole = bytes_of(*make_table(TABLE_KEY, WORKING_KEY));
  put_table(whole);
  ASSERT_EQ(WORKING_KEY, deciphered(STORED_KEY));
  std::vector<std::string> refused = {"", whole.substr(1), whole + '\0', std::string(whole.size(), '\0')};
  for (size_t place : {size_t{0}, size_t{11}, size_t{12}, whole.size() / 2, whole.size() - 33, whole.size() - 1}) {
    refused.emplace_back(whole)[place] ^= 0x10;
  }
  for (const std::string &content : refused) {
    put_table(content);
    EXPECT_EQ("[ERROR] Invalid file format...\n[ERROR] wb load table: Load table failed.\n",
              logged_by([&] { EXPECT_FALSE(deciphered(STORED_KEY)); }));
  }
  put_table(whole);
  EXPECT_EQ(WORKING_KEY, deciphered(STORED_KEY));
}

TEST_F(working_key, what_becomes_of_the_table_counts_at_the_next_use)
{
  const std::string whole = bytes_of(*make_table(TABLE_KEY, WORKING_KEY));
  const auto until_kept = std::chrono::milliseconds(150); // what was changed a moment ago is read at each use
  put_table(whole.substr(1));
  std::this_thread::sleep_for(until_kept);
  EXPECT_FALSE(deciphered(STORED_KEY));
  EXPECT_EQ("[ERROR] wb load table: Load table failed.\n", logged_by([&] { EXPECT_FALSE(deciphered(STORED_KEY)); }));
  put_table(whole);
  std::this_thread::sleep_for(until_kept);
  EXPECT_EQ(WORKING_KEY, deciphered(STORED_KEY));
  EXPECT_EQ("", logged_by([&] { EXPECT_EQ(WORKING_KEY, deciphered(STORED_KEY)); }));

  ASSERT_EQ(0, unlink(path_.c_str()));
  EXPECT_EQ("[ERROR] wb load table: File not exist...\n[ERROR] wb load table: Load table failed.\n",
            logged_by([&] { EXPECT_FALSE(deciphered(STORED_KEY)); }));

  put_table(whole, 0644);
  std::string log = logged_by([&] {
    EXPECT_EQ(WORKING_KEY, deciphered(STORED_KEY));
    EXPECT_EQ(WORKING_KEY, deciphered(STORED_KEY));
  });
  EXPECT_EQ("[WARN] Others than its owner have access to the key table " + path_ + " (mode 0644).\n", log);

  const std::string not_made_for =
      "[ERROR] The key table " + path_ + " was not made for the working key of the profile.\n";
  put_table(bytes_of(*make_table(FIPS_KEY, WORKING_KEY)));
  EXPECT_EQ(not_made_for, logged_by([&] { EXPECT_FALSE(deciphered(STORED_KEY)); }));
  EXPECT_EQ(WORKING_KEY, deciphered(run_aes(true, FIPS_KEY, WORKING_KEY)));
  put_table(whole);
  EXPECT_EQ(not_made_for, logged_by([&] { EXPECT_FALSE(deciphered(WORKING_KEY)); })); // of another profile

  std::fstream(path_, std::ios::in | std::ios::out).seekp(1000).put('\0').put('\0').put('\0');
  EXPECT_FALSE(deciphered(STORED_KEY)) << "overwritten in place";
  EXPECT_EQ("[ERROR] dec working: output or input is NULL!\n",
            logged_by([&] { EXPECT_EQ(-1, ymgrm_decrypt_working(nullptr, nullptr)); }));
}
