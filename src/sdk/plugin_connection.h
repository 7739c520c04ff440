// The connection of a plugin process to the daemon: socket, frames, requests and their replies, reconnection. What the
// daemon asks for is collected here and served elsewhere (plugin_serve).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>

#include "libconf/unique_fd.h"
#include "sdk/plugin_internal.h"

//   idle --connect--> registering --reply--> activating --reply--> active
//     ^                    |                     |                   |
//     |  refused           |                     |                   | lost
//     +--------------------+                     v                   |
//   waiting <----------------------------------------- failed <------+      waiting --back-off over--> connect
typedef enum _sdk_link_state {
  SDK_LINK_IDLE,        // connects at the next process
  SDK_LINK_WAITING,     // connects when the timer says so
  SDK_LINK_REGISTERING, // the timer bounds the wait for the reply, here and below
  SDK_LINK_ACTIVATING,
  SDK_LINK_ACTIVE,
} sdk_link_state_t;

typedef struct _sdk_deferral {
  int number = 0; // 0: none
  uint16_t request_id = 0;
  sdk_kind kind = sdk_kind::config;
} sdk_deferral_t;

struct _sdk_connection {
  unique_fd epoll; // what the application waits for: holds the three below
  unique_fd timer; // of the next attempt to connect, or of the reply that is awaited
  unique_fd alarm; // readable: there is something to do that came over no socket
  unique_fd sock;
  sdk_link_state_t state = SDK_LINK_IDLE;
  bool has_ended = false; // the peer sends nothing more; what it sent is still looked at
  bool was_ready = false; // on this or an earlier connection: the plugin holds a configuration
  std::atomic<bool> is_stopping = false;

  wiped_string received; // up to one incomplete frame
  wiped_string unsent;   // whole frames, of which `sent` bytes are written
  size_t sent = 0;
  bool is_awaiting_output = false;     // as told to epoll
  uint16_t last_id = 0;                // of our requests
  uint16_t awaited_id = 0;             // 0: none
  plugin_doc_ptr awaited_reply;        // null until it is there
  std::deque<plugin_doc_ptr> requests; // of the daemon, in order

  int backoff_ms = 0;       // of the next attempt; 0: the shortest
  std::string last_failure; // logged last: a daemon that stays away is reported once

  uint16_t serving_id = 0; // the request whose callback runs; 0 when it is not waited for any more
  sdk_kind serving_kind = sdk_kind::config;
  sdk_deferral_t deferral; // at most one: the daemon waits for one answer at a time
  int last_deferral = 0;
};

// Makes the connection when it is time to, reads what has come, and moves registration and activation on. 0, or -1 when
// the daemon refused the registration.
int sdk_connection_step(ymgr_plugin_t *plugin);
// Ends the connection for that reason and plans the next one.
void sdk_connection_drop(ymgr_plugin_t *plugin, const char *reason);

// Queues a message and writes what the socket takes. 0; -1 with the error set when it is too long.
int sdk_connection_send(ymgr_plugin_t *plugin, const plugin_doc_ptr &message, uint16_t id);
// Sends a request and blocks until its reply is there. 0 with the <result>, which lives in `*ret_reply`; -1 with the
// error set.
int sdk_connection_ask(ymgr_plugin_t *plugin, const char *method, plugin_doc_ptr params, plugin_doc_ptr *ret_reply,
                       xmlNode **ret_result);
