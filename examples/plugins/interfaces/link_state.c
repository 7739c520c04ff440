#include "link_state.h"

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "interface_config.h"

enum {
  RECEIVE_MAX = 64 * 1024,
  BATCHES_MAX = 64, /* in one go: the plugin is to be served, however many interfaces flap */
  STATE_FAILED = 1  /* error code */
};

static void log_failure(const char *what, const char *reason)
{
  fprintf(stderr, "example-interfaces: %s: %s\n", what, reason);
}

/* --- What is known of the interfaces, and what of that is news. */

/* The first place whose index is not less. */
static size_t place_of(const link_state_t *state, int index)
{
  size_t low = 0;
  size_t high = state->known_count;
  while (low < high) {
    size_t middle = low + (high - low) / 2;
    if (state->known[middle].link.index < index) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

static void notify(link_state_t *state, const char *name, uint8_t oper_status)
{
  char event[256];
  if (!ymgr_plugin_is_ready(state->plugin)) {
    return; /* nobody to hear it */
  }
  (void)snprintf(event, sizeof(event),
                 "<link-change xmlns=\"" INTERFACES_NAMESPACE
                 "\"><name>%s</name><oper-status>%s</oper-status></link-change>",
                 name, link_oper_status_name(oper_status));
  int is_unheard = ymgr_plugin_notify(state->plugin, event) != 0;
  if (is_unheard && !state->is_unheard) { /* once, however many follow */
    log_failure("events do not reach the daemon", ymgr_plugin_error(state->plugin));
  }
  state->is_unheard = is_unheard;
}

static void forget_link(link_state_t *state, int index)
{
  size_t place = place_of(state, index);
  if (place == state->known_count || state->known[place].link.index != index) {
    return;
  }
  notify(state, state->known[place].link.name, IF_OPER_NOTPRESENT);
  state->known_count--;
  memmove(&state->known[place], &state->known[place + 1], (state->known_count - place) * sizeof(*state->known));
  state->is_all_unsaid = 1;
}

static known_link_t *insert_link(link_state_t *state, size_t place)
{
  if (state->known_count == state->known_capacity) {
    size_t capacity = state->known_capacity == 0 ? 16 : state->known_capacity * 2;
    known_link_t *known = realloc(state->known, capacity * sizeof(*known));
    if (known == NULL) {
      errno = ENOMEM;
      return NULL;
    }
    state->known = known;
    state->known_capacity = capacity;
  }
  memmove(&state->known[place + 1], &state->known[place], (state->known_count - place) * sizeof(*state->known));
  state->known_count++;
  state->known[place] = (known_link_t){.is_unsaid = 1};
  return &state->known[place];
}

/* 0; -1 with errno (memory). */
static int learn_link(const link_info_t *link, void *user)
{
  link_state_t *state = user;
  size_t place = place_of(state, link->index);
  known_link_t *known =
      place < state->known_count && state->known[place].link.index == link->index ? &state->known[place] : NULL;
  if (known != NULL && strcmp(known->link.name, link->name) != 0) { /* renamed */
    forget_link(state, link->index);
    known = NULL;
  }
  if (!link_has_plain_name(link)) {
    return 0; /* the module can not name it */
  }
  int is_changed = known == NULL || known->link.oper_status != link->oper_status;
  if (known == NULL) {
    known = insert_link(state, place);
    if (known == NULL) {
      return -1;
    }
  } else if (is_changed || strcmp(known->link.mac, link->mac) != 0) {
    known->is_unsaid = 1;
  }
  known->link = *link;
  known->is_seen = 1;
  if (is_changed) {
    notify(state, link->name, link->oper_status);
  }
  return 0;
}

static void see_none(void *user)
{
  link_state_t *state = user;
  for (size_t i = 0; i < state->known_count; i++) {
    state->known[i].is_seen = 0;
  }
}

/* Reads all interfaces anew. 0 or -1. */
static int read_all(link_state_t *state)
{
  see_none(state);
  if (link_each(state->nl, learn_link, see_none, state) != 0) {
    log_failure("the interfaces can not be read", state->nl->message);
    state->is_incomplete = 1;
    return -1;
  }
  for (size_t i = state->known_count; i-- > 0;) {
    if (!state->known[i].is_seen) {
      forget_link(state, state->known[i].link.index);
    }
  }
  state->is_incomplete = 0;
  return 0;
}

/* --- Events of the kernel. */

static void take_event(link_state_t *state, const struct nlmsghdr *message)
{
  link_info_t link;
  if ((message->nlmsg_type != RTM_NEWLINK && message->nlmsg_type != RTM_DELLINK) || link_parse(message, &link) != 0) {
    return;
  }
  if (message->nlmsg_type == RTM_DELLINK) {
    forget_link(state, link.index);
  } else if (learn_link(&link, state) != 0) {
    state->is_incomplete = 1;
  }
}

/* 0: there may be more; 1: there are no more at present; -1 with errno. */
static int take_batch(link_state_t *state)
{
  _Alignas(struct nlmsghdr) char buffer[RECEIVE_MAX];
  ssize_t received = mnl_socket_recvfrom(state->events, buffer, sizeof(buffer));
  if (received >= 0) {
    int length = (int)received;
    for (const struct nlmsghdr *message = (const struct nlmsghdr *)buffer; mnl_nlmsg_ok(message, length);
         message = mnl_nlmsg_next(message, &length)) {
      take_event(state, message);
    }
    return 0;
  }
  switch (errno) {
  case EAGAIN:
    return 1;
  case EINTR:
    return 0;
  case ENOBUFS: /* more happened than the socket could hold */
  case ENOSPC:  /* one event was too long */
    state->is_incomplete = 1;
    return 0;
  default:
    return -1;
  }
}

int link_state_process(link_state_t *state)
{
  int result = 0;
  for (int i = 0; i < BATCHES_MAX && result == 0; i++) {
    result = take_batch(state);
  }
  if (result < 0) {
    log_failure("the kernel's events can not be read", strerror(errno));
    return -1;
  }
  /* Not before the socket is empty: older events would hide what is read now. A failure is mended by the next try. */
  if (result == 1 && state->is_incomplete) {
    (void)read_all(state);
  }
  return 0;
}

/* --- As XML. Plain names hold nothing that is to be escaped. */

static void print_counters(FILE *out, const link_counters_t *counters)
{
  fprintf(out,
          "<counters><rx-bytes>%" PRIu64 "</rx-bytes><rx-packets>%" PRIu64 "</rx-packets><rx-errors>%" PRIu64
          "</rx-errors><tx-bytes>%" PRIu64 "</tx-bytes><tx-packets>%" PRIu64 "</tx-packets><tx-errors>%" PRIu64
          "</tx-errors></counters>",
          counters->rx_bytes, counters->rx_packets, counters->rx_errors, counters->tx_bytes, counters->tx_packets,
          counters->tx_errors);
}

/* 0 with the text, to be freed; -1 (memory). */
static int print_links(const known_link_t *links, size_t count, int with_counters, char **ret_text)
{
  char *text = NULL;
  size_t length = 0;
  FILE *out = open_memstream(&text, &length);
  if (out == NULL) {
    return -1;
  }
  fputs("<interfaces-state xmlns=\"" INTERFACES_NAMESPACE "\">", out);
  for (size_t i = 0; i < count; i++) {
    const link_info_t *link = &links[i].link;
    fprintf(out, "<interface><name>%s</name><oper-status>%s</oper-status>", link->name,
            link_oper_status_name(link->oper_status));
    if (link->mac[0] != '\0') {
      fprintf(out, "<mac>%s</mac>", link->mac);
    }
    if (with_counters && link->has_counters) {
      print_counters(out, &link->counters);
    }
    fputs("</interface>", out);
  }
  fputs("</interfaces-state>", out);
  int is_bad = ferror(out);
  if (fclose(out) != 0 || is_bad) {
    free(text);
    return -1;
  }
  *ret_text = text;
  return 0;
}

/* --- Towards the daemon. */

/* Counters change with every packet: they are told when somebody asks, and are no news. */
static int push_links(link_state_t *state, const char *path, const known_link_t *links, size_t count)
{
  char *text = NULL;
  if (print_links(links, count, 0, &text) != 0) {
    log_failure("the state can not be told", strerror(ENOMEM));
    return -1;
  }
  int result = ymgr_plugin_push(state->plugin, path, text);
  if (result != 0) {
    log_failure("the state was not taken", ymgr_plugin_error(state->plugin));
  }
  free(text);
  return result;
}

static int push_all(link_state_t *state)
{
  if (push_links(state, INTERFACES_STATE_PATH, state->known, state->known_count) != 0) {
    return -1;
  }
  for (size_t i = 0; i < state->known_count; i++) {
    state->known[i].is_unsaid = 0;
  }
  state->is_all_unsaid = 0;
  return 0;
}

static int push_changed(link_state_t *state)
{
  for (size_t i = 0; i < state->known_count; i++) {
    known_link_t *known = &state->known[i];
    if (!known->is_unsaid) {
      continue;
    }
    char path[sizeof(INTERFACES_STATE_PATH) + IFNAMSIZ + 32];
    (void)snprintf(path, sizeof(path), INTERFACES_STATE_PATH "/interface[name=\"%s\"]", known->link.name);
    if (push_links(state, path, known, 1) != 0) {
      return -1;
    }
    known->is_unsaid = 0;
  }
  return 0;
}

int link_state_publish(link_state_t *state)
{
  if (state->is_incomplete && link_state_process(state) == 0 && state->is_incomplete) {
    return -1;
  }
  int is_ready = ymgr_plugin_is_ready(state->plugin);
  if (is_ready && !state->was_ready) {
    state->is_all_unsaid = 1; /* with the connection the daemon forgot what it had been told */
  }
  state->was_ready = is_ready;
  if (!is_ready) {
    return 0;
  }
  return state->is_all_unsaid ? push_all(state) : push_changed(state);
}

static int tell_state(ymgr_plugin_t *plugin, const char *path, char **ret_data, void *user)
{
  link_state_t *state = user;
  (void)path;
  /* Events first: read after the interfaces they would look like news again. */
  if (link_state_process(state) != 0 || read_all(state) != 0 ||
      print_links(state->known, state->known_count, 1, ret_data) != 0) {
    return ymgr_plugin_reject(plugin, STATE_FAILED, "The state of the interfaces can not be read.");
  }
  return 0;
}

/* --- Beginning and end. */

int link_state_setup(ymgr_plugin_t *plugin, nl_t *nl, link_state_t *state)
{
  *state = (link_state_t){.plugin = plugin, .nl = nl};
  state->events = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (state->events == NULL || mnl_socket_bind(state->events, RTMGRP_LINK, MNL_SOCKET_AUTOPID) != 0) {
    log_failure("the kernel's events are not to be had", strerror(errno));
    return -1;
  }
  if (read_all(state) != 0) {
    return -1;
  }
  if (ymgr_plugin_on_status(plugin, INTERFACES_STATE_PATH, tell_state, state) != 0) {
    log_failure("the state can not be registered", ymgr_plugin_error(plugin));
    return -1;
  }
  return 0;
}

void link_state_free(link_state_t *state)
{
  if (state->events != NULL) {
    (void)mnl_socket_close(state->events); /* nothing is left to be done about it */
  }
  free(state->known);
  *state = (link_state_t){0};
}

int link_state_fd(const link_state_t *state)
{
  return mnl_socket_get_fd(state->events);
}
