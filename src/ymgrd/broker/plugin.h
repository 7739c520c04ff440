// Plugins: the applications that implement the configuration. A local one is a shared object of the profile, whose
// functions are called directly; a remote one is a process that connected to the plugin socket. This component keeps
// them, turns the broker's items into calls and messages, serves what plugins ask for, and resumes the broker when a
// reply has come, is overdue, or can not come any more.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ymgrd/broker/broker.h"

int plugin_init(int stage);
void plugin_exit();
int plugin_spec(); // most plugins at once

// Profile parsing: loads the plugin's shared object and its own profile. 0, or -1 (logged).
int plugin_create_local_inst(const char *name, const char *so_path);

// Delivery of one item of the broker; `plugin_id` 0 is a handler inside the daemon. `*status` becomes SUBPUB_CONTINUE,
// SUBPUB_WAIT when a reply will resume the broker, or SUBPUB_ERROR when the item was refused or could not be delivered;
// the reason of a change is then saved with broker_save_error(). 0 or -1.
int plugin_publish_config(int plugin_id, const plugin_publish_info_t *info, int *status);
// The session has been answered, or will be, whatever the result.
int plugin_publish_operate(int plugin_id, const plugin_publish_info_t *info, int *status);
int plugin_subscribe_status(int plugin_id, const plugin_subscibe_info_t *info, int *status);
// The configuration has been handed over: ends the plugin's restore or smooth start and tells it to begin.
void plugin_kickoff(plugin_inst_t *plugin);

int plugin_get_id(const plugin_inst_t *plugin);
const char *plugin_get_name(int plugin_id); // null when there is no such plugin
// The remote plugins that know what runs: ready, and told of every change.
std::vector<std::string> plugin_names_up_to_date();
// The broker waits no longer for what the plugin was asked.
void plugin_given_up(int plugin_id);
// The session has ended: what a plugin still answers to it is dropped.
void plugin_session_closed(int session_id);

int plugin_service_sock(); // -1 before the plugin service is open
int plugin_service_wakeup(uint32_t event);
int plugin_inst_wakeup(int plugin_id, uint32_t event);
void plugin_timeout(); // about once per second, busy ones included
