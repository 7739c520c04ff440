#include "addresses.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int address_parse(const char *ip, unsigned long prefix_length, address_t *ret_address)
{
  address_t address = {.family = strchr(ip, ':') != NULL ? AF_INET6 : AF_INET, .protocol = ADDRESS_PROTOCOL_OURS};
  if (inet_pton(address.family, ip, address.bytes) != 1 || prefix_length > (address.family == AF_INET6 ? 128U : 32U)) {
    return -1;
  }
  address.prefix_length = (uint8_t)prefix_length;
  *ret_address = address;
  return 0;
}

const char *address_print(const address_t *address, char text[ADDRESS_TEXT_MAX])
{
  char ip[INET6_ADDRSTRLEN] = "";
  (void)inet_ntop(address->family, address->bytes, ip, sizeof(ip)); /* the family is one of two, the buffer fits both */
  (void)snprintf(text, ADDRESS_TEXT_MAX, "%s/%u", ip, address->prefix_length);
  return text;
}

int address_compare(const address_t *a, const address_t *b)
{
  if (a->family != b->family) {
    return (int)a->family - (int)b->family;
  }
  int order = memcmp(a->bytes, b->bytes, sizeof(a->bytes));
  return order != 0 ? order : (int)a->prefix_length - (int)b->prefix_length;
}

/* The first place whose address is not less. */
static size_t place_of(const address_set_t *set, const address_t *address)
{
  size_t low = 0;
  size_t high = set->count;
  while (low < high) {
    size_t middle = low + (high - low) / 2;
    if (address_compare(&set->items[middle], address) < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

void address_set_free(address_set_t *set)
{
  free(set->items);
  *set = (address_set_t){0};
}

int address_set_has(const address_set_t *set, const address_t *address)
{
  size_t place = place_of(set, address);
  return place < set->count && address_compare(&set->items[place], address) == 0;
}

int address_set_add(address_set_t *set, const address_t *address)
{
  size_t place = place_of(set, address);
  if (place < set->count && address_compare(&set->items[place], address) == 0) {
    return 0;
  }
  if (set->count == set->capacity) {
    size_t capacity = set->capacity == 0 ? 8 : set->capacity * 2;
    address_t *items = realloc(set->items, capacity * sizeof(*items));
    if (items == NULL) {
      errno = ENOMEM;
      return -1;
    }
    set->items = items;
    set->capacity = capacity;
  }
  memmove(&set->items[place + 1], &set->items[place], (set->count - place) * sizeof(*set->items));
  set->items[place] = *address;
  set->count++;
  return 0;
}

int address_set_add_difference(address_set_t *set, const address_set_t *a, const address_set_t *b)
{
  for (size_t i = 0; i < a->count; i++) {
    if ((b == NULL || !address_set_has(b, &a->items[i])) && address_set_add(set, &a->items[i]) != 0) {
      return -1;
    }
  }
  return 0;
}
