#include "ymgrd/crypto/encrypt_aes.h"

#include <climits>
#include <memory>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/crypto/encrypt_text.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr size_t BLOCK_LENGTH = 16;
constexpr size_t MARKER_LENGTH = sizeof(CIPHER_TEXT_MARKER) - 1;
constexpr size_t LONGEST = INT_MAX / 2; // the library counts in int
enum { MODE_DECRYPT = 0, MODE_ENCRYPT = 1 };

struct cipher_ctx_delete_t {
  void operator()(EVP_CIPHER_CTX *ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

struct cipher_delete_t {
  void operator()(EVP_CIPHER *cipher) const { EVP_CIPHER_free(cipher); }
};

// Looked up once: that costs more than encrypting a short value.
const EVP_CIPHER *aes_cbc()
{
  static const std::unique_ptr<EVP_CIPHER, cipher_delete_t> cipher(EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr));
  return cipher.get();
}

// `length` is a multiple of the block. 0 or -1.
int run_cbc(int mode, const unsigned char *key, const unsigned char *iv, const unsigned char *input, size_t length,
            unsigned char *output)
{
  std::unique_ptr<EVP_CIPHER_CTX, cipher_ctx_delete_t> ctx(EVP_CIPHER_CTX_new()); // wipes its key when it goes
  int written = 0;
  int rest = 0;
  if (ctx == nullptr || aes_cbc() == nullptr || EVP_CipherInit_ex2(ctx.get(), aes_cbc(), key, iv, mode, nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
      EVP_CipherUpdate(ctx.get(), output, &written, input, static_cast<int>(length)) != 1 ||
      EVP_CipherFinal_ex(ctx.get(), output + written, &rest) != 1) {
    return -1;
  }
  return static_cast<size_t>(written) + static_cast<size_t>(rest) == length ? 0 : -1;
}

unsigned char *as_bytes(char *text)
{
  return reinterpret_cast<unsigned char *>(text);
}

// Cuts off the zero bytes at the end. -1 when there are none or too many.
int strip_padding(wiped_string *plain)
{
  size_t last = plain->find_last_not_of('\0');
  size_t length = last == wiped_string::npos ? 0 : last + 1;
  size_t zeros = plain->size() - length;
  if (zeros < 1 || zeros > BLOCK_LENGTH) {
    return -1;
  }
  plain->resize(length);
  return 0;
}

} // namespace

int AES_Encrypt(const unsigned char *key, std::string_view value, std::string *ret_cipher_text)
{
  if (!encrypt_is_printable(value) || value.size() > LONGEST) {
    return -1;
  }
  size_t padded = (value.size() + BLOCK_LENGTH) / BLOCK_LENGTH * BLOCK_LENGTH;
  wiped_string plain;
  plain.reserve(2 * BLOCK_LENGTH); // never within the object
  plain.assign(value).resize(padded, '\0');

  std::string bytes(BLOCK_LENGTH + padded, '\0');
  unsigned char *iv = as_bytes(bytes.data());
  if (RAND_bytes(iv, BLOCK_LENGTH) != 1 ||
      run_cbc(MODE_ENCRYPT, key, iv, as_bytes(plain.data()), padded, iv + BLOCK_LENGTH) != 0) {
    return -1;
  }
  *ret_cipher_text = CIPHER_TEXT_MARKER + bin2asc(bytes) + CIPHER_TEXT_MARKER;
  return 0;
}

int AES_read(std::string_view text, std::vector<unsigned char> *ret_bytes)
{
  if (!encrypt_is_marked(text) || text.size() > LONGEST) {
    return -1;
  }
  // By position: the text form may hold the marker too.
  text = text.substr(MARKER_LENGTH, text.size() - 2 * MARKER_LENGTH);
  std::vector<unsigned char> bytes;
  if (asc2bin(text, &bytes) != 0) {
    return -1;
  }
  // Whole blocks, rounded up to groups of three bytes: one or two bytes too many, or none.
  size_t filling = bytes.size() % BLOCK_LENGTH;
  if (filling > 2 || bytes.size() - filling < 2 * BLOCK_LENGTH) {
    return -1;
  }
  for (; filling > 0; filling--) {
    if (bytes.back() != 0) {
      return -1;
    }
    bytes.pop_back();
  }
  *ret_bytes = std::move(bytes);
  return 0;
}

int AES_Decrypt(const unsigned char *key, std::string_view cipher_text, wiped_string *ret_value)
{
  std::vector<unsigned char> bytes;
  if (AES_read(cipher_text, &bytes) != 0) {
    return -1;
  }
  size_t length = bytes.size() - BLOCK_LENGTH;
  wiped_string plain;
  plain.reserve(2 * BLOCK_LENGTH); // never within the object
  plain.resize(length);
  if (run_cbc(MODE_DECRYPT, key, bytes.data(), bytes.data() + BLOCK_LENGTH, length, as_bytes(plain.data())) != 0 ||
      strip_padding(&plain) != 0 || !encrypt_is_printable(plain)) {
    return -1;
  }
  *ret_value = std::move(plain);
  return 0;
}
