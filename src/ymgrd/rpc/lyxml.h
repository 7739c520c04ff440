// The daemon's XML element tree: libxml2 elements under the daemon's names. Knows nothing of NETCONF.
// Text from outside is parsed without network, DTD and entities, and with bounded depth (256 open elements).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <libxml/tree.h>

#include "libconf/wiped_string.h"

typedef xmlNode lyxml_elem;

struct lyxml_root_delete_t {
  void operator()(lyxml_elem *root) const;
};
// Owns a root element together with the document that holds it.
using lyxml_ptr = std::unique_ptr<lyxml_elem, lyxml_root_delete_t>;

// To be called once, before any other use of libxml2: makes every block that libxml2 frees be cleared first, so that no
// request text or secret survives in freed memory.
void lyxml_init_wiping_memory();

// Parses one document. Comments and processing instructions are dropped. Null when the text is not well-formed, uses
// undeclared prefixes, holds a DTD, or is nested too deeply.
lyxml_ptr lyxml_parse_mem(std::string_view text);

// A new document with the root element `name`, in no namespace.
lyxml_ptr lyxml_new_root(const char *name);
// A new last child of `parent`, in the namespace of `parent`; `text` may be null and is taken as characters, not
// markup. Null only when memory is short. Owned by the tree.
lyxml_elem *lyxml_new_elem(lyxml_elem *parent, const char *name, const char *text);
// Declares `ns` on the element (with `prefix`, or as the default namespace when null) and puts the element into it. 0
// or -1.
int lyxml_set_elem_ns(lyxml_elem *elem, const char *ns, const char *prefix);
int lyxml_set_elem_attr(lyxml_elem *elem, const char *name, const char *value);
// Replaces all that is below the element by `text`, taken as characters. 0 or -1.
int lyxml_set_text(lyxml_elem *elem, std::string_view text);
// A copy of the element with all below, in a document of its own, with every namespace declared that is in scope. Null
// when memory is short.
lyxml_ptr lyxml_copy(lyxml_elem *elem);
// Unlinks the element from its tree and frees it with all below.
void lyxml_free_elem(lyxml_elem *elem);

// The element's markup, without declaration, as UTF-8.
std::string lyxml_print_mem(const lyxml_elem *elem);
// Appends the markup of the element's child elements. 0 or -1.
int lyxml_append_children(const lyxml_elem *elem, wiped_string *text);
// The same as the first, with every namespace declared that is in scope: the text can be parsed on its own, prefixes in
// values included.
std::string lyxml_print_self_contained(lyxml_elem *elem);

std::string_view lyxml_name(const lyxml_elem *elem);
std::string_view lyxml_ns(const lyxml_elem *elem); // empty when the element has no namespace
std::string lyxml_text(const lyxml_elem *elem);    // the text directly below, as it stands
bool lyxml_is_blank(std::string_view text);

// Element siblings and children: text nodes are passed over. Null at the end.
lyxml_elem *lyxml_first_child(const lyxml_elem *parent);
lyxml_elem *lyxml_next(const lyxml_elem *elem);
// First child element of that name, in any namespace; null when there is none.
lyxml_elem *lyxml_find_child(const lyxml_elem *parent, const char *name);
// The element reached from `root` (itself the first name) through the names up to an empty slot (null); null when one
// is missing.
lyxml_elem *lyxml_rpc_get_elem(lyxml_elem *root, const char *const *path);
// Value of the attribute, whatever its namespace; empty and false when it is missing.
bool lyxml_get_attr(const lyxml_elem *elem, const char *name, std::string *ret_value);
