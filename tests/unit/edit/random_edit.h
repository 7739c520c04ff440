// Random edits of whatever the schema allows. They name few different keys and values, so that they often meet.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <libyang/libyang.h>

#include "ymgrd/ymgrd.h"

struct random_edit_t {
  std::string content; // of <config>; the prefixes nc and yang are the reader's to declare
  NC_EDIT_OP_TYPE default_operation = NC_EDIT_OP_MERGE;
};

class random_edit_source {
public:
  random_edit_source(const lys_module *module, uint64_t seed) : module_(module), random_(seed) {}

  // Mostly fits the data `current`: deletes what is there, creates what is not. Not always, and not when its own parts
  // are in each other's way.
  random_edit_t next(const lyd_node *current);
  // True in `percent` of a hundred cases.
  bool chance(int percent) { return below(100) < percent; }
  int below(int limit) { return static_cast<int>(random_() % static_cast<uint64_t>(limit)); }

private:
  std::string children(const lysc_node *parent, const lyd_node *siblings, NC_EDIT_OP_TYPE inherited);
  std::string element(const lysc_node *schema, const lyd_node *siblings, NC_EDIT_OP_TYPE inherited);
  NC_EDIT_OP_TYPE operation(NC_EDIT_OP_TYPE inherited, bool is_there);
  std::string place(const lysc_node *schema, const lyd_node *siblings);
  std::vector<std::string> key_values(const lysc_node *list);
  std::string name_of_entry();

  const lys_module *module_;
  std::mt19937_64 random_;
  bool has_places_ = false; // whether the edit in the making uses insert attributes
};
