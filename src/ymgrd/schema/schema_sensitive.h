// Sensitive leaves in the schema. Data trees hold their values as cipher text, which their types need not admit: the
// compiled leaf is given the type string, and its own type is kept for the check of clear values. That goes for
// configuration and state, and for what operations and notifications carry.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <libyang/libyang.h>

#include "libconf/wiped_string.h"

// Once all modules are loaded and saved: finds the leaves of encrypt_sensitives(). A path that names no node is logged
// (nothing can be stored there). 0, or -1 (logged, nothing is protected) when one is not a leaf of its own value that
// can be protected: a list key, a leaf-list, a leaf whose value is a reference, an identity or nothing at all, or one
// that a leafref refers to, which would show it.
int schema_protect_sensitive();
// Gives the leaves their own types back. To be called before the context is destroyed.
void schema_unprotect_sensitive();

bool schema_is_sensitive(const lysc_node *node);
// By the data path without keys, the module's name with ":" where it changes.
bool schema_is_sensitive(std::string_view path);
// The protected leaves. A path of an operation may stand for two: in its input and in its output.
const std::vector<const lysc_node *> &schema_sensitive_leaves();
// The first leaf of that path; null when it is not sensitive.
const lysc_node *schema_find_sensitive(std::string_view path);
// Checks a clear value against the leaf's own type: whether that takes it. `ret_canonical` as that type prints it.
bool schema_check_sensitive(const lysc_node *leaf, std::string_view value, wiped_string *ret_canonical);
