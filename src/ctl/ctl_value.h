// Values of leaves as an operator types them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <libyang/libyang.h>

// What the type of a leaf or leaf-list names one by one: enums, bits, identities, true and false; of a union what all
// its members name.
std::vector<std::string> ctl_value_names(const lysc_node *node);
// Whether `text` may be a value of the leaf or leaf-list. An identity may go without its module where only one has it.
// `*ret_canonical` is the value in canonical form, with names of modules as prefixes. On false `*ret_fault` says what
// is wrong, and what is allowed.
bool ctl_check_value(const lysc_node *node, std::string_view text, std::string *ret_canonical, std::string *ret_fault);
// A canonical value as text of an XML element, not yet escaped. The attributes that declare its prefixes there are
// appended to `*namespaces`.
std::string ctl_value_xml(const lysc_node *node, const std::string &canonical, std::string *namespaces);
