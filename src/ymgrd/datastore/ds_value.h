// Values of data nodes in the form in which they are stored and sent.
#pragma once

#include <string>

#include <libyang/libyang.h>

// Whether that form is the node's canonical value, as it is for all but instance-identifiers and anyxml.
bool ds_is_stored_canonically(const lyd_node *node);
// The content of an anyxml or anydata node is stored as markup: text in it is escaped.
std::string ds_stored_value(const lyd_node *node);
