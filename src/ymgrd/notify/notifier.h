// The notifier: event notifications after RFC 5277. Events of the daemon and of plugins are stored for replay and sent
// to the sessions that subscribed to the stream NETCONF.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "ymgrd/notify/notification_config.h"

int notifier_init(int stage);
void notifier_exit();

int notifier_service_sock(); // -1 before the notification service is open
int notifier_service_wakeup(uint32_t event);
void notifier_timer(); // about once a second

// Takes an event up: one element, complete with its namespaces. It is stored and sent by the next notifier_run_pending.
// 0; -1 (logged) without notification configuration.
int notifier_emit(time_t eventtime, std::string content);
// Stores what was taken up, in one round trip for all, and sends it to the live subscriptions.
void notifier_flush();
// Once per pass of the event loop: notifier_flush, and goes on with replays for which sessions have room.
void notifier_run_pending();
bool notifier_has_work();                 // whether the next pass must not wait for an event
void notifier_del_client(int session_id); // the session ends: its subscriptions go
