// Data trees as XML text, in the form in which they are read from the database.
#pragma once

#include <libyang/libyang.h>

#include "libconf/wiped_string.h"
#include "ymgrd/database/database_element.h"

// Appends the node with all below. 0 or -1.
int ds_print_node(const lyd_node *node, db_secrets_t secrets, wiped_string *text);
