#include "ymgrd/core/context.h"

#include <memory>
#include <set>
#include <string>

#include "libconf/conf_hash.h"
#include "libconf/conf_vector.h"
#include "ymgrd/core/log.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr int CONTEXT_HASH_BUCKETS = 1024;

struct hash_delete_t {
  void operator()(conf_hash_tbl_t *table) const { conf_hash_destroy(table); }
};

// Null before stage 0 and after context_exit: the tear-down calls every exit function in any state, and these ask for
// options that then do not exist.
std::unique_ptr<conf_hash_tbl_t, hash_delete_t> ctxt_hash;

// The lists that exist: what is left of them at the end is freed with the table.
std::set<std::string> list_names;

// Null when there is no such list, which is logged.
conf_vector_t *find_list(const char *list_name)
{
  auto *list = context_get_record<conf_vector_t>(list_name);
  if (list == nullptr) {
    log_error("List <%s> does not exist.", list_name);
  }
  return list;
}

// Takes the name out of the store; the vector is the caller's afterwards.
void forget_list(const char *list_name)
{
  context_remove_option(list_name);
  list_names.erase(list_name);
}

} // namespace

int context_init(int stage)
{
  if (stage != STAGE_RESOURCE) {
    return 0;
  }
  ctxt_hash.reset(conf_hash_create(CONTEXT_HASH_BUCKETS));
  if (ctxt_hash == nullptr) {
    log_error("Create context hash table failed.");
    return -1;
  }
  return 0;
}

void context_exit()
{
  // The entries belong to the components that saved them.
  while (!list_names.empty()) {
    std::string name = *list_names.begin();
    context_destroy_list(name.c_str(), nullptr);
  }
  ctxt_hash.reset();
}

int context_save_option(const char *opt_name, const void *opt_data, int opt_len)
{
  if (ctxt_hash == nullptr) {
    return -1;
  }
  return conf_hash_add(ctxt_hash.get(), opt_name, opt_data, opt_len);
}

void *context_get_option(const char *opt_name)
{
  if (ctxt_hash == nullptr) {
    return nullptr;
  }
  int length = 0;
  return conf_hash_get(ctxt_hash.get(), opt_name, &length);
}

void context_remove_option(const char *opt_name)
{
  if (ctxt_hash != nullptr) {
    (void)conf_hash_del(ctxt_hash.get(), opt_name); // removing what is not there is fine
  }
}

int context_create_list(const char *list_name, int init_size)
{
  if (context_get_option(list_name) != nullptr) {
    log_error("List <%s> has exist.", list_name);
    return -1;
  }
  conf_vector_t *list = conf_vector_create(init_size);
  if (list == nullptr) {
    log_error("Create list <%s> failed.", list_name);
    return -1;
  }
  if (context_save_record(list_name, list) != 0) {
    conf_vector_destroy(list, nullptr);
    log_error("Save list <%s> to context failed.", list_name);
    return -1;
  }
  list_names.insert(list_name);
  return 0;
}

void context_destroy_list(const char *list_name, void (*free_func)(void *entry))
{
  conf_vector_t *list = find_list(list_name);
  if (list == nullptr) {
    return;
  }
  // The name goes first: a free function that looks the list up finds none instead of a half-freed one.
  forget_list(list_name);
  conf_vector_destroy(list, free_func);
}

int context_save_list_entry(const char *list_name, void *entry)
{
  conf_vector_t *list = find_list(list_name);
  if (list == nullptr) {
    return -1;
  }
  conf_vector_t *grown = list;
  int index = conf_vector_add(&grown, entry);
  if (index < 0) {
    log_error("Save entry to list <%s> failed.", list_name);
    return -1;
  }
  if (grown != list && context_save_record(list_name, grown) != 0) {
    log_error("!!!!!! Update list <%s> addr in hash table failed.", list_name);
    return -1;
  }
  return index;
}

void *context_get_list_entry(const char *list_name, int entry_id)
{
  conf_vector_t *list = find_list(list_name);
  return list == nullptr ? nullptr : conf_vector_get(list, entry_id);
}

void context_del_list_entry(const char *list_name, int entry_id)
{
  conf_vector_t *list = find_list(list_name);
  if (list != nullptr && conf_vector_remove(list, entry_id) != 0) {
    log_error("Remove entry %d from list <%s> failed.", entry_id, list_name);
  }
}

int context_list_size(const char *list_name)
{
  conf_vector_t *list = find_list(list_name);
  return list == nullptr ? 0 : conf_vector_size(list);
}

int context_get_int(const char *opt_name, int fallback)
{
  if (ctxt_hash == nullptr) {
    return fallback;
  }
  int length = 0;
  const void *bytes = conf_hash_get(ctxt_hash.get(), opt_name, &length);
  int value = fallback;
  if (bytes != nullptr && length == static_cast<int>(sizeof(value))) {
    std::memcpy(&value, bytes, sizeof(value));
  }
  return value;
}

int context_save_int(const char *opt_name, int value)
{
  return context_save_option(opt_name, &value, static_cast<int>(sizeof(value)));
}
