#include "keytool/keytool.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/file.h>

#include "keytool/profile_key.h"
#include "keytool/secret.h"
#include "keytool/wb_generator.h"

namespace {

typedef std::unique_ptr<EVP_CIPHER_CTX, c_delete_t<EVP_CIPHER_CTX_free>> cipher_ptr;

typedef struct _new_keys {
  key_bytes_t working; // what encrypts values
  key_bytes_t table;   // what enciphers the working key; stands in the table only
} new_keys_t;

int fail(const std::string &text)
{
  fprintf(stderr, "ymgr-keytool: %s\n", text.c_str());
  return -1;
}

int draw_key(key_bytes_t *ret_key)
{
  return RAND_priv_bytes(ret_key->data(), static_cast<int>(ret_key->size())) == 1 ? 0 : -1;
}

// The working key as the profile holds it. The table undoes this.
int encipher(const new_keys_t &keys, key_bytes_t *ret_stored)
{
  cipher_ptr cipher(EVP_CIPHER_CTX_new());
  int length = 0;
  if (cipher == nullptr ||
      EVP_EncryptInit_ex(cipher.get(), EVP_aes_128_ecb(), nullptr, keys.table.data(), nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(cipher.get(), 0) != 1 ||
      EVP_EncryptUpdate(cipher.get(), ret_stored->data(), &length, keys.working.data(), WB_BLOCK_LENGTH) != 1) {
    return -1;
  }
  return length == WB_BLOCK_LENGTH ? 0 : -1;
}

int make_table(const new_keys_t &keys, const key_bytes_t &stored, wb_table_file_t *file)
{
  if (wb_generate_tables(keys.table.data(), &file->tables) != 0) {
    return fail("the tables cannot be made");
  }
  wb_table_seal(file, keys.working.data());
  // A device is given no table that was not seen to work.
  secret_t<key_bytes_t> tried;
  wb_tables_decrypt(file->tables, stored.data(), tried.value.data());
  return tried.value == keys.working ? 0 : fail("the tables made are wrong");
}

int make_key(key_bytes_t *ret_stored, wb_table_file_t *file)
{
  secret_t<new_keys_t> keys;
  if (draw_key(&keys.value.working) != 0 || draw_key(&keys.value.table) != 0) {
    return fail("the system has no random numbers");
  }
  if (encipher(keys.value, ret_stored) != 0) {
    return fail("the key cannot be enciphered");
  }
  return make_table(keys.value, *ret_stored, file);
}

// One provisioning at a time, so that no two leave the table of one with the key of the other. The lock goes with the
// descriptor.
int lock_directory(const std::string &directory, unique_fd *ret_lock)
{
  unique_fd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0 || flock(fd.get(), LOCK_EX) != 0) {
    return fail(directory + ": " + strerror(errno));
  }
  *ret_lock = std::move(fd);
  return 0;
}

int refuse_table(const std::string &path, bool force)
{
  std::error_code failure;
  bool is_there = std::filesystem::exists(std::filesystem::symlink_status(path, failure));
  if (is_there && !force) {
    return fail(path + " is there already: values encrypted with its key would be lost. --force replaces it");
  }
  return 0;
}

int refuse_key(const profile_file_t &profile, bool force)
{
  key_bytes_t stored = {};
  if (profile_key(profile, &stored) != PROFILE_KEY_NONE && !force) {
    return fail(profile.path +
                " has a working key already: values encrypted with it would be lost. --force replaces it");
  }
  return 0;
}

int write_table(const std::string &path, const wb_table_file_t &file, const file_owner_t &owner)
{
  std::string error;
  std::string_view content(reinterpret_cast<const char *>(&file), sizeof(file));
  return replace_file(path, content, owner, &error) == 0 ? 0 : fail(error);
}

int provision_print(const keytool_options_t &options)
{
  std::string table = keytool_table_path(options);
  std::string directory = std::filesystem::path(table).parent_path().string();
  unique_fd lock;
  wb_table_file_ptr file = wb_table_new();
  secret_t<key_bytes_t> stored;
  if (file == nullptr || lock_directory(directory.empty() ? "." : directory, &lock) != 0 ||
      refuse_table(table, options.force) != 0 || make_key(&stored.value, file.get()) != 0 ||
      write_table(table, *file, {}) != 0) {
    return -1;
  }
  if (printf("%s\n", profile_key_fragment(stored.value).c_str()) < 0 || fflush(stdout) != 0) {
    return fail("cannot print the working key");
  }
  return 0;
}

// The table is written first. When the profile is not written after it, there is a table without key, or with another
// one: the check tells, the daemon uses neither, and --force makes both anew.
int provision_device(const keytool_options_t &options)
{
  std::string error;
  std::string table = keytool_table_path(options);
  unique_fd lock;
  profile_file_t profile;
  wb_table_file_ptr file = wb_table_new();
  secret_t<key_bytes_t> stored;
  if (file == nullptr || lock_directory(options.config_dir, &lock) != 0) {
    return -1;
  }
  if (profile_read(keytool_profile_path(options), &profile, &error) != 0) {
    return fail(error);
  }
  if (refuse_key(profile, options.force) != 0 || refuse_table(table, options.force) != 0 ||
      make_key(&stored.value, file.get()) != 0 || write_table(table, *file, profile.owner) != 0) {
    return -1;
  }
  if (profile_write_key(&profile, stored.value, &error) != 0) {
    return fail(error + "; the table is new, the profile is not: run it again with --force");
  }
  printf("%s and %s hold a new working key\n", profile.path.c_str(), table.c_str());
  return 0;
}

} // namespace

std::string keytool_profile_path(const keytool_options_t &options)
{
  return options.config_dir + "/ymgrd.conf";
}

std::string keytool_table_path(const keytool_options_t &options)
{
  return options.table.empty() ? options.config_dir + "/table2.key" : options.table;
}

int keytool_provision(const keytool_options_t &options)
{
  if (options.force) {
    fprintf(stderr, "ymgr-keytool: values that were encrypted with an earlier key cannot be read any more\n");
  }
  int result = options.print ? provision_print(options) : provision_device(options);
  return result == 0 ? KEYTOOL_OK : KEYTOOL_FAILED;
}
