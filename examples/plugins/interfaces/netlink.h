/* Requests to the kernel's rtnetlink, one at a time. */
#ifndef EXAMPLE_NETLINK_H
#define EXAMPLE_NETLINK_H

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

enum { NL_MESSAGE_MAX = 256, NL_REQUEST_MAX = 512 };

typedef struct nl {
  struct mnl_socket *socket;
  unsigned int sequence;
  char message[NL_MESSAGE_MAX]; /* the reason of the last failure, in the kernel's words where it has some */
} nl_t;

/* 0; -1 with errno. */
int nl_open(nl_t *ret_nl);
void nl_close(nl_t *nl);

/* Starts a request in `buffer` (of NL_REQUEST_MAX bytes), with zeros for the family's header behind the message's. */
struct nlmsghdr *nl_request(char *buffer, uint16_t type, uint16_t flags, size_t header_length, void **ret_header);

/* Sends `request` and hands each message of the answer to `on_message` (may be null), which gives 0, or -1 with errno.
 * Waits for the kernel, a few seconds at most. 0; -1 with errno and `message`. */
typedef int (*nl_message_fn)(const struct nlmsghdr *message, void *user);
int nl_talk(nl_t *nl, struct nlmsghdr *request, nl_message_fn on_message, void *user);
/* The same for a dump. One that changes overtake is asked for anew, after `restart`, which drops what `on_message` has
 * gathered. */
int nl_dump(nl_t *nl, struct nlmsghdr *request, nl_message_fn on_message, void (*restart)(void *user), void *user);

#endif
