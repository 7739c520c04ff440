#include "demo_redis.h"

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

enum { VALUE_LIST = 2, VALUE_HEAD_SIZE = 4 };

std::string_view view(const redisReply *reply)
{
  return {reply->str, reply->len};
}

// A field's value: a 32-bit type in machine byte order, then a text that ends with a NUL.
std::string show_value(std::string_view value)
{
  uint32_t type = 0;
  if (value.size() < VALUE_HEAD_SIZE) {
    return "(not a value)";
  }
  std::memcpy(&type, value.data(), sizeof(type));
  if (type == VALUE_LIST) {
    return "(list)";
  }
  std::string_view text = value.substr(VALUE_HEAD_SIZE);
  return "\"" + std::string(text.substr(0, text.find('\0'))) + "\"";
}

std::string show_hash(const redisReply *reply)
{
  std::map<std::string, std::string> fields;
  for (size_t i = 0; i + 1 < reply->elements; i += 2) {
    fields.emplace(view(reply->element[i]), show_value(view(reply->element[i + 1])));
  }
  std::string text;
  for (const auto &[name, value] : fields) {
    text += (text.empty() ? "" : "  ") + name + (value == "\"\"" ? "" : "=" + value);
  }
  return text;
}

std::string show_list(const redisReply *reply)
{
  std::string text;
  for (size_t i = 0; i < reply->elements; ++i) {
    text += (text.empty() ? "[" : "  [") + std::string(view(reply->element[i])) + "]";
  }
  return text;
}

} // namespace

int demo_read_keys(rContext *redis, int db, demo_keys_t *ret_keys)
{
  std::vector<std::string> names;
  if (redis_select(redis, db) != 0 || redis_scan(redis, "*", &names) != 0) {
    return -1;
  }
  demo_keys_t keys;
  for (const std::string &name : names) {
    if (name.starts_with("ymgrd-")) {
      continue;
    }
    redis_reply_ptr type = redis_type(redis, name);
    if (type == nullptr) {
      return -1;
    }
    const bool is_list = view(type.get()) == "list";
    redis_reply_ptr content =
        is_list ? redis_lrange_bin_safe(redis, name, 0, -1) : redis_hash_get_all_bin_safe(redis, name);
    if (content == nullptr) {
      return -1;
    }
    keys[name] = is_list ? show_list(content.get()) : show_hash(content.get());
  }
  *ret_keys = std::move(keys);
  return 0;
}
