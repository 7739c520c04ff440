// What the schema database holds, and what must change in it. Whose a field is follows from its key and its name alone,
// so a module's records are found although the module is no longer loaded:
//   /ex-sys/system    hostname       of ex-sys
//   /ex-sys/system    ex-ext:ntp     of ex-ext
//   /ex-sys/system/ex-ext:ntp        all of ex-ext, unless another module's name stands before the field
#include "ymgrd/schema/schema_internal.h"

namespace {

// The module's name before a name; empty when there is none.
std::string_view module_before(std::string_view name)
{
  size_t colon = name.find(':');
  return colon == std::string_view::npos ? std::string_view() : name.substr(0, colon);
}

// The modules that a key passes, the outermost first: "/a/x/b:y" passes a and b.
std::vector<std::string_view> modules_of_key(std::string_view key)
{
  std::vector<std::string_view> modules;
  while (!key.empty() && key != SCHEMA_MODULES_KEY) {
    key.remove_prefix(1); // the slash
    std::string_view step = key.substr(0, key.find('/'));
    key.remove_prefix(step.size());
    std::string_view module = modules.empty() ? step : module_before(step);
    if (modules.empty() || !module.empty()) {
      modules.push_back(module);
    }
  }
  return modules;
}

// The module that a field names as its own: in "/" every field is a module's.
std::string_view module_of_field(const std::string &key, std::string_view field)
{
  return key == SCHEMA_MODULES_KEY ? field : module_before(field);
}

redis_batch_t *changes_of(schema_changes_t *changes, std::string_view module_name)
{
  auto found = changes->find(module_name);
  if (found == changes->end()) {
    found = changes->emplace(module_name, redis_batch_create()).first;
  }
  return found->second.get();
}

// The innermost of the modules that is loaded: what nobody loaded owns is cleaned away with that one.
std::string_view owner_of(const std::vector<std::string_view> &modules, std::string_view field_module,
                          const schema_names_t &loaded)
{
  std::string_view owner = field_module;
  for (auto module = modules.rbegin(); module != modules.rend() && !loaded.contains(owner); ++module) {
    owner = *module;
  }
  return owner;
}

// The first module on the key's way that is gone, and with it all that is below; empty when there is none.
std::string_view first_gone(std::string_view key, const schema_names_t &gone)
{
  for (std::string_view module : modules_of_key(key)) {
    if (gone.contains(module)) {
      return module;
    }
  }
  return {};
}

void remove_fields(const std::string &key, schema_hash_t *hash, const schema_names_t &gone, schema_changes_t *changes)
{
  for (auto entry = hash->begin(); entry != hash->end();) {
    std::string_view module = module_of_field(key, entry->first);
    if (gone.contains(module)) {
      redis_batch_add(changes_of(changes, module), {"HDEL", key, entry->first});
      entry = hash->erase(entry);
    } else {
      ++entry;
    }
  }
}

} // namespace

int schema_read_stored(rContext *srdc, schema_stored_t *ret_stored)
{
  // Without the modules' records nothing can be told of the rest.
  std::vector<std::string> keys;
  if (redis_hash_get_all_bin_safe(srdc, SCHEMA_MODULES_KEY) == nullptr || redis_scan(srdc, "/*", &keys) != 0) {
    return -1;
  }
  redis_batch_ptr batch(redis_batch_create());
  for (const std::string &key : keys) {
    redis_batch_add(batch.get(), {"HGETALL", key});
  }
  schema_stored_t stored;
  int result = redis_batch_run(srdc, batch.get(), [&](size_t index, const redisReply *reply) {
    // A key that is no hash counts as an empty one; its module cannot be saved, is deleted with it, and comes back at
    // the next start.
    schema_hash_t &hash = stored[keys[index]];
    for (size_t i = 0; reply->type == REDIS_REPLY_ARRAY && i + 1 < reply->elements; i += 2) {
      hash.emplace(std::string(reply->element[i]->str, reply->element[i]->len),
                   std::string(reply->element[i + 1]->str, reply->element[i + 1]->len));
    }
  });
  if (result == 0) {
    *ret_stored = std::move(stored);
  }
  return result;
}

void schema_plan_removal(schema_stored_t *stored, const schema_names_t &gone, schema_changes_t *changes)
{
  for (auto entry = stored->begin(); entry != stored->end();) {
    auto &[key, hash] = *entry;
    std::string_view gone_module = first_gone(key, gone);
    if (gone_module.empty()) {
      remove_fields(key, &hash, gone, changes);
      ++entry;
    } else {
      redis_batch_add(changes_of(changes, gone_module), {"UNLINK", key});
      entry = stored->erase(entry);
    }
  }
}

void schema_plan_update(const schema_stored_t &stored, const schema_names_t &loaded, schema_records_t *records,
                        schema_changes_t *changes)
{
  for (const auto &[key, hash] : stored) {
    std::vector<std::string_view> modules = modules_of_key(key);
    if (!modules.empty() && !loaded.contains(modules.front())) {
      continue; // not the schema's
    }
    schema_fields_t &wanted = (*records)[key];
    for (const auto &[field, value] : hash) {
      auto record = wanted.find(field);
      if (record == wanted.end()) {
        std::string_view owner = owner_of(modules, module_of_field(key, field), loaded);
        redis_batch_add(changes_of(changes, owner), {"HDEL", key, field});
      } else if (record->second.value == value) {
        wanted.erase(record);
      }
    }
  }
  for (const auto &[key, fields] : *records) {
    for (const auto &[field, record] : fields) {
      redis_batch_add(changes_of(changes, record.owner), {"HSET", key, field, record.value});
    }
  }
}
