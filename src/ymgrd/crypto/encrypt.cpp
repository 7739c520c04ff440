#include "ymgrd/crypto/encrypt.h"

#include <algorithm>

#include <openssl/crypto.h>

#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_aes.h"
#include "ymgrd/crypto/encrypt_key.h"
#include "ymgrd/crypto/working_key.h"
#include "ymgrd/ymgrd.h"

namespace {

// The key for one use: gone with its object.
class working_key_t {
public:
  working_key_t() = default;
  working_key_t(const working_key_t &) = delete;
  working_key_t &operator=(const working_key_t &) = delete;
  ~working_key_t() { OPENSSL_cleanse(bytes_, sizeof(bytes_)); }

  int get()
  {
    if (ymgrm_decrypt_working(g_aes_key, bytes_) != 0) {
      log_error("decrypt working failed.");
      return -1;
    }
    return 0;
  }
  const unsigned char *bytes() const { return bytes_; }

private:
  unsigned char bytes_[AES_KEY_LENGTH] = {};
};
static_assert(AES_KEY_LENGTH == WORKING_KEY_LENGTH);

} // namespace

bool encrypt_is_printable(std::string_view value)
{
  return std::all_of(value.begin(), value.end(), [](char c) { return c >= 0x21 && c <= 0x7E; });
}

int encrypt_sensitive(std::string_view value, std::string *ret_cipher_text)
{
  working_key_t key;
  if (key.get() != 0 || AES_Encrypt(key.bytes(), value, ret_cipher_text) != 0) {
    log_error("fail to encrypt sensitive.");
    return -1;
  }
  return 0;
}

int decrypt_sensitive(std::string_view cipher_text, wiped_string *ret_value)
{
  working_key_t key;
  // Without the marker no key is needed to say no.
  if (!encrypt_is_marked(cipher_text) || key.get() != 0 || AES_Decrypt(key.bytes(), cipher_text, ret_value) != 0) {
    log_error("fail to decrypt sensitive.");
    return -1;
  }
  return 0;
}

bool encrypt_is_marked(std::string_view text)
{
  constexpr size_t SHORTEST = 2 * (sizeof(CIPHER_TEXT_MARKER) - 1);
  return text.size() >= SHORTEST && text.starts_with(CIPHER_TEXT_MARKER) && text.ends_with(CIPHER_TEXT_MARKER);
}

bool encrypt_has_form(std::string_view text)
{
  std::vector<unsigned char> bytes;
  return AES_read(text, &bytes) == 0;
}

bool is_cipher_text(std::string_view text)
{
  working_key_t key;
  wiped_string value;
  return encrypt_is_marked(text) && key.get() == 0 && AES_Decrypt(key.bytes(), text, &value) == 0;
}
