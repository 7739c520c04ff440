#include "ymgrd/notify/notifier_send.h"

#include <algorithm>
#include <string_view>

#include "ymgrd/core/counters.h"
#include "ymgrd/core/log.h"
#include "ymgrd/notify/event_time.h"
#include "ymgrd/notify/notification_config.h"
#include "ymgrd/notify/plugin_event.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr time_t AGE_MAX = 10000000; // seconds; an older stored event is removed instead of being replayed
constexpr size_t MOST_SLICE = 256;

constexpr std::string_view ENVELOPE_END = "</notification>";
constexpr const char REPLAY_COMPLETE[] = "<replayComplete xmlns=\"urn:ietf:params:xml:ns:netmod:notification\"/>";
constexpr const char NOTIFICATION_COMPLETE[] =
    "<notificationComplete xmlns=\"urn:ietf:params:xml:ns:netmod:notification\"/>";

std::string envelope_begin(time_t eventtime)
{
  return "<notification xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\"><eventTime>" +
         event_time_format(eventtime) + "</eventTime>";
}

bool is_in_time(const client_subscription_t &subscription, time_t eventtime)
{
  return (subscription.starttime == TIME_NOT_GIVEN || subscription.starttime <= eventtime) &&
         (subscription.stoptime == TIME_NOT_GIVEN || eventtime <= subscription.stoptime);
}

// An event on its way to sessions: what all of them need is made once, when the first one needs it.
class outgoing_event {
public:
  explicit outgoing_event(const stored_event_t &event) : event_(event) {}

  bool is_wanted_by(const client_subscription_t &subscription)
  {
    if (!is_in_time(subscription, event_.eventtime)) {
      return false;
    }
    return subscription.su_filter == nullptr ||
           (is_one_element() && event_filter_selects(*subscription.su_filter, content_.get()));
  }

  // To be asked of stored events: anything else would make the message no XML for its reader.
  bool is_one_element()
  {
    if (!is_parsed_) {
      content_ = lyxml_parse_mem(event_.content);
      is_parsed_ = true;
    }
    return content_ != nullptr;
  }

  int queue_for(int session_id)
  {
    if (begin_.empty()) {
      begin_ = envelope_begin(event_.eventtime);
      is_opened_ = event_content_for_client(event_.content, &opened_);
    }
    const std::string_view pieces[] = {begin_, is_opened_ ? std::string_view(opened_) : event_.content, ENVELOPE_END};
    if (session_cache_send_pieces(session_id, SESSION_MSG_OTHER, pieces) != 0) {
      return -1;
    }
    g_daemon_counters.notifications_sent++;
    return 0;
  }

private:
  const stored_event_t &event_;
  std::string begin_;
  wiped_string opened_; // the content with its sensitive values in clear
  bool is_opened_ = false;
  lyxml_ptr content_;
  bool is_parsed_ = false;
};

// --- The session of an entry.

// Whether the session takes notifications at all: one that is to be closed waits only for what is queued.
bool is_served(const client_entry_t &entry)
{
  const session_t *session = session_find(entry.ce_session_id);
  return session != nullptr && session->sock >= 0 && !session->bit_exit;
}

bool has_room(const client_entry_t &entry)
{
  return session_queued(entry.ce_session_id) < notification_get_config()->queue_max;
}

// A session that had no room is served again when half of it is free, not message by message.
bool has_much_room(const client_entry_t &entry)
{
  return session_queued(entry.ce_session_id) <= notification_get_config()->queue_max / 2;
}

void schedule(const client_entry_t &entry)
{
  if (session_schedule(entry.ce_session_id) != 0) {
    log_warn("send nofity: Schedule session %d failed.", entry.ce_session_id);
  }
}

int queue_mark(const client_entry_t &entry, const char *mark)
{
  stored_event_t event;
  event.eventtime = time(nullptr);
  event.content = mark;
  return outgoing_event(event).queue_for(entry.ce_session_id);
}

// --- Events that a subscription did not get.

void note_missed(client_subscription_t *subscription, uint64_t count, const char *reason)
{
  if (subscription->missed == 0 && count > 0) {
    log_warn("Session %d takes events too slowly and misses %llu: %s.", subscription->session_id,
             static_cast<unsigned long long>(count), reason);
  }
  subscription->missed += count;
  g_daemon_counters.notifications_missed += count;
}

