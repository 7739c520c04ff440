// Data trees as XML text, in the form in which they are read from the database.
#pragma once

#include <libyang/libyang.h>

#include "libconf/wiped_string.h"

// Appends the node with all below. 0 or -1.
int ds_print_node(const lyd_node *node, wiped_string *text);
