#include "ymgrd/notify/notification_config.h"

#include <memory>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"

namespace {

constexpr const char CONFIG_OPTION[] = "OPT-notification";
constexpr size_t DEFAULT_QUEUE_MAX = 1024 * 1024;
constexpr const char NETCONF_DESCRIPTION[] = "NETCONF Base Notifications";
constexpr const char OTHER_DESCRIPTION[] = "user defined notifications";

const cJSON *member(const cJSON *object, const char *name)
{
  return cJSON_GetObjectItemCaseSensitive(object, name);
}

bool is_true(const cJSON *object, const char *name)
{
  return cJSON_IsTrue(member(object, name)) != 0;
}

// Empty when there is none.
std::string text_of(const cJSON *object, const char *name)
{
  const char *text = cJSON_GetStringValue(member(object, name));
  return text == nullptr ? "" : text;
}

int number_of(const cJSON *object, const char *name)
{
  const cJSON *number = member(object, name);
  if (!cJSON_IsNumber(number)) {
    return 0;
  }
  if (number->valueint < 0) {
    log_warn("<%s> of the notification configuration is negative: the default is used.", name);
    return 0;
  }
  return number->valueint;
}

// Two spellings: "replay" is an object with members of its own, or a flag beside "max-entries-num".
void parse_replay(const cJSON *item, notification_config_stream *stream)
{
  const cJSON *replay = member(item, "replay");
  bool is_enabled = cJSON_IsObject(replay) ? is_true(replay, "enabled") : cJSON_IsTrue(replay) != 0;
  stream->replay_enabled = is_enabled ? 1 : 0;
  stream->replay_max = number_of(member(replay, "max-entries-num") != nullptr ? replay : item, "max-entries-num");
}

void parse_stream(const cJSON *item, notification_config *config)
{
  notification_config_stream stream;
  stream.name = text_of(item, "name");
  if (stream.name.empty()) {
    log_warn("An event stream without name is left out.");
    return;
  }
  if (cJSON_IsFalse(member(item, "enabled"))) {
    return;
  }
  for (const notification_config_stream &other : config->stream) {
    if (other.name == stream.name) {
      log_warn("The event stream %.64s is configured twice; the first one counts.", stream.name.c_str());
      return;
    }
  }
  stream.description = text_of(item, "description");
  if (stream.description.empty()) {
    stream.description = stream.name == NETCONF_STREAM ? NETCONF_DESCRIPTION : OTHER_DESCRIPTION;
  }
  parse_replay(item, &stream);
  if (stream.replay_enabled != 0 && stream.name != NETCONF_STREAM) {
    log_error("now only support stream NETCONF, do not support stream %.64s.", stream.name.c_str());
  } else if (stream.replay_enabled != 0 && config->db_enabled == 0) {
    log_warn("The event stream %.64s has no replay: <db-enabled> is off.", stream.name.c_str());
  }
  config->stream.push_back(std::move(stream));
}

} // namespace

void notifier_parse_notification(const cJSON *notification)
{
  auto config = std::make_unique<notification_config>();
  config->db_enabled = is_true(notification, "db-enabled") ? 1 : 0;
  int queue_max = number_of(notification, "max-queue");
  config->queue_max = queue_max == 0 ? DEFAULT_QUEUE_MAX : static_cast<size_t>(queue_max);
  const cJSON *item = nullptr;
  cJSON_ArrayForEach(item, member(notification, "streams"))
  {
    parse_stream(item, config.get());
  }
  std::unique_ptr<notification_config> replaced(context_get_record<notification_config>(CONFIG_OPTION));
  if (context_save_record(CONFIG_OPTION, config.get()) != 0) {
    log_error("Save %s option to context failed.", CONFIG_OPTION);
    (void)replaced.release(); // still the store's
    return;
  }
  (void)config.release(); // the option's, until notification_free_config
}

const notification_config *notification_get_config()
{
  return context_get_record<notification_config>(CONFIG_OPTION);
}

const notification_config_stream *notification_find_stream(std::string_view name)
{
  const notification_config *config = notification_get_config();
  if (config == nullptr) {
    return nullptr;
  }
  for (const notification_config_stream &stream : config->stream) {
    if (stream.name == name) {
      return &stream;
    }
  }
  return nullptr;
}

bool notification_has_replay(const notification_config_stream &stream)
{
  const notification_config *config = notification_get_config();
  return config != nullptr && config->db_enabled != 0 && stream.replay_enabled != 0 && stream.name == NETCONF_STREAM;
}

void notification_free_config()
{
  std::unique_ptr<notification_config> config(context_get_record<notification_config>(CONFIG_OPTION));
  context_remove_option(CONFIG_OPTION);
}
