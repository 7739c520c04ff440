/* Greets whom the configuration names: one leaf of configuration, one of state. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <ymgr/plugin.h>

static char greeting[128] = "Hello";

static int name_changed(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *user)
{
  (void)user;
  ymgr_moment_t wanted = change->oper_type & CONFIG_OP_ROLLBACK ? YMGR_OLD : YMGR_NEW;
  char *name = NULL;
  if (ymgr_plugin_pull_value(plugin, "/ex-hello:hello/name", wanted, &name) != 0) {
    return ymgr_plugin_reject(plugin, 1, ymgr_plugin_error(plugin));
  }
  if (name != NULL && strcmp(name, "nobody") == 0) {
    free(name);
    return ymgr_plugin_reject(plugin, 2, "nobody is not greeted");
  }
  snprintf(greeting, sizeof(greeting), name == NULL ? "Hello" : "Hello, %s", name); /* the module bounds the name */
  free(name);
  return 0;
}

static int tell_greeting(ymgr_plugin_t *plugin, const char *path, char **ret_data, void *user)
{
  (void)path;
  (void)user;
  const char *format =
      "<hello xmlns=\"urn:ex-hello\"><greeting>%s</greeting></hello>"; /* needs no escapes: see the module */
  size_t size = strlen(format) + sizeof(greeting);
  if ((*ret_data = malloc(size)) == NULL) {
    return ymgr_plugin_reject(plugin, 3, "memory is short");
  }
  snprintf(*ret_data, size, format, greeting);
  return 0;
}

static int setup(ymgr_plugin_t *plugin)
{
  return ymgr_plugin_on_config(plugin, "/ex-hello:hello/name", 10, name_changed, NULL) == 0
             ? ymgr_plugin_on_status(plugin, "/ex-hello:hello/greeting", tell_greeting, NULL)
             : -1;
}

YMGR_PLUGIN("hello", setup)
