/* Addresses of an interface, read from and written to the kernel. */
#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_addr.h>
#include <string.h>

#include "links.h"

/* What an RTM_NEWADDR says. */
typedef struct address_message {
  address_t address;
  const struct nlattr *local; /* null when there is no other end */
  const struct nlattr *other; /* the other end's; the address itself when there is none */
  uint32_t flags;
} address_message_t;

static int take_attribute(const struct nlattr *attribute, void *user)
{
  address_message_t *message = user;
  switch (mnl_attr_get_type(attribute)) {
  case IFA_LOCAL:
    message->local = attribute;
    break;
  case IFA_ADDRESS:
    message->other = attribute;
    break;
  case IFA_FLAGS:
    if (mnl_attr_validate(attribute, MNL_TYPE_U32) == 0) {
      message->flags = mnl_attr_get_u32(attribute);
    }
    break;
  case IFA_PROTO:
    if (mnl_attr_validate(attribute, MNL_TYPE_U8) == 0) {
      message->address.protocol = mnl_attr_get_u8(attribute);
    }
    break;
  default:
    break;
  }
  return MNL_CB_OK;
}

static size_t bytes_of(uint8_t family)
{
  return family == AF_INET6 ? sizeof(struct in6_addr) : sizeof(struct in_addr);
}

/* 0 with an address that is of the kind that we set; -1. */
static int parse_address(const struct nlmsghdr *message, int index, address_t *ret_address)
{
  const struct ifaddrmsg *header = mnl_nlmsg_get_payload(message);
  if (message->nlmsg_type != RTM_NEWADDR || mnl_nlmsg_get_payload_len(message) < sizeof(*header) ||
      header->ifa_index != (unsigned int)index || (header->ifa_family != AF_INET && header->ifa_family != AF_INET6)) {
    return -1;
  }
  address_message_t parsed = {.flags = header->ifa_flags};
  if (mnl_attr_parse(message, sizeof(*header), take_attribute, &parsed) < 0) {
    return -1;
  }
  const struct nlattr *own = parsed.local != NULL ? parsed.local : parsed.other;
  size_t length = bytes_of(header->ifa_family);
  if (own == NULL || mnl_attr_get_payload_len(own) != length) {
    return -1;
  }
  int has_other_end =
      parsed.other != NULL && (mnl_attr_get_payload_len(parsed.other) != length ||
                               memcmp(mnl_attr_get_payload(parsed.other), mnl_attr_get_payload(own), length) != 0);
  if ((parsed.flags & IFA_F_PERMANENT) == 0 || has_other_end) {
    return -1;
  }
  parsed.address.family = header->ifa_family;
  parsed.address.prefix_length = header->ifa_prefixlen;
  memcpy(parsed.address.bytes, mnl_attr_get_payload(own), length);
  *ret_address = parsed.address;
  return 0;
}

/* Whether the kernel gives and takes it by itself, as the interface goes up and down. */
static int is_of_the_kernel(const address_t *address)
{
  if (address->protocol != ADDRESS_PROTOCOL_UNKNOWN) {
    return address->protocol == IFAPROT_KERNEL_LO || address->protocol == IFAPROT_KERNEL_RA ||
           address->protocol == IFAPROT_KERNEL_LL;
  }
  /* An older kernel does not say so. */
  struct in6_addr ip;
  memcpy(&ip, address->bytes, sizeof(ip));
  return address->family == AF_INET6 && (IN6_IS_ADDR_LINKLOCAL(&ip) || IN6_IS_ADDR_LOOPBACK(&ip));
}

typedef struct address_walk {
  int index;
  address_set_t found;
} address_walk_t;

static int walk_message(const struct nlmsghdr *message, void *user)
{
  address_walk_t *walk = user;
  address_t address;
  if (parse_address(message, walk->index, &address) != 0 || is_of_the_kernel(&address)) {
    return 0;
  }
  return address_set_add(&walk->found, &address);
}

static void walk_restart(void *user)
{
  address_walk_t *walk = user;
  walk->found.count = 0;
}

int link_read_addresses(nl_t *nl, int index, address_set_t *set)
{
  _Alignas(struct nlmsghdr) char buffer[NL_REQUEST_MAX];
  void *header;
  struct nlmsghdr *request = nl_request(buffer, RTM_GETADDR, 0, sizeof(struct ifaddrmsg), &header);
  ((struct ifaddrmsg *)header)->ifa_index = (unsigned int)index;
  address_walk_t walk = {.index = index};
  int result = nl_dump(nl, request, walk_message, walk_restart, &walk);
  if (result == 0) {
    result = address_set_add_difference(set, &walk.found, NULL);
  }
  int cause = errno;
  address_set_free(&walk.found);
  errno = cause;
  return result;
}

static struct nlmsghdr *address_request(char *buffer, uint16_t type, uint16_t flags, int index,
                                        const address_t *address)
{
  void *header;
  struct nlmsghdr *request = nl_request(buffer, type, flags, sizeof(struct ifaddrmsg), &header);
  struct ifaddrmsg *info = header;
  info->ifa_index = (unsigned int)index;
  info->ifa_family = address->family;
  info->ifa_prefixlen = address->prefix_length;
  mnl_attr_put(request, IFA_LOCAL, bytes_of(address->family), address->bytes);
  mnl_attr_put(request, IFA_ADDRESS, bytes_of(address->family), address->bytes);
  return request;
}

/* The kernel sets none by itself. In the two smallest networks there is none. */
static void put_broadcast(struct nlmsghdr *request, const address_t *address)
{
  if (address->family != AF_INET || address->prefix_length == 0 || address->prefix_length > 30) {
    return;
  }
  uint32_t ip;
  memcpy(&ip, address->bytes, sizeof(ip));
  mnl_attr_put_u32(request, IFA_BROADCAST, ip | htonl(UINT32_MAX >> address->prefix_length));
}

int link_add_address(nl_t *nl, int index, const address_t *address)
{
  _Alignas(struct nlmsghdr) char buffer[NL_REQUEST_MAX];
  struct nlmsghdr *request = address_request(buffer, RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, index, address);
  put_broadcast(request, address);
  if (address->protocol != ADDRESS_PROTOCOL_UNKNOWN) {
    mnl_attr_put_u8(request, IFA_PROTO, address->protocol);
  }
  return nl_talk(nl, request, NULL, NULL);
}

int link_remove_address(nl_t *nl, int index, const address_t *address)
{
  _Alignas(struct nlmsghdr) char buffer[NL_REQUEST_MAX];
  struct nlmsghdr *request = address_request(buffer, RTM_DELADDR, 0, index, address);
  return nl_talk(nl, request, NULL, NULL) == 0 || errno == EADDRNOTAVAIL ? 0 : -1;
}
