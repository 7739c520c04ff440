#include "interfaces.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "interface_config.h"

enum { PRIORITY = 20 };

typedef struct refusal {
  int code; /* INTERFACES_... */
  char reason[512];
} refusal_t;

static int refuse_link(refusal_t *refusal, const char *what, const char *name, const nl_t *nl)
{
  refusal->code = INTERFACES_KERNEL_REFUSED;
  (void)snprintf(refusal->reason, sizeof(refusal->reason), "%s of interface %s: %s", what, name, nl->message);
  return -1;
}

static int refuse_address(refusal_t *refusal, const char *what, const address_t *address, const char *name,
                          const nl_t *nl)
{
  char text[ADDRESS_TEXT_MAX];
  refusal->code = INTERFACES_KERNEL_REFUSED;
  (void)snprintf(refusal->reason, sizeof(refusal->reason), "%s %s of interface %s: %s", what,
                 address_print(address, text), name, nl->message);
  return -1;
}

static int refuse_for_memory(refusal_t *refusal)
{
  refusal->code = INTERFACES_READ_FAILED;
  (void)snprintf(refusal->reason, sizeof(refusal->reason), "Out of memory.");
  return -1;
}

/* --- Bringing the kernel from what it has to what it is to have. */

typedef struct target {
  int is_up;
  uint32_t mtu;
  address_set_t removed;   /* to be taken away when they are there */
  address_set_t addresses; /* to be there */
} target_t;

static void target_free(target_t *target)
{
  address_set_free(&target->removed);
  address_set_free(&target->addresses);
}

static int bring_link(nl_t *nl, const link_info_t *link, const target_t *target, refusal_t *refusal)
{
  if (target->mtu != link->mtu && link_set_mtu(nl, link->index, target->mtu) != 0) {
    return refuse_link(refusal, "Can not set the mtu", link->name, nl);
  }
  if (target->is_up != link->is_up && link_set_up(nl, link->index, target->is_up) != 0) {
    return refuse_link(refusal, "Can not change the state", link->name, nl);
  }
  return 0;
}

static int add_missing(nl_t *nl, const link_info_t *link, const address_set_t *missing, refusal_t *refusal)
{
  for (size_t i = 0; i < missing->count; i++) {
    if (link_add_address(nl, link->index, &missing->items[i]) != 0) {
      return refuse_address(refusal, "Can not add address", &missing->items[i], link->name, nl);
    }
  }
  return 0;
}

static int bring_addresses(nl_t *nl, const link_info_t *link, const target_t *target, refusal_t *refusal)
{
  for (size_t i = 0; i < target->removed.count; i++) {
    if (link_remove_address(nl, link->index, &target->removed.items[i]) != 0) {
      return refuse_address(refusal, "Can not remove address", &target->removed.items[i], link->name, nl);
    }
  }
  /* What is missing is found by looking again: with an address the kernel may take away others of its network, and with
   * the state "up" those of IPv6. */
  address_set_t present = {0};
  address_set_t missing = {0};
  int result;
  if (link_read_addresses(nl, link->index, &present) != 0) {
    result = refuse_link(refusal, "Can not read the addresses", link->name, nl);
  } else if (address_set_add_difference(&missing, &target->addresses, &present) != 0) {
    result = refuse_for_memory(refusal);
  } else {
    result = add_missing(nl, link, &missing, refusal);
  }
  address_set_free(&present);
  address_set_free(&missing);
  return result;
}

static int bring(nl_t *nl, const link_info_t *link, const target_t *target, refusal_t *refusal)
{
  return bring_link(nl, link, target, refusal) == 0 ? bring_addresses(nl, link, target, refusal) : -1;
}

/* --- What was there before a change, so that it can be taken back. */

static interface_before_t *find_before(interfaces_t *interfaces, const char *name)
{
  for (size_t i = 0; i < interfaces->before_count; i++) {
    if (strcmp(interfaces->before[i].link.name, name) == 0) {
      return &interfaces->before[i];
    }
  }
  return NULL;
}

static void forget_before(interfaces_t *interfaces, const char *name)
{
  interface_before_t *before = find_before(interfaces, name);
  if (before != NULL) {
    address_set_free(&before->addresses);
    address_set_free(&before->wanted);
    *before = interfaces->before[--interfaces->before_count];
  }
}

static interface_before_t *make_before(interfaces_t *interfaces, const link_info_t *link)
{
  interface_before_t *all = realloc(interfaces->before, (interfaces->before_count + 1) * sizeof(*all));
  if (all == NULL) {
    return NULL;
  }
  interfaces->before = all;
  interface_before_t *before = &all[interfaces->before_count++];
  *before = (interface_before_t){.link = *link};
  return before;
}

static int take_back(interfaces_t *interfaces, const char *name, refusal_t *refusal)
{
  const interface_before_t *before = find_before(interfaces, name);
  if (before == NULL) {
    return 0; /* nothing was done to it */
  }
  link_info_t link; /* it may have got another index meanwhile */
  if (link_get(&interfaces->nl, name, &link) != 0) {
    return refuse_link(refusal, "Can not read the state", name, &interfaces->nl);
  }
  target_t target = {.is_up = before->link.is_up, .mtu = before->link.mtu};
  int result;
  if (address_set_add_difference(&target.removed, &before->wanted, &before->addresses) != 0 ||
      address_set_add_difference(&target.addresses, &before->addresses, NULL) != 0) {
    result = refuse_for_memory(refusal);
  } else {
    result = bring(&interfaces->nl, &link, &target, refusal);
  }
  target_free(&target);
  return result;
}

