// What the sources of the broker share.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "libconf/conf_queue.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/broker/broker_plugin.h"

constexpr const char BROKER_PUBLISH_OPTION[] = "OPT-broker-publish";
constexpr const char BROKER_SUBSCRIBE_OPTION[] = "OPT-broker-subscribe";

// Of an operation or of configuration changes.
typedef struct _subscriber {
  uint64_t serial = 0; // grows with each registration, and is never used again
  int pri = 0;         // configuration only: lower ones come first
  int plugin_id = 0;   // 0: inside the daemon
  std::string path;    // std form
  econf_subpub_cb_t sub_cb = {};
} subscriber_t;

// Of state data.
typedef struct _publisher {
  int plugin_id = 0;
  std::string path; // std form
  econf_subpub_cb_t sub_cb = {};
} publisher_t;

typedef struct _broker_registry {
  conf_dlq_list_t<subscriber_t> oper_subs;   // by registration
  conf_dlq_list_t<subscriber_t> config_subs; // by priority, then by registration
  conf_dlq_list_t<publisher_t> status_pubs;  // by path, then by registration
  // Plugins that wait for configuration restore or smooth start; the first one is at it while the job runs.
  conf_dlq_list_t<plugin_inst_t *> cfgr_plugins;
  conf_dlq_list_t<plugin_inst_t *> smooth_plugins;
} broker_registry_t;

typedef conf_dlq_list_t<subscriber_t>::iterator subscriber_pos;
typedef conf_dlq_list_t<publisher_t>::iterator publisher_pos;

broker_registry_t &broker_registry();
const broker_hooks_t &broker_hooks();

// --- Matching of changed nodes with subscriber paths.

// Std forms of the schema paths of one diff tree. Nodes of one schema position share their path, so that each is
// converted once.
class broker_schema_paths {
public:
  // Null when the node's path has no std form (logged).
  const std::string *of(const differ_node_t *node);

private:
  std::unordered_map<const char *, std::optional<std::string>> std_paths_;
};

// What a tree of that schema path needs to hold for the subscribers of a plugin to be found.
differ_interest_t broker_interest_of(int plugin_id, const char *schema_path);

// The first match in document order among `node`, its following siblings and all below them; null when there is none.
differ_node_t *broker_first_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *node);
// The first match in reverse order among `node`, its preceding siblings and all below them.
differ_node_t *broker_last_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *node);
// The match behind or before `cur`, in further entries of the lists that `cur` lies in.
differ_node_t *broker_next_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *cur);
differ_node_t *broker_prev_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *cur);

// --- Publications.

constexpr int SESSION_OF_CFGR = -1;   // a configuration restore
constexpr int SESSION_OF_SMOOTH = -2; // a smooth start
constexpr int NOBODY = -1;            // no plugin; 0 stands for the daemon itself

// The cursor of a publication:
//
//   forward walk <-> waiting --- failure, rollback-on-error --> rollback walk <-> waiting
//        |                                                           |
//        +---- all offered, or failure, stop-on-error --> ended <----+
//
// A restore walks forward over one plugin's subscribers after the other, and stops for no error.
typedef struct _broker_pub {
  int sid = 0;       // of the session, or SESSION_OF_...
  int error_opt = 0; // ERROR_OPTION_...
  bool bit_rollback = false;
  bool is_any_offered = false;
  uint32_t timeout = 0;          // ticks spent waiting for the current reply
  int awaited = NOBODY;          // the plugin whose reply is waited for
  reply_error_ptr errors;        // gathered so far
  differ_node_t *tree = nullptr; // borrowed until the end; in a restore, until the plugin at work is done
  bool is_tree_wanted = false;   // in a restore: the plugin at work has none yet
  broker_schema_paths paths;     // of the tree
  subscriber_pos suber;          // the end of the list: before the first one
  bool is_suber_done = true;     // `suber` was offered all its nodes, and the one behind it none
  differ_node_t *cur = nullptr;  // offered last to `suber`
  differ_node_t *next = nullptr; // to be offered next, in the forward walk
  differ_node_t *prev = nullptr; // to be offered next, in the rollback walk
  // What was offered last and to whom, for messages: stays when the subscriber has gone.
  const differ_node_t *offered = nullptr;
  std::string offered_path; // of the subscriber
  int offered_pri = 0;
  int offered_plugin = 0;
  std::string offered_plugin_name;
} broker_pub_t;

broker_pub_t *broker_get_publication(); // null when none runs
// Makes the one publication, with its option. Null on failure (logged).
broker_pub_t *broker_begin_publication(int session_id, int err_opt);
// The next node to offer, with the cursor on its subscriber; null when all is offered. `plugin_id` limits the walk to
// the subscribers of one plugin, NOBODY does not.
differ_node_t *broker_next_to_offer(broker_pub_t *pub, int plugin_id);
// Offers a node to the current subscriber. The status of the delivery, after SUBPUB_WAIT with the cursor waiting; the
// subscriber may have gone afterwards.
int broker_offer(broker_pub_t *pub, const differ_node_t *node, int oper_type, bool is_more);
// Every failure leaves an error behind, of the subscriber or else a general one: without it the change would count as
// accepted.
void broker_delivery_failed(broker_pub_t *pub, const differ_node_t *node, const reply_error_t *errors_before);

// A restore whose plugin has answered, or is overdue, goes on; it ends when no plugin is left.
void broker_restore_continue(broker_pub_t *pub);
void broker_restore_forget(const plugin_inst_t *plugin); // before it goes
void broker_restore_schedule();                          // starts what is pending
void broker_restore_tick();                              // an idle second

// --- Records that go, and time-outs.

// A job whose cursor stands on a record steps back to the one before. To be called before the record is removed.
void broker_publish_forget(subscriber_pos subscriber);
void broker_subscribe_forget(publisher_pos publisher);
// One idle second of a job, if it runs.
void broker_publish_tick();
void broker_subscribe_tick();
// The plugin has not answered one of the jobs: none waits for it any longer.
void broker_give_up(int plugin_id);
// A job that waits for the plugin goes on without it.
void broker_publish_pass_over(int plugin_id);
void broker_subscribe_pass_over(int plugin_id);
// Drop the jobs, without telling anybody.
void broker_publish_abandon();
void broker_subscribe_abandon();
