// The notifier. This version keeps the notification socket and drops what arrives there: event streams, subscriptions
// and replay are not served.
#pragma once

#include <cstdint>

#include <cjson/cJSON.h>

int notifier_init(int stage);
void notifier_exit();

// Profile parsing: the section "notification".
void notifier_parse_notification(const cJSON *notification);

int notifier_service_sock(); // -1 before the notification service is open
int notifier_service_wakeup(uint32_t event);
void notifier_timer(); // once per idle second
