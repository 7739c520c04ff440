// What the text of an XPath expression tells about the reach of its location paths, without any schema: how far each
// climbs from the context node, which names it steps through, and what is asked of the nodes where it ends.
#pragma once

#include <string>
#include <string_view>
#include <vector>

typedef struct _xpath_path {
  bool anywhere = false;          // it may leave every ancestor of the context node: absolute, or starts at a function
  int ascent = 0;                 // levels above the context node that it reaches; without meaning when anywhere
  bool any_step = false;          // a wildcard or a node test: it may step through nodes of any name
  std::vector<std::string> names; // local names of its steps, without those of its predicates
  std::string last;               // name of the step where it ends; empty when it is not known by name
  bool ends_at_context = false;   // it ends at the context node itself
  bool existence = false;         // only whether, or how many, nodes there are is asked, not for their values
} xpath_path_t;

typedef struct _xpath_scan {
  bool understood = true; // false: functions, axes or syntax that this scan does not know
  bool has_deref = false;
  bool has_predicate = false;
  std::vector<xpath_path_t> paths; // those in predicates and arguments are paths of their own
} xpath_scan_t;

xpath_scan_t xpath_scan(std::string_view expression);