/* --- Changes. */

/* A plugin that was started anew is not told what was configured before; the addresses know whose they are. */
static int add_own(address_set_t *set, const address_set_t *present)
{
  for (size_t i = 0; i < present->count; i++) {
    if (present->items[i].protocol == ADDRESS_PROTOCOL_OURS && address_set_add(set, &present->items[i]) != 0) {
      return -1;
    }
  }
  return 0;
}

/* What the entry does not say stays as it is, and so do the addresses that others have set. `old`: what was configured;
 * null when that is not known. 0; -1 (memory). */
static int make_target(const interface_before_t *before, const address_set_t *old, const interface_config_t *wanted,
                       target_t *target)
{
  target->is_up = wanted->is_there ? wanted->is_enabled : before->link.is_up;
  target->mtu = wanted->mtu != 0 ? wanted->mtu : before->link.mtu;
  address_set_t own = {0};
  int result = old == NULL ? add_own(&own, &before->addresses) : 0;
  if (result == 0) {
    result = address_set_add_difference(&target->removed, old == NULL ? &own : old, &wanted->addresses);
  }
  address_set_free(&own);
  if (result == 0) {
    result = address_set_add_difference(&target->addresses, &before->addresses, &target->removed);
  }
  return result == 0 ? address_set_add_difference(&target->addresses, &wanted->addresses, NULL) : result;
}

/* Does it all or nothing. */
static int change_link(interfaces_t *interfaces, const link_info_t *link, const address_set_t *old,
                       const interface_config_t *wanted, refusal_t *refusal)
{
  interface_before_t *before = make_before(interfaces, link);
  if (before == NULL) {
    return refuse_for_memory(refusal);
  }
  if (link_read_addresses(&interfaces->nl, link->index, &before->addresses) != 0) {
    return refuse_link(refusal, "Can not read the addresses", link->name, &interfaces->nl);
  }
  target_t target = {0};
  int result;
  if (make_target(before, old, wanted, &target) != 0 ||
      address_set_add_difference(&before->wanted, &target.addresses, NULL) != 0) {
    result = refuse_for_memory(refusal);
  } else {
    result = bring(&interfaces->nl, link, &target, refusal);
    refusal_t second;
    if (result != 0 && take_back(interfaces, link->name, &second) != 0) {
      fprintf(stderr, "example-interfaces: %s\n", second.reason); /* the client is told the first reason */
    }
  }
  target_free(&target);
  return result;
}

static int change_interface(interfaces_t *interfaces, const char *name, const address_set_t *old,
                            const interface_config_t *wanted, refusal_t *refusal)
{
  forget_before(interfaces, name);
  link_info_t link;
  if (link_get(&interfaces->nl, name, &link) == 0) {
    return change_link(interfaces, &link, old, wanted, refusal);
  }
  if (errno != ENODEV) {
    return refuse_link(refusal, "Can not read the state", name, &interfaces->nl);
  }
  if (!wanted->is_there) {
    return 0; /* and nothing is left to be done */
  }
  refusal->code = INTERFACES_UNKNOWN_INTERFACE;
  (void)snprintf(refusal->reason, sizeof(refusal->reason), "There is no interface %s.", name);
  return -1;
}

static int pull_and_change(ymgr_plugin_t *plugin, const ymgr_change_t *change, interfaces_t *interfaces,
                           const char *name, refusal_t *refusal)
{
  int is_old_known = (change->oper_type & (CONFIG_OP_CFGR | CONFIG_OP_SMOOTH)) == 0;
  interface_config_t old = {0};
  interface_config_t wanted = {0};
  int result;
  if (interface_config_pull(plugin, change->path, YMGR_NEW, &wanted) != 0 ||
      (is_old_known && interface_config_pull(plugin, change->path, YMGR_OLD, &old) != 0)) {
    refusal->code = INTERFACES_READ_FAILED;
    (void)snprintf(refusal->reason, sizeof(refusal->reason), "%s", ymgr_plugin_error(plugin));
    result = -1;
  } else {
    result = change_interface(interfaces, name, is_old_known ? &old.addresses : NULL, &wanted, refusal);
  }
  interface_config_free(&old);
  interface_config_free(&wanted);
  return result;
}

static int interface_changed(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *user)
{
  interfaces_t *interfaces = user;
  char name[IFNAMSIZ];
  refusal_t refusal;
  if (interface_name_of_path(change->path, name) != 0) {
    return ymgr_plugin_reject(plugin, INTERFACES_READ_FAILED, "This is no entry of the list of interfaces.");
  }
  int result = (change->oper_type & CONFIG_OP_ROLLBACK) != 0
                   ? take_back(interfaces, name, &refusal)
                   : pull_and_change(plugin, change, interfaces, name, &refusal);
  return result == 0 ? 0 : ymgr_plugin_reject(plugin, refusal.code, refusal.reason);
}

int interfaces_setup(ymgr_plugin_t *plugin, interfaces_t *interfaces)
{
  return ymgr_plugin_on_config(plugin, INTERFACES_PATH, PRIORITY, interface_changed, interfaces);
}

void interfaces_free(interfaces_t *interfaces)
{
  while (interfaces->before_count > 0) {
    forget_before(interfaces, interfaces->before[0].link.name);
  }
  free(interfaces->before);
  interfaces->before = NULL;
  nl_close(&interfaces->nl);
}