void report_missed(client_subscription_t *subscription)
{
  if (subscription->missed > 0) {
    log_warn("Session %d has missed %llu events.", subscription->session_id,
             static_cast<unsigned long long>(subscription->missed));
    subscription->missed = 0;
  }
}

// True when the event was queued.
bool queue_or_miss(const client_entry_t &entry, client_subscription_t *subscription, outgoing_event *event)
{
  if (event->queue_for(entry.ce_session_id) == 0) {
    return true;
  }
  note_missed(subscription, 1, "memory is short");
  return false;
}

// --- Live events.

// `number` is null when the event is not stored. True when it was queued.
bool send_live_event(const client_entry_t &entry, client_subscription_t *subscription, outgoing_event *event,
                     const uint64_t *number)
{
  if ((!subscription->is_live && number != nullptr) || !event->is_wanted_by(*subscription)) {
    return false; // read from the store later, or never
  }
  bool is_missing = subscription->missed > 0;
  if (subscription->is_live && (is_missing ? has_much_room(entry) : has_room(entry))) {
    report_missed(subscription);
    return queue_or_miss(entry, subscription, event);
  }
  if (number != nullptr) {
    log_info("Session %d has no room for events: they wait in the store.", subscription->session_id);
    subscription->is_live = false;
    subscription->position = *number;
    subscription->slice = FIRST_SLICE;
  } else {
    note_missed(subscription, 1, "they are not stored");
  }
  return false;
}

void send_live_to(client_entry_t *entry, std::vector<outgoing_event> *events, const uint64_t *first_number)
{
  bool is_sent = false;
  for (size_t i = 0; i < events->size(); i++) {
    uint64_t number = first_number == nullptr ? 0 : *first_number + i;
    for (client_subscription_t &subscription : entry->ce_subscription) {
      is_sent |= send_live_event(*entry, &subscription, &(*events)[i], first_number == nullptr ? nullptr : &number);
    }
  }
  if (is_sent) {
    schedule(*entry);
  }
}

// --- Stored events.

// Removed events shift the numbers of those before them: the subscriptions that stand there go along.
void remove_stored(std::vector<stored_event_t> *events)
{
  if (event_store_remove(events) != 0) {
    return;
  }
  auto shifted = [&](uint64_t number) {
    return number +
           static_cast<uint64_t>(std::count_if(events->begin(), events->end(),
                                               [&](const stored_event_t &event) { return event.number >= number; }));
  };
  client_for_each([&](client_entry_t *entry) {
    for (client_subscription_t &subscription : entry->ce_subscription) {
      subscription.position = shifted(subscription.position);
      subscription.replay_end = shifted(subscription.replay_end);
    }
  });
}

void skip_lost(client_subscription_t *subscription, uint64_t next)
{
  if (subscription->position < next) {
    note_missed(subscription, next - subscription->position, "they are not stored any more");
    subscription->position = next;
  }
}

// Queues what the subscription wants of the events, as long as there is room. The events that are to be removed.
std::vector<stored_event_t> send_slice(const client_entry_t &entry, client_subscription_t *subscription,
                                       const std::vector<stored_event_t> &events)
{
  std::vector<stored_event_t> removed;
  time_t now = time(nullptr);
  for (const stored_event_t &event : events) {
    if (!has_room(entry)) {
      break;
    }
    skip_lost(subscription, event.number);
    subscription->position = event.number + 1;
    outgoing_event outgoing(event);
    bool is_damaged = event.is_damaged || !outgoing.is_one_element();
    if (is_damaged) {
      log_warn("A damaged record of the event log is removed.");
    }
    if (is_damaged || (is_in_time(*subscription, event.eventtime) && now - event.eventtime > AGE_MAX)) {
      removed.push_back(event);
      continue;
    }
    if (outgoing.is_wanted_by(*subscription)) {
      (void)queue_or_miss(entry, subscription, &outgoing); // counted there
    }
  }
  return removed;
}

// As many as the session took the last time, or more when it took all.
void adapt_slice(client_subscription_t *subscription, size_t taken, size_t read)
{
  subscription->slice = taken < read ? std::max<size_t>(taken, 1) : std::min(subscription->slice * 2, MOST_SLICE);
}

