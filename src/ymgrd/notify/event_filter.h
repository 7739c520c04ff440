// Subtree filters (RFC 6241, section 6) applied to events (RFC 5277, section 3.6): an event of which the filter selects
// anything is sent whole. Filters are not checked against the schema: what they name and no event has selects nothing.
// Texts are compared as they stand in the event: canonical, and cipher text where the leaf is sensitive, so that a
// filter cannot find out its value.
#pragma once

#include <memory>
#include <string_view>

#include "ymgrd/rpc/lyxml.h"

typedef struct _event_filter event_filter_t;
struct event_filter_delete_t {
  void operator()(event_filter_t *filter) const;
};
using event_filter_ptr = std::unique_ptr<event_filter_t, event_filter_delete_t>;

enum { EVENT_FILTER_OK = 0, EVENT_FILTER_UNSUPPORTED = 1, EVENT_FILTER_FAILED = -1 };
// The filter of a create-subscription request's <filter> element, of which it keeps a copy. EVENT_FILTER_UNSUPPORTED
// for another type than subtree, EVENT_FILTER_FAILED (logged) when memory is short. An empty filter selects nothing.
int event_filter_create(const lyxml_elem *filter, event_filter_ptr *ret_filter);
// `content` is the event's element.
bool event_filter_selects(const event_filter_t &filter, const lyxml_elem *content);
