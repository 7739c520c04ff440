// What the sources of the broker share.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>

#include "libconf/conf_queue.h"
#include "ymgrd/broker/broker.h"

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
} broker_registry_t;

typedef conf_dlq_list_t<subscriber_t>::iterator subscriber_pos;
typedef conf_dlq_list_t<publisher_t>::iterator publisher_pos;

broker_registry_t &broker_registry();
const broker_hooks_t &broker_hooks();

// A job whose cursor stands on a record steps back to the one before. To be called before the record is removed.
void broker_publish_forget(subscriber_pos subscriber);
void broker_subscribe_forget(publisher_pos publisher);
// One idle second of a job, if it runs.
void broker_publish_tick();
void broker_subscribe_tick();
// Drop the jobs, without telling anybody.
void broker_publish_abandon();
void broker_subscribe_abandon();

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

// The first match in document order among `node`, its following siblings and all below them; null when there is none.
differ_node_t *broker_first_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *node);
// The first match in reverse order among `node`, its preceding siblings and all below them.
differ_node_t *broker_last_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *node);
// The match behind or before `cur`, in further entries of the lists that `cur` lies in.
differ_node_t *broker_next_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *cur);
differ_node_t *broker_prev_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *cur);
