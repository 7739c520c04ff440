// Replies of the daemon (RFC 6241, section 4.2): their errors as lines for people, their data as trees.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "ctl/ctl_device.h"
#include "ctl/ctl_tree.h"

bool ctl_is_refused(const std::string &reply); // it has errors that are more than warnings
// Tells its errors, each as "MESSAGE (TAG) at PATH: INFO" without what it does not have, and without what a terminal
// would obey. CTL_REFUSED when one is more than a warning, else CTL_OK.
int ctl_tell_errors(const ctl_output_t &output, const std::string &reply);

// What stands in the reply's <data>, whose elements declare their namespaces themselves; empty without any.
std::string_view ctl_reply_content(std::string_view reply);
// The data of a reply to get or get-config, unvalidated; null is an empty datastore. The exit code.
int ctl_reply_data(ctl_device &device, std::string reply, ctl_tree_ptr *ret_tree);
// The data that get or get-config asks for.
int ctl_read_data(ctl_device &device, std::string_view operation, ctl_tree_ptr *ret_tree);

// For whoever asks the daemon for a thing or two of its state (ctl_get_daemon()), and may have no schema yet: the text
// of the element that the names lead to from the container daemon on. Nothing when it is not there.
std::optional<std::string> ctl_daemon_text(const std::string &reply, std::initializer_list<const char *> names);
typedef struct _ctl_candidate_state {
  bool has_changes = false; // that are not committed
  int lock_holder = 0;      // a session; 0: none
} ctl_candidate_state_t;
// From the reply to ctl_get_candidate_state(); nothing when it does not say.
std::optional<ctl_candidate_state_t> ctl_read_candidate_state(const std::string &reply);
