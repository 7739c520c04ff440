// The stored events, the replay log of the stream NETCONF: the list "event_key_list" in Redis' notification database.
// A record is the event's time (time_t), its content and a zero byte. Events have numbers that grow by one from the
// first stored one on; removing the oldest does not change them.
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <vector>

typedef struct _stored_event {
  time_t eventtime = 0; // seconds since 1970
  std::string content;  // one element, complete with its namespaces
  // Of an event that was read:
  uint64_t number = 0;
  bool is_damaged = false; // no record of an event: `content` has its bytes
} stored_event_t;

// The address of the notification database, for redis_connect: that of the configuration data.
std::string event_store_address();

// Finds out what is stored, unless it is known. 0, or -1 (logged) without the database: it is tried again at the next
// use, but not within a second.
int event_store_open();
int event_store_refresh(); // the same, also when it is known: others may have written
void event_store_close();
bool event_store_is_usable(); // false within a second after a failure

// Appends the events, oldest first, and removes the oldest beyond `replay_max`; one round trip. 0: they have the
// numbers up to event_store_end(). -1 (logged): nothing was stored.
int event_store_append(std::span<const stored_event_t> events, int replay_max);
uint64_t event_store_begin(); // number of the oldest stored event
uint64_t event_store_end();   // number of the next one
// Up to `most` events from the number on, which must not lie before the beginning; fewer at the end. When somebody else
// removes events meanwhile, the first one may have a higher number. 0 or -1 (logged).
int event_store_read(uint64_t from, size_t most, std::vector<stored_event_t> *ret_events);
// Removes events that were read. What was before them has now a number that is higher by the count of those removed
// behind it. Leaves in `events` those that were still there. 0 or -1 (logged).
int event_store_remove(std::vector<stored_event_t> *events);
time_t event_store_created(); // when the log was begun; 0 when unknown
