/* The plugin: registers what the other files do. */
#ifndef EXAMPLE_SYSTEM_H
#define EXAMPLE_SYSTEM_H

#include <ymgr/plugin.h>

/* The directory that holds etc/: "/" is the machine itself. */
#define SYSTEM_ROOT_VARIABLE "EX_SYSTEM_ROOT"

/* What the client of a refused request sees as error-app-tag. */
enum { SYSTEM_READ_FAILED = 1, SYSTEM_BAD_VALUE = 2, SYSTEM_WRITE_FAILED = 3 };

int system_setup(ymgr_plugin_t *plugin);

/* State and operation; see ymgr_status_fn and ymgr_rpc_fn. */
int system_state(ymgr_plugin_t *plugin, const char *path, char **ret_data, void *user);
int system_check_name(ymgr_plugin_t *plugin, int session_id, const char *input, char **ret_output, void *user);

#endif
