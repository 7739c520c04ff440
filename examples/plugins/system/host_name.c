#include "host_name.h"

#include <stdio.h>
#include <string.h>

/* Not those of ctype.h: in a name nothing depends on the locale. */
static int is_letter(char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

static int is_digit(char c)
{
  return c >= '0' && c <= '9';
}

static const char *label_fault(const char *label, size_t length)
{
  if (length == 0) {
    return "The name has an empty label.";
  }
  if (length > HOST_NAME_LABEL_MAX) {
    return "A label of the name is longer than 63 characters.";
  }
  if (label[0] == '-' || label[length - 1] == '-') {
    return "A label of the name begins or ends with a hyphen.";
  }
  for (size_t i = 0; i < length; i++) {
    if (!is_letter(label[i]) && !is_digit(label[i]) && label[i] != '-') {
      return "The name holds other characters than letters, digits, hyphens and dots.";
    }
  }
  return NULL;
}

static const char *labels_fault(const char *name)
{
  for (const char *label = name;;) {
    size_t length = strcspn(label, ".");
    const char *fault = label_fault(label, length);
    if (fault != NULL) {
      return fault;
    }
    if (label[length] == '\0') {
      /* Otherwise an address in dotted form would be a name. */
      return strspn(label, "0123456789") == length ? "The last label of the name is a number." : NULL;
    }
    label += length + 1;
  }
}

const char *host_name_normalize(const char *name, host_name_t *ret_name)
{
  static const char WHITE_SPACE[] = " \t\r\n";
  name += strspn(name, WHITE_SPACE);
  size_t length = strlen(name);
  while (length > 0 && strchr(WHITE_SPACE, name[length - 1]) != NULL) {
    length--;
  }
  host_name_t result = {.is_absolute = length > 1 && name[length - 1] == '.'};
  if (result.is_absolute) {
    length--;
  }
  if (length > HOST_NAME_MAX_LENGTH) {
    return "The name is longer than 253 characters.";
  }
  for (size_t i = 0; i < length; i++) {
    result.text[i] = (char)(name[i] >= 'A' && name[i] <= 'Z' ? name[i] - 'A' + 'a' : name[i]);
  }
  const char *fault = labels_fault(result.text);
  if (fault == NULL) {
    *ret_name = result;
  }
  return fault;
}

static int in_search_domains(const host_name_t *name, char *const *search, size_t search_count, host_name_fn fn,
                             void *user)
{
  int result = 0;
  for (size_t i = 0; i < search_count && result == 0; i++) {
    char candidate[HOST_NAME_MAX_LENGTH + 1];
    int length = snprintf(candidate, sizeof(candidate), "%s.%s", name->text, search[i]);
    if (length <= HOST_NAME_MAX_LENGTH) { /* a longer one is no name, and not asked for */
      result = fn(candidate, user);
    }
  }
  return result;
}

int host_name_candidates(const host_name_t *name, char *const *search, size_t search_count, host_name_fn fn, void *user)
{
  if (name->is_absolute) {
    return fn(name->text, user);
  }
  /* A name with a dot in it is tried as it stands before the search domains, one without after them. */
  int is_first = strchr(name->text, '.') != NULL;
  int result = is_first ? fn(name->text, user) : 0;
  if (result == 0) {
    result = in_search_domains(name, search, search_count, fn, user);
  }
  return result == 0 && !is_first ? fn(name->text, user) : result;
}
