/* One entry of /ex-interfaces:interfaces/interface. */
#ifndef EXAMPLE_INTERFACE_CONFIG_H
#define EXAMPLE_INTERFACE_CONFIG_H

#include <linux/if.h>
#include <stdint.h>

#include <ymgr/plugin.h>

#include "addresses.h"

#define INTERFACES_PATH "/ex-interfaces:interfaces/interface"
#define INTERFACES_STATE_PATH "/ex-interfaces:interfaces-state"
#define INTERFACES_NAMESPACE "urn:ex-interfaces"

typedef struct interface_config {
  int is_there; /* 0: not configured, and all below is empty */
  int is_enabled;
  uint32_t mtu; /* 0: none configured */
  address_set_t addresses;
} interface_config_t;

/* The key in the data path of an entry. 0; -1 when it is no such path, or no kernel has such a name. */
int interface_name_of_path(const char *path, char ret_name[IFNAMSIZ]);
/* One round trip. 0 with what interface_config_free() is to free; -1, see ymgr_plugin_error(). */
int interface_config_pull(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment,
                          interface_config_t *ret_config);
void interface_config_free(interface_config_t *config);

#endif
