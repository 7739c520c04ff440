/* Interfaces and their addresses as the kernel has them. Failures: -1 with errno, and the reason in nl->message. */
#ifndef EXAMPLE_LINKS_H
#define EXAMPLE_LINKS_H

#include <linux/if.h>
#include <stdint.h>

#include "addresses.h"
#include "netlink.h"

enum { LINK_MAC_TEXT_MAX = 32 * 3 };

typedef struct link_counters {
  uint64_t rx_bytes;
  uint64_t rx_packets;
  uint64_t rx_errors;
  uint64_t tx_bytes;
  uint64_t tx_packets;
  uint64_t tx_errors;
} link_counters_t;

typedef struct link_info {
  int index;
  char name[IFNAMSIZ];
  int is_up; /* is meant to be */
  uint32_t mtu;
  uint8_t oper_status;         /* IF_OPER_... */
  char mac[LINK_MAC_TEXT_MAX]; /* "" when it has none */
  int has_counters;
  link_counters_t counters;
} link_info_t;

/* What an RTM_NEWLINK or RTM_DELLINK says. 0; -1 when it is not about an interface of its own, or makes no sense. */
int link_parse(const struct nlmsghdr *message, link_info_t *ret_link);
/* As the YANG module names it. */
const char *link_oper_status_name(uint8_t oper_status);
/* Whether the YANG module can name it. */
int link_has_plain_name(const link_info_t *link);

int link_get(nl_t *nl, const char *name, link_info_t *ret_link); /* errno ENODEV: there is none */
int link_set_mtu(nl_t *nl, int index, uint32_t mtu);
int link_set_up(nl_t *nl, int index, int is_up);

/* All interfaces; `fn` gives 0, or -1 with errno. A dump that was overtaken by changes starts anew, after `restart`. */
typedef int (*link_fn)(const link_info_t *link, void *user);
int link_each(nl_t *nl, link_fn fn, void (*restart)(void *user), void *user);

/* Adds the addresses of an interface to `set`: those that were set to stay. Not those that run out, have another end,
 * or come and go by the kernel's own doing. */
int link_read_addresses(nl_t *nl, int index, address_set_t *set);
int link_add_address(nl_t *nl, int index, const address_t *address);
int link_remove_address(nl_t *nl, int index, const address_t *address); /* 0 also when it is not there */

#endif
