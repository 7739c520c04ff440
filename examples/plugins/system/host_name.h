/* Host names as the resolver understands them (RFC 1123, section 2.1; RFC 1035, section 2.3.4). */
#ifndef EXAMPLE_HOST_NAME_H
#define EXAMPLE_HOST_NAME_H

#include <stddef.h>

enum { HOST_NAME_MAX_LENGTH = 253, HOST_NAME_LABEL_MAX = 63 };

typedef struct host_name {
  char text[HOST_NAME_MAX_LENGTH + 1]; /* lower case, no dot at its end */
  int is_absolute;                     /* had one: nothing is to be added to it */
} host_name_t;

/* Null with the normal form of `name`, white space around it left away; or what is wrong with it. */
const char *host_name_normalize(const char *name, host_name_t *ret_name);

/* Calls `fn` for each name that the resolver would ask for, in its order, until `fn` does not return 0; gives what `fn`
 * returned last. */
typedef int (*host_name_fn)(const char *name, void *user);
int host_name_candidates(const host_name_t *name, char *const *search, size_t search_count, host_name_fn fn,
                         void *user);

#endif
