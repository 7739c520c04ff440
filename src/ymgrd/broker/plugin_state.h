// What the daemon tells of its plugins, of those too that have gone.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "ymgrd/broker/broker_plugin.h"

typedef enum _plugin_status {
  PLUGIN_STATUS_REGISTERED, // not active
  PLUGIN_STATUS_RESTORING,
  PLUGIN_STATUS_SMOOTH_START,
  PLUGIN_STATUS_STARTING, // its kickoff awaits the answer
  PLUGIN_STATUS_READY,
  PLUGIN_STATUS_OUTDATED, // has missed a change
  PLUGIN_STATUS_OVERDUE,
  PLUGIN_STATUS_FAILED, // was not started, or has refused its kickoff
  PLUGIN_STATUS_GONE,
} plugin_status_t;

typedef struct _plugin_state {
  std::string name; // characters that XML can carry
  bool is_local = false;
  long process_id = 0; // of a remote one
  plugin_status_t status = PLUGIN_STATUS_GONE;
  time_t left = 0; // 0 while it is there
  uint32_t config_subscriptions = 0;
  uint32_t status_publications = 0;
  uint32_t operations = 0;
  plugin_history_t history;
} plugin_state_t;

// All that have registered: those that are there, and the latest of those that have gone. By name, in no more than one
// pass over all registrations.
std::vector<plugin_state_t> plugin_states();
