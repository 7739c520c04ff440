/* Keeps a file for each node that it was told of, in its working directory. A restore begins with none. */
#include <glob.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <ymgr/plugin.h>

static void forget_all(void)
{
  glob_t files;
  if (glob("c_*", 0, NULL, &files) == 0) {
    for (size_t i = 0; i < files.gl_pathc; i++) {
      remove(files.gl_pathv[i]);
    }
    globfree(&files);
  }
}

static int changed(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *leaf)
{
  static int is_restored = 0;
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
  if ((change->oper_type & CONFIG_OP_CFGR) && !is_restored) {
    forget_all();
  }
  is_restored = change->oper_type & CONFIG_OP_CFGR;
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
