/* Keeps a file for each node that it was told of, in its working directory. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <ymgr/plugin.h>

static int changed(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *leaf)
{
  char path[256];
  char file[256];
  char *value = NULL;
  snprintf(path, sizeof(path), "%s%s", change->path, (const char *)leaf);
  snprintf(file, sizeof(file), "c%s", change->path);
  for (char *slash = file; (slash = strchr(slash, '/')) != NULL; *slash = '_') {
  }
  if (ymgr_plugin_pull_value(plugin, path, change->oper_type & CONFIG_OP_ROLLBACK ? YMGR_OLD : YMGR_NEW, &value) != 0) {
    return -1;
  }
  remove(file);
  FILE *stream = value == NULL ? NULL : fopen(file, "w");
  if (stream != NULL) {
    fputs(value, stream);
    fclose(stream);
  }
  free(value);
  return 0;
}

static int setup(ymgr_plugin_t *plugin)
{
  return ymgr_plugin_on_config(plugin, "/ex-sys:system/user", 10, changed, "/uid") == 0
             ? ymgr_plugin_on_config(plugin, "/ex-sys:system/hostname", 30, changed, "")
             : -1;
}

YMGR_PLUGIN("c", setup)
