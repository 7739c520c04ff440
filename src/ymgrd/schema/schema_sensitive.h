// Sensitive leaves in the schema. Data trees hold their values as cipher text, which their types need not admit: the
// compiled leaf is given the type string, and its own type is kept for the check of clear values.
#pragma once

#include <string>
#include <string_view>

#include <libyang/libyang.h>

#include "libconf/wiped_string.h"

// Once all modules are loaded: finds the leaves of encrypt_sensitives(). A path that names no node is logged (nothing
// can be stored there). 0, or -1 (logged) when one is not a leaf of its own value that can be protected: a list key, a
// leaf-list, a leaf of type leafref, instance-identifier or empty.
int schema_protect_sensitive();
// Gives the leaves their own types back. To be called before the context is destroyed.
void schema_unprotect_sensitive();

bool schema_is_sensitive(const lysc_node *node);
// By the data path without keys, the module's name with ":" where it changes.
bool schema_is_sensitive(std::string_view path);
// Checks a clear value against the leaf's own type: whether that takes it. `ret_canonical` as that type prints it.
bool schema_check_sensitive(const lysc_node *leaf, std::string_view value, wiped_string *ret_canonical);
