#include "ymgrd/crypto/encrypt.h"

#include <algorithm>

#include <openssl/crypto.h>

#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_aes.h"
#include "ymgrd/crypto/encrypt_key.h"
#include "ymgrd/crypto/working_key.h"
#include "ymgrd/ymgrd.h"

namespace {

encrypt_use *use_in_progress = nullptr;

} // namespace

// The key for one value, or for the use that it is a part of.
class working_key_t {
public:
  // Null (logged) when there is none.
  const unsigned char *get()
  {
    static_assert(encrypt_use::KEY_LENGTH == WORKING_KEY_LENGTH && AES_KEY_LENGTH == WORKING_KEY_LENGTH);
    encrypt_use &use = *use_in_progress;
    was_refused_ = use.state_ == encrypt_use::HAS_NO_KEY;
    if (use.state_ == encrypt_use::NOT_TRIED) {
      bool has_key = ymgrm_decrypt_working(g_aes_key, use.key_) == 0;
      use.state_ = has_key ? encrypt_use::HAS_KEY : encrypt_use::HAS_NO_KEY;
      if (!has_key) {
        log_error("decrypt working failed.");
      }
    }
    return use.state_ == encrypt_use::HAS_KEY ? use.key_ : nullptr;
  }
  // Whether an earlier value of the use has had the answer that there is no key.
  bool was_refused() const { return was_refused_; }

private:
  encrypt_use own_use_; // unless one is in progress
  bool was_refused_ = false;
};

encrypt_use::encrypt_use()
{
  if (use_in_progress == nullptr) {
    use_in_progress = this;
  }
}

encrypt_use::~encrypt_use()
{
  OPENSSL_cleanse(key_, sizeof(key_));
  if (use_in_progress == this) {
    use_in_progress = nullptr;
  }
}

bool encrypt_is_printable(std::string_view value)
{
  return std::all_of(value.begin(), value.end(), [](char c) { return c >= 0x21 && c <= 0x7E; });
}

int encrypt_sensitive(std::string_view value, std::string *ret_cipher_text)
{
  working_key_t working_key;
  const unsigned char *key = working_key.get();
  if (key == nullptr || AES_Encrypt(key, value, ret_cipher_text) != 0) {
    log_error("fail to encrypt sensitive.");
    return -1;
  }
  return 0;
}

int decrypt_sensitive(std::string_view cipher_text, wiped_string *ret_value)
{
  working_key_t working_key;
  // Without the marker no key is needed to say no.
  const unsigned char *key = encrypt_is_marked(cipher_text) ? working_key.get() : nullptr;
  if (key == nullptr || AES_Decrypt(key, cipher_text, ret_value) != 0) {
    if (!working_key.was_refused()) {
      log_error("fail to decrypt sensitive.");
    }
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
  working_key_t working_key;
  wiped_string value;
  const unsigned char *key = encrypt_is_marked(text) ? working_key.get() : nullptr;
  return key != nullptr && AES_Decrypt(key, text, &value) == 0;
}
