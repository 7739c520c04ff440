/* The state of all interfaces: told when a get asks, and kept up to date in the daemon from the kernel's events. */
#ifndef EXAMPLE_LINK_STATE_H
#define EXAMPLE_LINK_STATE_H

#include <ymgr/plugin.h>

#include "links.h"

typedef struct known_link {
  link_info_t link;
  int is_seen;   /* by the dump in progress */
  int is_unsaid; /* the daemon was not told its state */
} known_link_t;

typedef struct link_state {
  ymgr_plugin_t *plugin;
  nl_t *nl; /* for dumps */
  struct mnl_socket *events;
  known_link_t *known; /* by ascending index */
  size_t known_count;
  size_t known_capacity;
  int is_incomplete; /* events were lost: all is to be read anew */
  int is_unheard;    /* the last event did not reach the daemon */
  int was_ready;
  int is_all_unsaid; /* what the daemon was told last is not what it is to hold, beyond single interfaces */
} link_state_t;

/* Subscribes to the kernel's events, reads all interfaces, and registers the state. `plugin` and `nl` must outlive
 * `state`. 0, or -1 with the reason on standard error; link_state_free() is to be called after both. */
int link_state_setup(ymgr_plugin_t *plugin, nl_t *nl, link_state_t *state);
void link_state_free(link_state_t *state);

int link_state_fd(const link_state_t *state);
/* To be called when the descriptor is readable; does not wait for events. 0; -1 when there will be no more of them. */
int link_state_process(link_state_t *state);
/* Tells the daemon what it does not know. 0; -1 when that is to be tried again in a while. */
int link_state_publish(link_state_t *state);

#endif
