/* Keeps a file for each node that it was told of, in the directory of the environment. */
#include <stdio.h>
#include <stdlib.h>

#include <ymgr/plugin.h>

static int changed(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *leaf)
{
  char path[256];
  char file[512];
  snprintf(path, sizeof(path), "%s%s", change->path, (const char *)leaf);
  int at = snprintf(file, sizeof(file), "%s/c", getenv("YMGR_NOTES"));
  for (const char *c = change->path; *c != '\0'; c++) {
    file[at++] = *c == '/' ? '_' : *c;
  }
  file[at] = '\0';
  char *value = NULL;
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
