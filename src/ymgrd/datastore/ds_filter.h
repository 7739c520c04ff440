// Subtree filters (RFC 6241, section 6): reading one from a request, checking it against the schema, and cutting data
// down to what it selects. What to read for a filter is ds_filter_plan.h's.
//
// A filter element is a content match node when it has text, a containment node when it has child elements, else a
// selection node. Filter siblings that select the same data select it once: their results are united.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <libyang/libyang.h>

#include "ymgrd/rpc/lyxml.h"

typedef enum _NC_FILTER_TYPE { NC_FILTER_UNKNOWN = 0, NC_FILTER_SUBTREE = 1 } NC_FILTER_TYPE;

typedef struct _nc_filter {
  NC_FILTER_TYPE type = NC_FILTER_UNKNOWN;
  lyxml_ptr subtree_filter; // the <filter> element, an own copy
} nc_filter_t;

// The filter among the children of the operation element; `*ret_filter` is null when there is none. 0 or -1 (memory).
int ds_get_ncfilter(const lyxml_elem *operation, std::unique_ptr<nc_filter_t> *ret_filter);
// Whether the filter selects nothing, whatever the data.
bool nc_filter_is_empty(const nc_filter_t &filter);

// Results of ds_filter_spec.
enum { DS_FILTER_OK = 0, DS_FILTER_UNKNOWN_NODES = 2, DS_FILTER_FAILED = -1 };
// Checks the filter against the schema and brings it into the form in which data is stored: values become canonical,
// and an element that may be of any namespace has none. DS_FILTER_UNKNOWN_NODES (logged) when it names what the schema
// does not know as data. To be called before the functions below.
int ds_filter_spec(nc_filter_t *filter);

// The schema nodes that the filter element can stand for below those of its parent (none given: at the top). Several
// only for an element without namespace.
typedef std::vector<const lysc_node *> ds_schema_nodes;
ds_schema_nodes ds_filter_schema(const lyxml_elem *elem, const ds_schema_nodes &parents);
// "/MODULE:NAME" of each top node that the filter names, each once.
std::vector<std::string> ds_filter_top_paths(const nc_filter_t &filter);

// Filter siblings, prepared to be applied many times. Borrows the elements.
typedef std::vector<const lyxml_elem *> ds_filter_elements;
class ds_prepared_filter {
public:
  explicit ds_prepared_filter(const ds_filter_elements &elements);
  ~ds_prepared_filter();
  const struct filter_siblings_t &siblings() const { return *siblings_; }

private:
  std::unique_ptr<struct filter_siblings_t> siblings_;
};

// Cuts the sibling list that starts at `config` down to what the filter selects: the rest is unlinked and freed.
// Whether something was selected.
bool ncxml_subtree_filter(lyxml_elem *config, const ds_prepared_filter &filter);
// Whether the filter selects anything of it; nothing is cut.
bool ncxml_subtree_selects(lyxml_elem *config, const ds_prepared_filter &filter);
// The same as the first for the children of `old`, which is returned; null when nothing was selected. Sensitive values
// may be sealed (ds_seals_to_xml()): they are compared in clear.
lyxml_ptr ds_xml_subtree_filter(lyxml_ptr old, const ds_prepared_filter &filter);

// 0 when `node` fits the filter element `refer`: by namespace, by attributes.
int nc_nscmp(const lyxml_elem *refer, const lyxml_elem *node);
int attrcmp(const lyxml_elem *refer, const lyxml_elem *node);

// The text without white space at its ends.
std::string_view nc_clrwspace(std::string_view in);
