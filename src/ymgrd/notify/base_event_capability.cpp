// Changes of the daemon's capabilities from one start to the next. The set "ymgrd-capabilities" of the notification
// database holds those of the last start.
#include <set>

#include "libredisapi/redisapi.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/notify/base_event.h"
#include "ymgrd/notify/event_store.h"
#include "ymgrd/notify/notification_config.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr const char CAPABILITY_LIST[] = "LIST-cpblt";
constexpr const char CAPABILITY_KEY[] = "ymgrd-capabilities";

typedef std::set<std::string> capabilities_t;

capabilities_t current_capabilities()
{
  capabilities_t capabilities;
  int size = context_list_size(CAPABILITY_LIST);
  for (int i = 0; i < size; i++) {
    const auto *capability = static_cast<const char *>(context_get_list_entry(CAPABILITY_LIST, i));
    if (capability != nullptr) {
      capabilities.insert(capability);
    }
  }
  return capabilities;
}

redis_connection_ptr connect_store()
{
  redis_connection_ptr connection(redis_connect(event_store_address().c_str()));
  if (connection == nullptr || redis_select(connection.get(), REDIS_NOTIFY_DB) != 0) {
    return nullptr;
  }
  return connection;
}

int read_kept(rContext *connection, capabilities_t *ret_kept)
{
  redis_reply_ptr reply = redis_command(connection, {"SMEMBERS", CAPABILITY_KEY});
  if (reply == nullptr || reply->type != REDIS_REPLY_ARRAY) {
    return -1;
  }
  for (size_t i = 0; i < reply->elements; i++) {
    ret_kept->insert(std::string(reply->element[i]->str, reply->element[i]->len));
  }
  return 0;
}

int keep(rContext *connection, const capabilities_t &capabilities)
{
  redis_batch_ptr batch(redis_batch_create());
  redis_batch_add(batch.get(), {"DEL", CAPABILITY_KEY});
  for (const std::string &capability : capabilities) {
    redis_batch_add(batch.get(), {"SADD", CAPABILITY_KEY, capability});
  }
  return redis_batch_run_atomic(connection, batch.get());
}

// What a capability is without its parameters.
std::string base_of(const std::string &capability)
{
  return capability.substr(0, capability.find('?'));
}

base_notification_info_t compare(const capabilities_t &kept, const capabilities_t &current)
{
  base_notification_info_t info;
  std::set<std::string> gone; // without parameters
  std::set<std::string> modified;
  for (const std::string &capability : kept) {
    if (!current.contains(capability)) {
      gone.insert(base_of(capability));
    }
  }
  for (const std::string &capability : current) {
    if (kept.contains(capability)) {
      continue;
    }
    if (gone.contains(base_of(capability))) {
      modified.insert(base_of(capability));
      info.modified_capabilities.push_back(capability);
    } else {
      info.added_capabilities.push_back(capability);
    }
  }
  for (const std::string &capability : kept) {
    if (!current.contains(capability) && !modified.contains(base_of(capability))) {
      info.deleted_capabilities.push_back(capability);
    }
  }
  return info;
}

bool says_something(const base_notification_info_t &info)
{
  return !info.added_capabilities.empty() || !info.deleted_capabilities.empty() || !info.modified_capabilities.empty();
}

} // namespace

int base_event_compare_capabilities()
{
  if (notification_get_config() == nullptr) {
    return 0;
  }
  redis_connection_ptr connection = connect_store();
  capabilities_t kept;
  if (connection == nullptr || read_kept(connection.get(), &kept) != 0) {
    log_error("Read the capabilities of the last start failed.");
    return -1;
  }
  capabilities_t current = current_capabilities();
  base_notification_info_t info = compare(kept, current);
  if (!says_something(info)) {
    return 0;
  }
  bool is_first_start = kept.empty();
  if (!is_first_start && base_event_emit(NCNTF_BASE_CPBLT_CHANGE, info) != 0) {
    return -1;
  }
  if (keep(connection.get(), current) != 0) {
    log_error("Keep the capabilities for the next start failed.");
    return -1;
  }
  return 0;
}
