// Replies of the daemon (RFC 6241, section 4.2): their errors as lines for people, their data as trees.
#pragma once

#include <string>
#include <vector>

#include "ctl/ctl_device.h"

typedef struct _ctl_reply_error {
  std::string tag;
  std::string app_tag;
  std::string path;
  std::string message;
  std::string info;
  bool is_warning = false;
} ctl_reply_error_t;

std::vector<ctl_reply_error_t> ctl_reply_errors(const std::string &reply); // empty: none
// "MESSAGE (TAG) at PATH: INFO", without what the error does not have.
std::string ctl_error_line(const ctl_reply_error_t &error);
// The data of a reply to get or get-config, unvalidated; null is an empty datastore. The exit code.
int ctl_reply_data(ctl_device &device, const std::string &reply, ctl_tree_ptr *ret_tree);
