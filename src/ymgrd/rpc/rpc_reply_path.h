// Paths as XPath expressions in XML, where every step has a prefix that an element declares; in the <error-path> of a
// reply (RFC 6241, section 4.3) for one.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "ymgrd/rpc/lyxml.h"

typedef struct _qualified_path {
  std::string text;
  std::map<std::string, std::string> namespaces; // of the prefixes, which are names of modules
} qualified_path_t;
// `path` names a module where it differs from that of the step before, as libyang's paths do; in the result every step
// has its prefix. Adds to `*ret_qualified`. False when a module has no namespace here: what was added is incomplete.
bool rpc_qualify_path(std::string_view path, qualified_path_t *ret_qualified);
// Declares the prefixes on the element. 0, or -1 when memory is short.
int rpc_declare_prefixes(lyxml_elem *elem, const std::map<std::string, std::string> &namespaces);

// Adds the <error-path> to `rpc_error`. A path of unknown modules is taken as it is. 0, or -1 when memory is short.
int rpc_add_error_path(lyxml_elem *rpc_error, const char *path);
