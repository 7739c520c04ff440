#include "interface_config.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

int interface_name_of_path(const char *path, char ret_name[IFNAMSIZ])
{
  static const char BEGINNING[] = INTERFACES_PATH "[name=\"";
  if (strncmp(path, BEGINNING, strlen(BEGINNING)) != 0) {
    return -1;
  }
  const char *name = path + strlen(BEGINNING);
  size_t length = strcspn(name, "\"\\"); /* the module allows neither in a name */
  if (length == 0 || length >= IFNAMSIZ || strcmp(name + length, "\"]") != 0) {
    return -1;
  }
  memcpy(ret_name, name, length);
  ret_name[length] = '\0';
  return 0;
}

typedef struct config_reader {
  interface_config_t *config;
  char ip[ADDRESS_TEXT_MAX]; /* of the address whose other leaves follow: a key comes first */
} config_reader_t;

/* The numbers are in the range of their YANG types, and end with the text. */
static int take_value(const char *path, const char *name, const char *value, void *user)
{
  config_reader_t *reader = user;
  (void)path; /* no two leaves of an entry have the same name */
  reader->config->is_there = 1;
  if (strcmp(name, "enabled") == 0) {
    reader->config->is_enabled = strcmp(value, "true") == 0;
  } else if (strcmp(name, "mtu") == 0) {
    reader->config->mtu = (uint32_t)strtoul(value, NULL, 10);
  } else if (strcmp(name, "ip") == 0) {
    if (strlen(value) >= sizeof(reader->ip)) {
      return -1;
    }
    memcpy(reader->ip, value, strlen(value) + 1);
  } else if (strcmp(name, "prefix-length") == 0) {
    address_t address;
    return address_parse(reader->ip, strtoul(value, NULL, 10), &address) == 0
               ? address_set_add(&reader->config->addresses, &address)
               : -1;
  }
  return 0; /* also for what a later revision of the module adds */
}

int interface_config_pull(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, interface_config_t *ret_config)
{
  interface_config_t config = {.is_enabled = 1}; /* the module's default */
  config_reader_t reader = {.config = &config};
  if (ymgr_plugin_pull_values(plugin, path, moment, take_value, &reader) != 0) {
    interface_config_free(&config);
    return -1;
  }
  *ret_config = config;
  return 0;
}

void interface_config_free(interface_config_t *config)
{
  address_set_free(&config->addresses);
}
