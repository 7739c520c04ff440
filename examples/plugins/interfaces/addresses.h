/* Sets of the addresses of one interface. Nothing here talks to the kernel. */
#ifndef EXAMPLE_ADDRESSES_H
#define EXAMPLE_ADDRESSES_H

#include <stddef.h>
#include <stdint.h>

enum { ADDRESS_TEXT_MAX = 64 };

/* Two are the same when family, bytes and prefix length are. */
typedef struct address {
  uint8_t family; /* AF_INET, AF_INET6 */
  uint8_t prefix_length;
  uint8_t protocol; /* who has set it: ADDRESS_PROTOCOL_..., or another number */
  uint8_t bytes[16];
} address_t;

/* Marks addresses that this plugin has set, so that it knows them again after a restart. The kernel keeps the number
 * but gives no meaning to it. */
enum { ADDRESS_PROTOCOL_UNKNOWN = 0, ADDRESS_PROTOCOL_OURS = 0xE1 };

typedef struct address_set {
  address_t *items; /* in the order of address_compare() */
  size_t count;
  size_t capacity;
} address_set_t;

/* 0; -1 when `ip` is no address, or has fewer bits than that. */
int address_parse(const char *ip, unsigned long prefix_length, address_t *ret_address);
/* "192.0.2.1/24" */
const char *address_print(const address_t *address, char text[ADDRESS_TEXT_MAX]);
int address_compare(const address_t *a, const address_t *b); /* as strcmp */

void address_set_free(address_set_t *set);
/* Nothing happens when it is there. 0; -1 with errno (memory), as below. */
int address_set_add(address_set_t *set, const address_t *address);
int address_set_has(const address_set_t *set, const address_t *address);
/* Adds what is in `a` but not in `b` (null: an empty one). */
int address_set_add_difference(address_set_t *set, const address_set_t *a, const address_set_t *b);

#endif
