#include "ymgrd/notify/subscription.h"

#include <memory>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"

namespace {

constexpr const char SUBSCRIPTION_LIST[] = "LIST-subscription";
constexpr int SUBSCRIPTION_LIST_SIZE = 8;

client_entry_t *entry_at(int index)
{
  return static_cast<client_entry_t *>(context_get_list_entry(SUBSCRIPTION_LIST, index));
}

void free_entry(void *entry)
{
  delete static_cast<client_entry_t *>(entry);
}

client_entry_t *add_entry(int session_id)
{
  auto entry = std::make_unique<client_entry_t>();
  entry->ce_session_id = session_id;
  if (context_save_list_entry(SUBSCRIPTION_LIST, entry.get()) < 0) {
    log_error("Save the subscriptions of session %d failed.", session_id);
    return nullptr;
  }
  return entry.release(); // the list's
}

} // namespace

int client_create_list()
{
  return context_create_list(SUBSCRIPTION_LIST, SUBSCRIPTION_LIST_SIZE);
}

void client_destroy_list()
{
  if (context_get_option(SUBSCRIPTION_LIST) != nullptr) {
    context_destroy_list(SUBSCRIPTION_LIST, free_entry);
  }
}

client_entry_t *client_find(int session_id)
{
  for (int i = 0; i < context_list_size(SUBSCRIPTION_LIST); i++) {
    client_entry_t *entry = entry_at(i);
    if (entry != nullptr && entry->ce_session_id == session_id) {
      return entry;
    }
  }
  return nullptr;
}

int client_add_subscription(client_subscription_t subscription)
{
  client_entry_t *entry = client_find(subscription.session_id);
  if (entry == nullptr) {
    entry = add_entry(subscription.session_id);
  }
  if (entry == nullptr) {
    return -1;
  }
  entry->ce_subscription.push_back(std::move(subscription));
  return 0;
}

void client_delete(int session_id)
{
  for (int i = 0; i < context_list_size(SUBSCRIPTION_LIST); i++) {
    client_entry_t *entry = entry_at(i);
    if (entry != nullptr && entry->ce_session_id == session_id) {
      context_del_list_entry(SUBSCRIPTION_LIST, i);
      delete entry;
    }
  }
}

bool client_is_any()
{
  for (int i = 0; i < context_list_size(SUBSCRIPTION_LIST); i++) {
    if (entry_at(i) != nullptr) {
      return true;
    }
  }
  return false;
}

void client_for_each(const std::function<void(client_entry_t *entry)> &visit)
{
  for (int i = 0; i < context_list_size(SUBSCRIPTION_LIST); i++) {
    if (client_entry_t *entry = entry_at(i)) {
      visit(entry);
    }
  }
}
