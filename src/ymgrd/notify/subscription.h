// Who has subscribed: one entry for each session in "LIST-subscription", with the session's subscriptions.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "ymgrd/notify/event_filter.h"

enum { SUB_NON_REPLAY = 0, SUB_REPLAY = 1 };

constexpr time_t TIME_NOT_GIVEN = -1;

// A subscription is live: events are sent as they come. Or it is behind: the next one it gets is stored, because it
// asked for a replay or because its session takes events more slowly than they come.
typedef struct _client_subscription {
  std::string su_stream;
  event_filter_ptr su_filter; // null: all events
  time_t starttime = TIME_NOT_GIVEN;
  time_t stoptime = TIME_NOT_GIVEN;
  std::string description; // of the stream
  int subscription_type = SUB_NON_REPLAY;
  int session_id = 0;
  int timer_flag = 0; // notificationComplete was sent

  bool is_live = true;
  bool is_replaying = false; // replayComplete is still to come: when `replay_end` is reached
  uint64_t position = 0;     // number of the next event, while behind
  uint64_t replay_end = 0;
  size_t slice = 0;    // events to be read at once
  uint64_t missed = 0; // events that it did not get since it was last live
} client_subscription_t;

typedef struct _client_entry {
  int ce_session_id = 0;
  std::vector<client_subscription_t> ce_subscription;
  size_t ce_turn = 0; // the subscription that was served last from the store
} client_entry_t;

int client_create_list();
void client_destroy_list();

client_entry_t *client_find(int session_id); // null when the session has no subscription
// Adds a subscription to its session's entry, which is made when there is none. 0 or -1 (logged).
int client_add_subscription(client_subscription_t subscription);
void client_delete(int session_id);
bool client_is_any();
// All entries. `visit` may delete the entry that it is given.
void client_for_each(const std::function<void(client_entry_t *entry)> &visit);
