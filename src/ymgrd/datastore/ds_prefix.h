// Prefixes in values of a request: what they stand for is declared where the element stands.
#pragma once

#include <string_view>

#include <libyang/libyang.h>

#include "libconf/wiped_string.h"
#include "ymgrd/rpc/lyxml.h"

// Whether values of the type may name modules: identities and instance-identifiers do.
bool ds_names_modules(const lysc_type *type);
// A leaf's or leaf-list's value with modules' names in place of prefixes, as libyang takes it; a value that names no
// module stays as it is.
wiped_string ds_without_prefixes(lyxml_elem *elem, const lysc_node *schema, std::string_view value);
