// Plugins: the applications that implement the configuration. This version keeps the plugin socket and delivers the
// broker's items to handlers inside the daemon; it loads no local plugins and serves no remote ones.
#pragma once

#include <cstdint>

#include "ymgrd/broker/broker.h"

int plugin_init(int stage);
void plugin_exit();

// Profile parsing: loads the plugin's shared object. 0, or -1 (logged).
int plugin_create_local_inst(const char *name, const char *so_path);

// Delivery of one item of the broker; `plugin_id` 0 is a handler inside the daemon. `*status` becomes SUBPUB_CONTINUE,
// or SUBPUB_ERROR when the handler refused the item. 0, or -1 when it could not be delivered.
int plugin_publish_config(int plugin_id, const plugin_publish_info_t *info, int *status);
int plugin_publish_operate(int plugin_id, const plugin_publish_info_t *info, int *status);
int plugin_subscribe_status(int plugin_id, const plugin_subscibe_info_t *info, int *status);

int plugin_service_sock(); // -1 before the plugin service is open
int plugin_service_wakeup(uint32_t event);
int plugin_inst_wakeup(int plugin_id, uint32_t event);
void plugin_timeout(); // about once per second, busy ones included
