// The profile's section "notification".
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <cjson/cJSON.h>

constexpr const char NETCONF_STREAM[] = "NETCONF";
constexpr int DEFAULT_REPLAY_MAX = 200;

typedef struct _notification_config_stream {
  std::string name;
  std::string description;
  int replay_enabled = 0;
  int replay_max = 0; // most stored events; 0 means DEFAULT_REPLAY_MAX
} notification_config_stream;

typedef struct _notification_config {
  unsigned db_enabled = 0; // events are stored in the database
  std::vector<notification_config_stream> stream;
  size_t queue_max = 0; // bytes that may wait for a session before its events are held back
} notification_config;

// Reads the section and keeps the record under "OPT-notification"; a later section replaces an earlier one.
void notifier_parse_notification(const cJSON *notification);
const notification_config *notification_get_config();                              // null: no such section
const notification_config_stream *notification_find_stream(std::string_view name); // null: no such stream
bool notification_has_replay(const notification_config_stream &stream);
void notification_free_config();
