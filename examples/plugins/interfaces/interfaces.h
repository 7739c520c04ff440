/* The configuration of interfaces, brought to the kernel. */
#ifndef EXAMPLE_INTERFACES_H
#define EXAMPLE_INTERFACES_H

#include <ymgr/plugin.h>

#include "links.h"

/* What the client of a refused change sees as error-app-tag. */
enum { INTERFACES_READ_FAILED = 1, INTERFACES_UNKNOWN_INTERFACE = 2, INTERFACES_KERNEL_REFUSED = 3 };

/* What was there before the last change of an interface. */
typedef struct interface_before {
  link_info_t link;
  address_set_t addresses;
  address_set_t wanted; /* what the change was to bring about */
} interface_before_t;

typedef struct interfaces {
  nl_t nl;
  interface_before_t *before; /* one for each interface that was ever changed */
  size_t before_count;
} interfaces_t;

/* Subscribes; `interfaces`, with an open `nl`, is used as long as the plugin lives. 0 or -1. */
int interfaces_setup(ymgr_plugin_t *plugin, interfaces_t *interfaces);
void interfaces_free(interfaces_t *interfaces);

#endif
