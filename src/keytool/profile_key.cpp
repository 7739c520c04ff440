#include "keytool/profile_key.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char KEY_MEMBER[] = "working-key";
constexpr off_t LARGEST_PROFILE = 64 << 20;

int system_error(const std::string &path, std::string *ret_error)
{
  *ret_error = path + ": " + strerror(errno);
  return -1;
}

int read_text(const std::string &path, wiped_string *ret_text, struct stat *ret_status, std::string *ret_error)
{
  unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0 || fstat(fd.get(), ret_status) != 0) {
    return system_error(path, ret_error);
  }
  if (!S_ISREG(ret_status->st_mode) || ret_status->st_size > LARGEST_PROFILE) {
    *ret_error = path + ": not a profile";
    return -1;
  }
  ret_text->resize(static_cast<size_t>(ret_status->st_size));
  size_t done = 0;
  while (done < ret_text->size()) {
    ssize_t count = read(fd.get(), ret_text->data() + done, ret_text->size() - done);
    if (count < 0 && errno != EINTR) {
      return system_error(path, ret_error);
    }
    if (count == 0) {
      break;
    }
    done += count < 0 ? 0 : static_cast<size_t>(count);
  }
  ret_text->resize(done);
  return 0;
}

// The last member of that name: of several, the daemon takes that one.
cJSON *find_last(const cJSON *object, const char *name)
{
  cJSON *found = nullptr;
  for (cJSON *item = object->child; item != nullptr; item = item->next) {
    if (item->string != nullptr && strcmp(item->string, name) == 0) {
      found = item;
    }
  }
  return found;
}

bool is_byte(const cJSON *item)
{
  return cJSON_IsNumber(item) && item->valuedouble == item->valueint && item->valueint >= 0 && item->valueint <= 0xFF;
}

cjson_ptr key_array(const key_bytes_t &key)
{
  std::array<int, std::tuple_size_v<key_bytes_t>> numbers;
  std::copy(key.begin(), key.end(), numbers.begin());
  return cjson_ptr(cJSON_CreateIntArray(numbers.data(), static_cast<int>(numbers.size())));
}

int replace_key(cJSON *database, cjson_ptr array)
{
  if (array == nullptr) {
    return -1;
  }
  while (find_last(database, KEY_MEMBER) != nullptr) {
    cJSON_DeleteItemFromObjectCaseSensitive(database, KEY_MEMBER);
  }
  // The section owns the array once it has it.
  if (!cJSON_AddItemToObject(database, KEY_MEMBER, array.get())) {
    return -1;
  }
  (void)array.release();
  return 0;
}

} // namespace

int profile_read(const std::string &path, profile_file_t *ret_profile, std::string *ret_error)
{
  std::error_code failure;
  profile_file_t profile;
  profile.path = std::filesystem::canonical(path, failure).string();
  if (failure) {
    *ret_error = path + ": " + failure.message();
    return -1;
  }
  wiped_string text;
  struct stat status = {};
  if (read_text(profile.path, &text, &status, ret_error) != 0) {
    return -1;
  }
  profile.json.reset(cJSON_ParseWithLength(text.data(), text.size()));
  if (!cJSON_IsObject(profile.json.get())) {
    *ret_error = path + ": not a JSON object";
    return -1;
  }
  profile.database = find_last(profile.json.get(), "database");
  if (!cJSON_IsObject(profile.database)) {
    *ret_error = path + ": has no section \"database\"";
    return -1;
  }
  profile.owner = {status.st_uid, status.st_gid};
  profile.mode = status.st_mode & 07777;
  *ret_profile = std::move(profile);
  return 0;
}

profile_key_state_t profile_key(const profile_file_t &profile, key_bytes_t *ret_key)
{
  const cJSON *array = find_last(profile.database, KEY_MEMBER);
  if (array == nullptr) {
    return PROFILE_KEY_NONE;
  }
  key_bytes_t key = {};
  size_t count = 0;
  for (const cJSON *item = array->child; item != nullptr; item = item->next) {
    if (count == key.size() || !is_byte(item)) {
      return PROFILE_KEY_INVALID;
    }
    key[count++] = static_cast<unsigned char>(item->valueint);
  }
  if (std::all_of(key.begin(), key.end(), [](unsigned char byte) { return byte == 0; })) {
    return cJSON_IsArray(array) ? PROFILE_KEY_NONE : PROFILE_KEY_INVALID;
  }
  if (!cJSON_IsArray(array) || count != key.size()) {
    return PROFILE_KEY_INVALID;
  }
  *ret_key = key;
  return PROFILE_KEY_PRESENT;
}

int profile_write_key(profile_file_t *profile, const key_bytes_t &key, std::string *ret_error)
{
  if (replace_key(profile->database, key_array(key)) != 0) {
    *ret_error = "memory is short";
    return -1;
  }
  c_string_ptr printed(cJSON_Print(profile->json.get()));
  if (printed == nullptr) {
    *ret_error = "memory is short";
    return -1;
  }
  std::string_view text = printed.get();
  wiped_string content;
  content.reserve(text.size() + 1);
  content.append(text).append("\n");
  memset_s(printed.get(), text.size(), 0, text.size());
  return replace_file(profile->path, content, profile->owner, ret_error);
}

wiped_string profile_key_fragment(const key_bytes_t &key)
{
  wiped_string text;
  text.reserve(128);
  text.append("\"").append(KEY_MEMBER).append("\": [");
  for (size_t i = 0; i < key.size(); i++) {
    char number[8];
    snprintf_s(number, sizeof(number), "%s%d", i == 0 ? "" : ", ", key[i]);
    text.append(number);
  }
  return text.append("]");
}
