// Whether a diff tree says exactly what differs between two states of a datastore. Knows codes and paths only, nothing
// of how diffs come to be.
#pragma once

#include <string>

#include <libyang/libyang.h>

#include "ymgrd/broker/differ_tree.h"

// Everything that is wrong, one line each; empty when the diff is right. It is when
// - each node that came, went or has another value is named so, with its values, below a named parent, and no other is;
// - a node that is only named for what is below it has something below it;
// - entries of user-ordered lists that are not named as new, gone or moved stand in the order in which they stood, and
//   new ones that are not named as placed stand behind them in the order of the diff.
std::string judge_diff(const lyd_node *before, const lyd_node *after, const differ_node_t *tree);
// One line for each node: code, path, values.
std::string text_of_diff(const differ_node_t *tree);
