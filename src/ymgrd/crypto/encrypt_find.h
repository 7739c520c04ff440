// Sensitive leaves in XML: their values are encrypted as soon as a request is known, before anything is logged, parsed
// into data or kept.
#pragma once

#include "libconf/wiped_string.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/rpc/rpc_error.h"

enum { SENSITIVE_ENCRYPT = 0, SENSITIVE_DECRYPT = 1 };

// What the schema knows of the leaves; set by start-up. Without these every value is taken as it stands, and an error
// names the leaf by its path.
typedef struct _encrypt_schema {
  // Checks a clear value against the leaf's own type and gives it in canonical form. False when the type refuses it.
  bool (*check)(const sensitive_config_t &leaf, std::string_view value, wiped_string *ret_canonical);
  // The instance that the element stands for.
  std::string (*path_of)(const sensitive_config_t &leaf, const lyxml_elem *elem);
} encrypt_schema_t;
void encrypt_set_schema(const encrypt_schema_t &schema);

// Encrypts, or decrypts, every sensitive leaf below `data`, whose children are top nodes. Values that are cipher text
// already stay, empty ones too. 0, or -1 with an error for the client (invalid-value with the leaf's path, never its
// value, or operation-failed without a working key); what was done by then stays. `ret_changed`, which may be null,
// says whether a value has become another one.
int security_find_sensitive_in_lyxml(lyxml_elem *data, int flag, reply_error_ptr *ret_error,
                                     bool *ret_changed = nullptr);
// The same for the data that the request carries: that of edit-config and copy-config, the filter of get, get-config
// and create-subscription (whose values are not checked against the type), the input of any other operation.
int security_find_sensitive_in_rpc(const char *oper, lyxml_elem *rpc, int flag, reply_error_ptr *ret_error,
                                   bool *ret_changed = nullptr);

// The request as it may be logged: an element that has the name of a sensitive leaf and text that is not cipher
// text, because it does not stand where the schema has that leaf, is shown with "***", with all below it.
std::string encrypt_print_masked(const lyxml_elem *rpc);
