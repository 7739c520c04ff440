#include "system.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "files.h"
#include "system_config.h"

enum { FILE_MODE = 0644, PRIORITY = 10, MESSAGE_MAX = PATH_MAX + 256 };

static const char *root; /* set once, by system_setup */

/* 0; -1 with errno. A file that holds all already is left alone: a flash memory lives the longer, and nobody who
 * watches the file is woken. */
static int bring_file(const system_file_t *file, const system_config_t *config)
{
  char path[PATH_MAX];
  if (snprintf(path, sizeof(path), "%s/%s", root, file->name) >= (int)sizeof(path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  char *content = NULL;
  size_t length = 0;
  FILE *out = open_memstream(&content, &length);
  if (out == NULL) {
    return -1;
  }
  file->print(config, out);
  int result = fclose(out); /* also tells of a failed print: all of it is still in memory */
  if (result == 0 && length == 0) {
    result = file_remove(path);
  } else if (result == 0 && !file_holds(path, content, length, FILE_MODE)) {
    result = file_replace(path, content, length, FILE_MODE);
  }
  int cause = errno;
  free(content);
  errno = cause;
  return result;
}

static int reject_write(ymgr_plugin_t *plugin, const system_file_t *file, int cause)
{
  char message[MESSAGE_MAX];
  (void)snprintf(message, sizeof(message), "%s/%s can not be written: %s", root, file->name, strerror(cause));
  return ymgr_plugin_reject(plugin, SYSTEM_WRITE_FAILED, message);
}

/* A refused change must leave all as it was. The new file may already stand when only its directory was not flushed. */
static void put_back(ymgr_plugin_t *plugin, const system_file_t *file)
{
  system_config_t old;
  if (system_config_pull(plugin, YMGR_OLD, &old) == 0) {
    (void)bring_file(file, &old); /* the failure that leads here is the one to tell */
    system_config_free(&old);
  }
}

static int bring_checked(ymgr_plugin_t *plugin, const system_file_t *file, const system_config_t *config, int is_change)
{
  const char *fault = file->fault != NULL ? file->fault(config) : NULL;
  if (fault != NULL) {
    return ymgr_plugin_reject(plugin, SYSTEM_BAD_VALUE, fault);
  }
  if (bring_file(file, config) != 0) {
    int cause = errno;
    if (is_change) {
      put_back(plugin, file);
    }
    return reject_write(plugin, file, cause);
  }
  return 0;
}

/* A file that fails does not keep the others from being mended. */
static int bring_all(ymgr_plugin_t *plugin, const system_config_t *config)
{
  int result = 0;
  for (size_t i = 0; i < SYSTEM_FILE_COUNT; i++) {
    if (bring_checked(plugin, &system_files[i], config, 0) != 0) {
      result = -1;
    }
  }
  return result;
}

/* One for all three subscriptions; `user` is the file. */
static int config_changed(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *user)
{
  const system_file_t *file = user;
  int is_rollback = (change->oper_type & CONFIG_OP_ROLLBACK) != 0;
  /* The file is written from the whole configuration: once, with the last node. A rollback repeats the flag of the
   * forward way, where it says nothing. */
  if (change->more && !is_rollback) {
    return 0;
  }
  system_config_t config;
  if (system_config_pull(plugin, is_rollback ? YMGR_OLD : YMGR_NEW, &config) != 0) {
    return ymgr_plugin_reject(plugin, SYSTEM_READ_FAILED, ymgr_plugin_error(plugin));
  }
  int result = bring_checked(plugin, file, &config, !is_rollback);
  system_config_free(&config);
  return result;
}

/* While the plugin was away, the configuration may have lost leaves of which nobody tells any more. */
static int mend_files(ymgr_plugin_t *plugin, void *user)
{
  (void)user;
  system_config_t config;
  if (system_config_pull(plugin, YMGR_NEW, &config) != 0) {
    return ymgr_plugin_reject(plugin, SYSTEM_READ_FAILED, ymgr_plugin_error(plugin));
  }
  int result = bring_all(plugin, &config);
  system_config_free(&config);
  return result;
}

int system_setup(ymgr_plugin_t *plugin)
{
  root = getenv(SYSTEM_ROOT_VARIABLE);
  if (root == NULL || *root == '\0') {
    /* No default: whoever tries an example does not want to lose the files of the machine. */
    fprintf(stderr, "example-system: set " SYSTEM_ROOT_VARIABLE " to the directory that holds etc/\n");
    return -1;
  }
  for (size_t i = 0; i < SYSTEM_FILE_COUNT; i++) {
    const system_file_t *file = &system_files[i];
    if (ymgr_plugin_on_config(plugin, file->path, PRIORITY, config_changed, (void *)file) != 0) {
      return -1;
    }
  }
  if (ymgr_plugin_on_ready(plugin, mend_files, NULL) != 0 ||
      ymgr_plugin_on_status(plugin, SYSTEM_PATH "/state", system_state, NULL) != 0) {
    return -1;
  }
  return ymgr_plugin_on_rpc(plugin, "/ex-device-system:check-name", system_check_name, NULL);
}

#ifdef YMGR_LOCAL_PLUGIN
YMGR_PLUGIN("example-system", system_setup)
#endif
