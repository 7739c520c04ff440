// The YANG modules of a daemon, as it announces them, in a libyang context of our own.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <libyang/libyang.h>

#include "ctl/ctl_device.h"

struct ctl_context_delete_t {
  void operator()(ly_ctx *context) const { ly_ctx_destroy(context); }
};
using ctl_context_ptr = std::unique_ptr<ly_ctx, ctl_context_delete_t>;

// The modules among the capabilities in a reply to get-capability, in their order.
std::vector<ctl_module_t> ctl_read_modules(const std::string &reply);
// All of them, from the files in `directory`. Null when one cannot be had; `*ret_fault` says which, and why.
ctl_context_ptr ctl_load_modules(const std::vector<ctl_module_t> &modules, const std::string &directory,
                                 std::string *ret_fault);

// The data nodes that may stand below `parent` (null: at the top): choices and cases are passed through, operations
// and notifications left out.
std::vector<const lysc_node *> ctl_schema_children(const ly_ctx *schema, const lysc_node *parent);
// "/ex-sys:system/user": where a node stands, without keys; "/" for null.
std::string ctl_schema_path(const lysc_node *node);
// Its keys, in the order of the schema; none of anything but a list.
std::vector<const lysc_node_leaf *> ctl_schema_keys(const lysc_node *node);
