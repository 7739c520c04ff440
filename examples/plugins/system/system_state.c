/* What the kernel tells of itself in /proc. */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "system.h"
#include "system_config.h"

typedef struct system_figures {
  uint64_t uptime;  /* seconds */
  char load[3][16]; /* over 1, 5 and 15 minutes; text, for a number's text depends on the locale */
  uint64_t memory_total;
  uint64_t memory_free;
  uint64_t memory_available; /* bytes */
} system_figures_t;

/* Of what could be read and understood: 0, or -1 with errno. */
static int close_after(FILE *file, int is_understood)
{
  (void)fclose(file); /* only read from */
  if (!is_understood) {
    errno = EPROTO;
    return -1;
  }
  return 0;
}

static int read_uptime(system_figures_t *figures)
{
  FILE *file = fopen("/proc/uptime", "re");
  return file == NULL ? -1 : close_after(file, fscanf(file, "%" SCNu64, &figures->uptime) == 1);
}

static int read_load(system_figures_t *figures)
{
  FILE *file = fopen("/proc/loadavg", "re");
  return file == NULL ? -1
                      : close_after(file, fscanf(file, "%15[0-9.] %15[0-9.] %15[0-9.]", figures->load[0],
                                                 figures->load[1], figures->load[2]) == 3);
}

static int read_memory(system_figures_t *figures)
{
  struct {
    const char *name;
    uint64_t *bytes;
    int is_found;
  } wanted[] = {{"MemTotal:", &figures->memory_total, 0},
                {"MemFree:", &figures->memory_free, 0},
                {"MemAvailable:", &figures->memory_available, 0}};
  const size_t count = sizeof(wanted) / sizeof(wanted[0]);
  FILE *file = fopen("/proc/meminfo", "re");
  if (file == NULL) {
    return -1;
  }
  char line[256];
  size_t found = 0;
  while (found < count && fgets(line, sizeof(line), file) != NULL) {
    for (size_t i = 0; i < count; i++) {
      size_t length = strlen(wanted[i].name);
      uint64_t kibibytes;
      if (!wanted[i].is_found && strncmp(line, wanted[i].name, length) == 0 &&
          sscanf(line + length, "%" SCNu64, &kibibytes) == 1) {
        *wanted[i].bytes = kibibytes * 1024;
        wanted[i].is_found = 1;
        found++;
      }
    }
  }
  return close_after(file, found == count);
}

static int print_figures(const system_figures_t *figures, char **ret_data)
{
  char *text = NULL;
  int length = asprintf(&text,
                        "<system xmlns=\"" SYSTEM_NAMESPACE "\"><state><uptime>%" PRIu64 "</uptime>"
                        "<load-average><one-minute>%s</one-minute><five-minutes>%s</five-minutes>"
                        "<fifteen-minutes>%s</fifteen-minutes></load-average>"
                        "<memory><total>%" PRIu64 "</total><free>%" PRIu64 "</free><available>%" PRIu64
                        "</available></memory></state></system>",
                        figures->uptime, figures->load[0], figures->load[1], figures->load[2], figures->memory_total,
                        figures->memory_free, figures->memory_available);
  if (length < 0) {
    return -1;
  }
  *ret_data = text;
  return 0;
}

int system_state(ymgr_plugin_t *plugin, const char *path, char **ret_data, void *user)
{
  (void)path; /* all of it is cheap to tell */
  (void)user;
  system_figures_t figures;
  if (read_uptime(&figures) != 0 || read_load(&figures) != 0 || read_memory(&figures) != 0 ||
      print_figures(&figures, ret_data) != 0) {
    char message[256];
    (void)snprintf(message, sizeof(message), "The state of the system can not be read: %s", strerror(errno));
    return ymgr_plugin_reject(plugin, SYSTEM_READ_FAILED, message);
  }
  return 0;
}
