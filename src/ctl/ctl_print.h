// Data as an operator reads it.
#pragma once

#include <string>

#include "ctl/ctl_device.h"

// The siblings from `tree` on, in the output's format. As a tree: one node a line, indented by depth, a list entry with
// its keys behind the name, leaves as "name value". An empty tree prints nothing (XML: nothing; JSON: {}).
// In JSON the elements in an anyxml stand as one text: it has nothing for attributes, namespaces and texts among
// elements.
int ctl_print(const ctl_output_t &output, const lyd_node *tree);
// The first anyxml, from `tree` on, that holds elements without schema; null when none does.
const lyd_node *ctl_find_document(const lyd_node *tree);
// The name as it is typed: with its module's where the module is not its parent's.
std::string ctl_node_name(const lyd_node *node);
// "[name='eth0']" for each key; for a leaf-list entry nothing.
std::string ctl_key_text(const lyd_node *entry);
std::string ctl_value_text(const lyd_node *term); // in quotes where blanks or quotes are in it
