// How events reach the sessions that subscribed. Nothing here waits: what a session has no room for stays in the store
// until it has, and is lost only when the store does not hold it any more.
#pragma once

#include <span>

#include "ymgrd/notify/event_store.h"
#include "ymgrd/notify/subscription.h"

// Events read from the store at once, at first: they may be large.
constexpr size_t FIRST_SLICE = 32;

// Sends new events to the live subscriptions. `first_number` is the number of the first when they are stored, else
// null.
void notifier_send_live(std::span<const stored_event_t> events, const uint64_t *first_number);
// Sends stored events to the subscriptions that are behind: a slice for each session that has room.
void notifier_send_stored();
bool notifier_can_send_stored();
// Tells the log of subscriptions from which the bound of the store takes events before their sessions have read them.
void notifier_note_lost();
// Ends the subscriptions whose stop time has passed, unless they are behind.
void notifier_send_complete();
