// The <error-path> of a reply (RFC 6241, section 4.3): an XPath expression whose prefixes the element declares.
#pragma once

#include "ymgrd/rpc/lyxml.h"

// Adds the element to `rpc_error`. `path` names a module where it differs from that of the step before, as libyang's
// paths do; in the element every step has its prefix, the module's name. A path of unknown modules is taken as it is.
// 0, or -1 when memory is short.
int rpc_add_error_path(lyxml_elem *rpc_error, const char *path);
