#include "links.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

static void take_mac(const struct nlattr *attribute, link_info_t *link)
{
  const uint8_t *bytes = mnl_attr_get_payload(attribute);
  size_t count = mnl_attr_get_payload_len(attribute);
  if (count * 3 > sizeof(link->mac)) {
    return; /* no link layer has such addresses */
  }
  for (size_t i = 0; i < count; i++) {
    (void)snprintf(link->mac + i * 3, sizeof(link->mac) - i * 3, i + 1 < count ? "%02x:" : "%02x", bytes[i]);
  }
}

static void take_counters(const struct nlattr *attribute, link_info_t *link)
{
  struct rtnl_link_stats64 all = {0};
  size_t length = mnl_attr_get_payload_len(attribute); /* another kernel may tell more or less */
  memcpy(&all, mnl_attr_get_payload(attribute), length < sizeof(all) ? length : sizeof(all));
  link->counters = (link_counters_t){.rx_bytes = all.rx_bytes,
                                     .rx_packets = all.rx_packets,
                                     .rx_errors = all.rx_errors,
                                     .tx_bytes = all.tx_bytes,
                                     .tx_packets = all.tx_packets,
                                     .tx_errors = all.tx_errors};
  link->has_counters = 1;
}

static int take_attribute(const struct nlattr *attribute, void *user)
{
  link_info_t *link = user;
  switch (mnl_attr_get_type(attribute)) {
  case IFLA_IFNAME:
    if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0) {
      (void)snprintf(link->name, sizeof(link->name), "%s", mnl_attr_get_str(attribute));
    }
    break;
  case IFLA_MTU:
    if (mnl_attr_validate(attribute, MNL_TYPE_U32) == 0) {
      link->mtu = mnl_attr_get_u32(attribute);
    }
    break;
  case IFLA_OPERSTATE:
    if (mnl_attr_validate(attribute, MNL_TYPE_U8) == 0) {
      link->oper_status = mnl_attr_get_u8(attribute);
    }
    break;
  case IFLA_ADDRESS:
    take_mac(attribute, link);
    break;
  case IFLA_STATS64:
    take_counters(attribute, link);
    break;
  default:
    break;
  }
  return MNL_CB_OK;
}

int link_parse(const struct nlmsghdr *message, link_info_t *ret_link)
{
  const struct ifinfomsg *header = mnl_nlmsg_get_payload(message);
  /* A bridge tells of its ports in messages of the same types: there "deleted" means that a port has left it. */
  if (mnl_nlmsg_get_payload_len(message) < sizeof(*header) || header->ifi_family != AF_UNSPEC) {
    return -1;
  }
  link_info_t link = {.index = header->ifi_index, .is_up = (header->ifi_flags & IFF_UP) != 0};
  if (mnl_attr_parse(message, sizeof(*header), take_attribute, &link) < 0 || link.name[0] == '\0') {
    return -1;
  }
  *ret_link = link;
  return 0;
}

const char *link_oper_status_name(uint8_t oper_status)
{
  static const char *const NAMES[] = {
      [IF_OPER_UNKNOWN] = "unknown", [IF_OPER_NOTPRESENT] = "not-present",
      [IF_OPER_DOWN] = "down",       [IF_OPER_LOWERLAYERDOWN] = "lower-layer-down",
      [IF_OPER_TESTING] = "testing", [IF_OPER_DORMANT] = "dormant",
      [IF_OPER_UP] = "up",
  };
  return oper_status < sizeof(NAMES) / sizeof(NAMES[0]) ? NAMES[oper_status] : "unknown";
}

int link_has_plain_name(const link_info_t *link)
{
  static const char PLAIN[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._@+-";
  return link->name[strspn(link->name, PLAIN)] == '\0';
}

static int take_link(const struct nlmsghdr *message, void *user)
{
  if (message->nlmsg_type != RTM_NEWLINK || link_parse(message, user) != 0) {
    errno = EBADMSG;
    return -1;
  }
  return 0;
}

int link_get(nl_t *nl, const char *name, link_info_t *ret_link)
{
  _Alignas(struct nlmsghdr) char buffer[NL_REQUEST_MAX];
  void *header;
  struct nlmsghdr *request = nl_request(buffer, RTM_GETLINK, 0, sizeof(struct ifinfomsg), &header);
  mnl_attr_put_strz(request, IFLA_IFNAME, name);
  mnl_attr_put_u32(request, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  return nl_talk(nl, request, take_link, ret_link);
}

int link_set_mtu(nl_t *nl, int index, uint32_t mtu)
{
  _Alignas(struct nlmsghdr) char buffer[NL_REQUEST_MAX];
  void *header;
  struct nlmsghdr *request = nl_request(buffer, RTM_NEWLINK, 0, sizeof(struct ifinfomsg), &header);
  ((struct ifinfomsg *)header)->ifi_index = index;
  mnl_attr_put_u32(request, IFLA_MTU, mtu);
  return nl_talk(nl, request, NULL, NULL);
}

int link_set_up(nl_t *nl, int index, int is_up)
{
  _Alignas(struct nlmsghdr) char buffer[NL_REQUEST_MAX];
  void *header;
  struct nlmsghdr *request = nl_request(buffer, RTM_NEWLINK, 0, sizeof(struct ifinfomsg), &header);
  struct ifinfomsg *info = header;
  info->ifi_index = index;
  info->ifi_flags = is_up ? IFF_UP : 0;
  info->ifi_change = IFF_UP;
  return nl_talk(nl, request, NULL, NULL);
}

typedef struct link_walk {
  link_fn fn;
  void (*restart)(void *user);
  void *user;
} link_walk_t;

static int walk_message(const struct nlmsghdr *message, void *user)
{
  const link_walk_t *walk = user;
  link_info_t link;
  return link_parse(message, &link) == 0 ? walk->fn(&link, walk->user) : 0;
}

static void walk_restart(void *user)
{
  const link_walk_t *walk = user;
  walk->restart(walk->user);
}

int link_each(nl_t *nl, link_fn fn, void (*restart)(void *user), void *user)
{
  _Alignas(struct nlmsghdr) char buffer[NL_REQUEST_MAX];
  void *header;
  struct nlmsghdr *request = nl_request(buffer, RTM_GETLINK, 0, sizeof(struct ifinfomsg), &header);
  link_walk_t walk = {fn, restart, user};
  return nl_dump(nl, request, walk_message, walk_restart, &walk);
}