uint64_t goal_of(const client_subscription_t &subscription)
{
  uint64_t end = event_store_end();
  return subscription.is_replaying ? std::min(subscription.replay_end, end) : end;
}

// 0, or -1 when the store does not answer.
int read_and_send(const client_entry_t &entry, client_subscription_t *subscription)
{
  uint64_t left = goal_of(*subscription) - subscription->position;
  std::vector<stored_event_t> events;
  if (event_store_read(subscription->position, std::min<uint64_t>(left, subscription->slice), &events) != 0) {
    return -1;
  }
  if (events.empty()) { // somebody else has emptied the log
    subscription->position = goal_of(*subscription);
    return 0;
  }
  uint64_t first = events.front().number;
  std::vector<stored_event_t> removed = send_slice(entry, subscription, events);
  adapt_slice(subscription, subscription->position - std::min(first, subscription->position), events.size());
  remove_stored(&removed);
  return 0;
}

void send_stored_to(client_entry_t *entry, client_subscription_t *subscription)
{
  if (event_store_open() != 0) {
    return;
  }
  skip_lost(subscription, event_store_begin());
  if (subscription->position < goal_of(*subscription) && read_and_send(*entry, subscription) != 0) {
    return;
  }
  if (subscription->position >= goal_of(*subscription) && subscription->is_replaying) {
    (void)queue_mark(*entry, REPLAY_COMPLETE); // logged there
    subscription->is_replaying = false;
  }
  if (subscription->position >= event_store_end()) {
    subscription->is_live = true;
    report_missed(subscription);
  }
  schedule(*entry);
}

// The next one of the session, in turn; null when all are live.
client_subscription_t *next_behind(client_entry_t *entry)
{
  size_t count = entry->ce_subscription.size();
  for (size_t i = 1; i <= count; i++) {
    size_t turn = (entry->ce_turn + i) % count;
    if (!entry->ce_subscription[turn].is_live) {
      entry->ce_turn = turn;
      return &entry->ce_subscription[turn];
    }
  }
  return nullptr;
}

bool is_behind(const client_subscription_t &subscription)
{
  return !subscription.is_live;
}

} // namespace

void notifier_send_live(std::span<const stored_event_t> events, const uint64_t *first_number)
{
  if (!client_is_any()) {
    return;
  }
  std::vector<outgoing_event> outgoing;
  outgoing.reserve(events.size());
  for (const stored_event_t &event : events) {
    outgoing.emplace_back(event);
  }
  client_for_each([&](client_entry_t *entry) {
    if (is_served(*entry)) {
      send_live_to(entry, &outgoing, first_number);
    }
  });
}

void notifier_send_stored()
{
  client_for_each([](client_entry_t *entry) {
    if (!is_served(*entry) || !has_much_room(*entry)) {
      return;
    }
    if (client_subscription_t *subscription = next_behind(entry)) {
      send_stored_to(entry, subscription);
    }
  });
}

bool notifier_can_send_stored()
{
  bool can_send = false;
  client_for_each([&](client_entry_t *entry) {
    can_send = can_send || (std::any_of(entry->ce_subscription.begin(), entry->ce_subscription.end(), is_behind) &&
                            is_served(*entry) && has_much_room(*entry));
  });
  return can_send && event_store_is_usable();
}

void notifier_note_lost()
{
  client_for_each([](client_entry_t *entry) {
    for (client_subscription_t &subscription : entry->ce_subscription) {
      if (is_behind(subscription)) {
        skip_lost(&subscription, event_store_begin());
      }
    }
  });
}

void notifier_send_complete()
{
  time_t now = time(nullptr);
  client_for_each([now](client_entry_t *entry) {
    for (client_subscription_t &subscription : entry->ce_subscription) {
      bool is_due = subscription.subscription_type == SUB_REPLAY && subscription.stoptime != TIME_NOT_GIVEN &&
                    subscription.stoptime < now && subscription.is_live;
      if (is_due && is_served(*entry) && queue_mark(*entry, NOTIFICATION_COMPLETE) == 0) {
        subscription.timer_flag = 1;
        schedule(*entry);
      }
    }
    std::erase_if(entry->ce_subscription,
                  [](const client_subscription_t &subscription) { return subscription.timer_flag != 0; });
    if (entry->ce_subscription.empty()) {
      client_delete(entry->ce_session_id);
    }
  });
}
