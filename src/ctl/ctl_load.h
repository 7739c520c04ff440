// A configuration on its way into a datastore, with somebody at the terminal who may stop it.
#pragma once

#include <functional>
#include <string>

#include "ctl/ctl_device.h"

typedef struct _ctl_load {
  std::string name;   // of the file, for messages
  std::string config; // the content of <config>
  std::string target = "candidate";
  bool is_replacement = false; // the target holds nothing else afterwards
  bool is_test = false;        // the daemon only says whether it would do it
  std::function<int()> report; // when it has been loaded; the exit code (may be null)
  bool is_committed = false;   // behind the report
} ctl_load_t;

// Loads it, as one request. Candidate, when it is the target, is locked meanwhile. The exit code.
// Ctrl-C leaves candidate as it was: what is only half sent the daemon drops, and what it has carried out is taken
// back, until the commit is sent. With running as target it is said that it was carried out.
int ctl_load(ctl_device &device, const ctl_load_t &load);
