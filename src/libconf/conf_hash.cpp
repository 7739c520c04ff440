#include "libconf/conf_hash.h"

#include <cstddef>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

typedef struct _conf_hash_value {
  // Blocks of their own: a value stays in place while other names come and go. new[] aligns for any type.
  std::unique_ptr<std::byte[]> bytes;
  int length = 0;
} conf_hash_value_t;

// Look-up by text without a copy of the name.
struct name_hash {
  using is_transparent = void;
  size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
};

} // namespace

struct _conf_hash_tbl {
  std::unordered_map<std::string, conf_hash_value_t, name_hash, std::equal_to<>> values;
};

conf_hash_tbl_t *conf_hash_create(int num_buckets)
{
  if (num_buckets <= 0) {
    return nullptr;
  }
  try {
    auto table = std::make_unique<conf_hash_tbl_t>();
    table->values.rehash(static_cast<size_t>(num_buckets));
    return table.release(); // conf_hash_destroy takes it back
  } catch (const std::exception &) {
    return nullptr;
  }
}

void conf_hash_destroy(conf_hash_tbl_t *table)
{
  delete table;
}

int conf_hash_add(conf_hash_tbl_t *table, const char *name, const void *data, int length)
{
  if (table == nullptr || name == nullptr || length < 0 || (data == nullptr && length > 0)) {
    return -1;
  }
  try {
    // Copied before the old value goes: `data` may lie in it.
    conf_hash_value_t value = {std::make_unique<std::byte[]>(static_cast<size_t>(length)), length};
    if (length > 0) {
      std::memcpy(value.bytes.get(), data, static_cast<size_t>(length));
    }
    table->values.insert_or_assign(name, std::move(value));
    return 0;
  } catch (const std::exception &) {
    return -1;
  }
}

void *conf_hash_get(const conf_hash_tbl_t *table, const char *name, int *ret_length)
{
  if (table == nullptr || name == nullptr) {
    return nullptr;
  }
  auto found = table->values.find(std::string_view(name));
  if (found == table->values.end()) {
    return nullptr;
  }
  if (ret_length != nullptr) {
    *ret_length = found->second.length;
  }
  return found->second.bytes.get();
}

int conf_hash_del(conf_hash_tbl_t *table, const char *name)
{
  if (table == nullptr || name == nullptr) {
    return -1;
  }
  auto found = table->values.find(std::string_view(name));
  if (found == table->values.end()) {
    return -1;
  }
  table->values.erase(found);
  return 0;
}
