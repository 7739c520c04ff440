// The context store: named options (blocks of bytes) and named lists (entry pointers by index), through which the
// components share state. First component to start, last to end. One thread; no operation may be used before stage 0.
// A missing list is logged ("List <NAME> does not exist.") and gives the operation's neutral value.
#pragma once

#include <cstring>
#include <type_traits>

int context_init(int stage);
void context_exit();

// Keeps a copy of `opt_len` bytes under `opt_name`, replacing what was there. 0 or -1.
int context_save_option(const char *opt_name, const void *opt_data, int opt_len);
// The stored bytes, owned by the store and valid until the next save or removal of that name; null when there are none.
void *context_get_option(const char *opt_name);
void context_remove_option(const char *opt_name);

int context_create_list(const char *list_name, int init_size);
// Calls `free_func` (may be null) on each entry that is not null.
void context_destroy_list(const char *list_name, void (*free_func)(void *entry));
// Index of the new entry, which stays valid until that entry is deleted; -1 on failure. The store borrows `entry`.
// Slots that were emptied are used again, the lowest first.
int context_save_list_entry(const char *list_name, void *entry);
void *context_get_list_entry(const char *list_name, int entry_id);
void context_del_list_entry(const char *list_name, int entry_id);
// Number of slots, emptied ones included: callers skip null entries.
int context_list_size(const char *list_name);

// An int option, or `fallback` when it is not set.
int context_get_int(const char *opt_name, int fallback);
int context_save_int(const char *opt_name, int value);

// Options that hold the address of a record which the saving component owns.
template <class T>
T *context_get_record(const char *opt_name)
{
  void *bytes = context_get_option(opt_name);
  if (bytes == nullptr) {
    return nullptr;
  }
  T *record = nullptr;
  std::memcpy(&record, bytes, sizeof(record));
  return record;
}

template <class T>
int context_save_record(const char *opt_name, T *record)
{
  return context_save_option(opt_name, &record, static_cast<int>(sizeof(record)));
}
