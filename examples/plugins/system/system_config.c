#include "system_config.h"

#include <stdlib.h>
#include <string.h>

static int append(char **values, size_t *count, size_t limit, const char *value)
{
  if (*count == limit) {
    return -1;
  }
  values[*count] = strdup(value);
  if (values[*count] == NULL) {
    return -1;
  }
  *count += 1;
  return 0;
}

static int set(char **ret_text, const char *value)
{
  size_t count = 0;
  return append(ret_text, &count, 1, value);
}

static int take_value(const char *path, const char *name, const char *value, void *user)
{
  system_config_t *config = user;
  (void)path; /* no two leaves of this module have the same name */
  if (strcmp(name, "hostname") == 0) {
    return set(&config->hostname, value);
  }
  if (strcmp(name, "login-banner") == 0) {
    return set(&config->login_banner, value);
  }
  if (strcmp(name, "search") == 0) {
    return append(config->search, &config->search_count, SEARCH_MAX, value);
  }
  if (strcmp(name, "server") == 0) {
    return append(config->server, &config->server_count, SERVER_MAX, value);
  }
  return 0; /* what a later revision of the module adds */
}

int system_config_pull(ymgr_plugin_t *plugin, ymgr_moment_t moment, system_config_t *ret_config)
{
  system_config_t config = {0};
  if (ymgr_plugin_pull_values(plugin, SYSTEM_PATH, moment, take_value, &config) != 0) {
    system_config_free(&config);
    return -1;
  }
  *ret_config = config;
  return 0;
}

void system_config_free(system_config_t *config)
{
  free(config->hostname);
  free(config->login_banner);
  for (size_t i = 0; i < config->search_count; i++) {
    free(config->search[i]);
  }
  for (size_t i = 0; i < config->server_count; i++) {
    free(config->server[i]);
  }
  *config = (system_config_t){0};
}

static void print_hostname(const system_config_t *config, FILE *out)
{
  if (config->hostname != NULL) {
    fprintf(out, "%s\n", config->hostname);
  }
}

/* A backslash starts a command to the login program; two of them are shown as one. */
static void print_issue(const system_config_t *config, FILE *out)
{
  if (config->login_banner == NULL) {
    return;
  }
  for (const char *c = config->login_banner; *c != '\0'; c++) {
    if (*c == '\\') {
      fputc('\\', out);
    }
    fputc(*c, out);
  }
  fputc('\n', out);
}

static void print_resolv_conf(const system_config_t *config, FILE *out)
{
  if (config->search_count > 0) {
    fputs("search", out);
    for (size_t i = 0; i < config->search_count; i++) {
      fprintf(out, " %s", config->search[i]);
    }
    fputc('\n', out);
  }
  for (size_t i = 0; i < config->server_count; i++) {
    fprintf(out, "nameserver %s\n", config->server[i]);
  }
}

static const char *resolv_conf_fault(const system_config_t *config)
{
  size_t length = config->search_count == 0 ? 0 : config->search_count - 1; /* the spaces between */
  for (size_t i = 0; i < config->search_count; i++) {
    length += strlen(config->search[i]);
  }
  return length > SEARCH_LENGTH_MAX ? "The search domains are longer than 256 characters in all." : NULL;
}

const system_file_t system_files[SYSTEM_FILE_COUNT] = {
    {SYSTEM_PATH "/hostname", "etc/hostname", print_hostname, NULL},
    {SYSTEM_PATH "/login-banner", "etc/issue", print_issue, NULL},
    {SYSTEM_PATH "/dns", "etc/resolv.conf", print_resolv_conf, resolv_conf_fault},
};
