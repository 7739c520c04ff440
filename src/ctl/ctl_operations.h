// The operations that ymgrctl sends, as text: what stands in <rpc> (RFC 6241, section 7). Names of datastores, filters
// and configurations are put in as they are.
#pragma once

#include <string>
#include <string_view>

#include "libconf/wiped_string.h"

constexpr std::string_view CTL_COMMIT = "<commit/>";
constexpr std::string_view CTL_DISCARD = "<discard-changes/>";

// <filter> with that content; nothing without any, which selects everything.
std::string ctl_subtree_filter(std::string_view content);
// `selection`: a subtree filter's content, as ctl_filter() makes it; empty: everything.
std::string ctl_get(std::string_view selection);
std::string ctl_get_config(std::string_view datastore, std::string_view selection = "");
// The daemon's state (container daemon of zentra-ymgrd): of its children what `selection` says; all when it is empty.
std::string ctl_get_daemon(std::string_view selection);
// Whether candidate holds changes, and which session has locked it: ctl_read_candidate_state() reads the reply.
std::string ctl_get_candidate_state();
std::string ctl_get_capability();

std::string ctl_copy_config(std::string_view source, std::string_view target);
wiped_string ctl_replace_config(std::string_view target, std::string_view config);
std::string ctl_lock(std::string_view datastore);
std::string ctl_unlock(std::string_view datastore);
std::string ctl_kill_session(unsigned id);

typedef struct _ctl_edit_options {
  const char *default_operation = "merge";
  const char *test = "";     // <test-option>; empty: the daemon's default
  const char *on_error = ""; // <error-option>
} ctl_edit_options_t;
wiped_string ctl_edit_config(std::string_view target, std::string_view config, const ctl_edit_options_t &options);
