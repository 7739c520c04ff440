// The model's tree in the forms in which the daemon shows it, as sets of lines: two that are equal say the same, and
// their difference is what a failing test prints.
#pragma once

#include <set>
#include <string>

#include "property_model.h"
#include "support/redis_server.h"

namespace property {

typedef std::set<std::string> lines_t;

// One line for each node; entries that the user orders have their order in a line of their own.
lines_t lines_of(const node_t &root);
// The same of the <data> of a get-config's reply. What is no data of the schema becomes lines that no model has.
lines_t lines_of_reply(const schema &yang, const std::string &reply);

// What the database holds for the tree: one line for each field of a hash and for each list.
lines_t stored_lines(const node_t &root);
// The same of a database as it is, without the daemon's own bookkeeping.
lines_t stored_lines(const schema &yang, support::redis_server *redis, int db);

// Lines of one only, marked by - and +; empty when there are none.
std::string difference(const lines_t &expected, const lines_t &found);

} // namespace property
