// Conditions of nodes that are not in the data.
#pragma once

#include <optional>

#include <libyang/libyang.h>

// The result of one `when` of the absent node `schema` (a data node, choice or case) below `parent`; nothing when it
// cannot be evaluated. The data is left as it was.
std::optional<bool> absent_node_condition(lyd_node *parent, const lysc_node *schema, const lyxp_expr *condition,
                                          const lysc_prefix *prefixes, bool is_on_parent);
// Whether one of the whens of the absent node itself is surely false.
bool absent_node_is_ruled_out(lyd_node *parent, const lysc_node *schema);
