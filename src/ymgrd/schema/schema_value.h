// Texts of values: the canonical form, which keys of nodes have, and the form in which values are stored and sent. They
// differ for instance-identifiers only. The canonical one names a module where it changes, which is no XML form; the
// stored one names it before every node and key.
#pragma once

#include <string>
#include <string_view>

#include <libyang/libyang.h>

#include "libconf/wiped_string.h"

// The type that a leafref refers to; other types as they are.
const lysc_type *schema_real_type(const lysc_type *type);
// Whether values of the type may be instance-identifiers: it is that type, or a union with it.
bool schema_may_be_path(const lysc_type *type);

// Both take a value with module names for prefixes; false when the type of the leaf or leaf-list refuses it. `ret_type`
// is the member's where the type is a union.
bool schema_to_canonical_form(const lysc_node *schema, std::string_view value, wiped_string *ret_canonical,
                              LY_DATA_TYPE *ret_type);
bool schema_to_stored_form(const lysc_node *schema, std::string_view value, wiped_string *ret_stored,
                           LY_DATA_TYPE *ret_type);
// The stored form of a value that a key of a node holds; a text that its type refuses stays as it is.
wiped_string schema_stored_form_of_key(const lysc_node *schema, std::string_view canonical);
// The stored form of a canonical instance-identifier.
std::string schema_qualify_instance_identifier(std::string_view canonical);
