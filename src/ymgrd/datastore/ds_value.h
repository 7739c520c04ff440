// Values of data nodes in the form in which they are stored and sent.
#pragma once

#include <string>
#include <string_view>

#include <libyang/libyang.h>

#include "libconf/wiped_string.h"

// Whether that form is the node's canonical value, as it is for all but instance-identifiers and anyxml.
bool ds_is_stored_canonically(const lyd_node *node);
// The content of an anyxml or anydata node is stored as markup: text in it is escaped.
std::string ds_stored_value(const lyd_node *node);
// The type that a leafref refers to; other types as they are.
const lysc_type *ds_real_type(const lysc_type *type);
// The text of a value, given with module names for prefixes, as it is stored. False when the type refuses it.
bool ds_to_stored_form(const lysc_node *schema, std::string_view value, wiped_string *ret_stored,
                       LY_DATA_TYPE *ret_type);
// The stored form of a canonical instance-identifier: with the module before every node and key. The canonical one
// names it where it changes only, which is no XML form.
std::string ds_qualify_instance_identifier(std::string_view canonical);
