// Sensitive values: the seam through which the other components reach their encryption. Until an implementation
// registers itself, nothing is sensitive: values are stored and compared as they are.
#pragma once

#include <string_view>

#include "libconf/wiped_string.h"
#include "ymgrd/rpc/lyxml.h"

typedef struct _encrypt_hooks {
  int (*decrypt)(std::string_view cipher_text, wiped_string *ret_value);
  int (*find_in_rpc)(const char *oper, lyxml_elem *rpc);
  int (*add_ns_prefix)(const char *module, const char *ns, const char *prefix);
  void (*delete_module)(const char *module);
} encrypt_hooks_t;
void encrypt_set_hooks(const encrypt_hooks_t &hooks);

int decrypt_sensitive(std::string_view cipher_text, wiped_string *ret_value); // 0 or -1
int security_find_sensitive_in_rpc(const char *oper, lyxml_elem *rpc);        // 0 or -1
int encrypt_add_ns_prefix(const char *module, const char *ns, const char *prefix);
void encrypt_delete_sensitive(const char *module);
