/* Notes what it is told in the file $WITNESS: its kind, the operation, the path. */
#include <stdio.h>
#include <stdlib.h>

#include <ymgr/plugin.h>

#ifdef YMGR_LOCAL_PLUGIN
static const char kind[] = "local";
#else
static const char kind[] = "remote";
#endif

static int told(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *user)
{
  (void)user;
  FILE *file = fopen(getenv("WITNESS"), "a");
  if (file == NULL) {
    return ymgr_plugin_reject(plugin, 1, "no file");
  }
  fprintf(file, "%s %d %s\n", kind, change->oper_type, change->path);
  return fclose(file) == 0 ? 0 : ymgr_plugin_reject(plugin, 1, "no room");
}

static int setup(ymgr_plugin_t *plugin)
{
  return ymgr_plugin_on_config(plugin, "/ex-sys:system/hostname", kind[0] == 'l' ? 10 : 20, told, NULL);
}

YMGR_PLUGIN("witness-remote", setup)
