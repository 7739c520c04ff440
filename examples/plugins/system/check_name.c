/* The operation check-name. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <libxml/parser.h>
#include <libxml/tree.h>

#include "host_name.h"
#include "system.h"
#include "system_config.h"

/* The text of the child element `name` of the only element in `xml`, to be freed by xmlFree(); null when there is none.
 */
static xmlChar *child_text(const char *xml, const char *name)
{
  xmlDoc *document = xmlReadMemory(xml, (int)strlen(xml), NULL, NULL, XML_PARSE_NONET | XML_PARSE_NOERROR);
  if (document == NULL) {
    return NULL;
  }
  xmlChar *text = NULL;
  for (xmlNode *child = xmlFirstElementChild(xmlDocGetRootElement(document)); child != NULL && text == NULL;
       child = xmlNextElementSibling(child)) {
    if (strcmp((const char *)child->name, name) == 0) {
      text = xmlNodeGetContent(child);
    }
  }
  xmlFreeDoc(document);
  return text;
}

/* Names hold nothing that XML would want escaped. */
static int print_candidate(const char *name, void *user)
{
  return fprintf(user, "<candidate xmlns=\"" SYSTEM_NAMESPACE "\">%s</candidate>", name) < 0 ? -1 : 0;
}

static int print_output(const host_name_t *name, const system_config_t *config, char **ret_output)
{
  char *output = NULL;
  size_t length = 0;
  FILE *out = open_memstream(&output, &length);
  if (out == NULL) {
    return -1;
  }
  fprintf(out, "<name xmlns=\"" SYSTEM_NAMESPACE "\">%s</name>", name->text);
  int result = host_name_candidates(name, config->search, config->search_count, print_candidate, out);
  if (fclose(out) != 0 || result != 0) {
    free(output);
    return -1;
  }
  *ret_output = output;
  return 0;
}

int system_check_name(ymgr_plugin_t *plugin, int session_id, const char *input, char **ret_output, void *user)
{
  (void)session_id;
  (void)user;
  xmlChar *asked = child_text(input, "name");
  if (asked == NULL) {
    return ymgr_plugin_reject(plugin, SYSTEM_READ_FAILED, "The request can not be read.");
  }
  host_name_t name;
  const char *fault = host_name_normalize((const char *)asked, &name);
  xmlFree(asked);
  if (fault != NULL) {
    return ymgr_plugin_reject(plugin, SYSTEM_BAD_VALUE, fault);
  }
  system_config_t config;
  if (system_config_pull(plugin, YMGR_NEW, &config) != 0) {
    return ymgr_plugin_reject(plugin, SYSTEM_READ_FAILED, ymgr_plugin_error(plugin));
  }
  int result = print_output(&name, &config, ret_output);
  system_config_free(&config);
  return result == 0 ? 0 : ymgr_plugin_reject(plugin, SYSTEM_READ_FAILED, "Out of memory.");
}
