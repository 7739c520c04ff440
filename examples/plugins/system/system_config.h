/* The configuration below /ex-device-system:system, and the files that are made of it. */
#ifndef EXAMPLE_SYSTEM_CONFIG_H
#define EXAMPLE_SYSTEM_CONFIG_H

#include <stddef.h>
#include <stdio.h>

#include <ymgr/plugin.h>

#define SYSTEM_PATH "/ex-device-system:system"
#define SYSTEM_NAMESPACE "urn:ex-device-system"

/* Limits of the resolver: more is not read from its file. */
enum { SEARCH_MAX = 6, SEARCH_LENGTH_MAX = 256, SERVER_MAX = 3 };

typedef struct system_config {
  char *hostname; /* null: not configured, as below */
  char *login_banner;
  char *search[SEARCH_MAX];
  size_t search_count;
  char *server[SERVER_MAX];
  size_t server_count;
} system_config_t;

/* Reads it all in one round trip. 0 with what system_config_free() is to free; -1, see ymgr_plugin_error(). */
int system_config_pull(ymgr_plugin_t *plugin, ymgr_moment_t moment, system_config_t *ret_config);
void system_config_free(system_config_t *config);

/* One file: what is configured in `path` becomes the file `name` below the root directory. Nothing printed: no file.
 * `fault` (may be null) gives null, or what is wrong with it beyond what its YANG module says. */
typedef struct system_file {
  const char *path;
  const char *name;
  void (*print)(const system_config_t *config, FILE *out);
  const char *(*fault)(const system_config_t *config);
} system_file_t;

enum { SYSTEM_FILE_COUNT = 3 };
extern const system_file_t system_files[SYSTEM_FILE_COUNT];

#endif
