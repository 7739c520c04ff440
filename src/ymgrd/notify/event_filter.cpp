#include "ymgrd/notify/event_filter.h"

#include "ymgrd/core/log.h"
#include "ymgrd/datastore/ds_filter.h"

struct _event_filter {
  lyxml_ptr elements; // the <filter> element, which the other borrows
  std::unique_ptr<ds_prepared_filter> prepared;
};

void event_filter_delete_t::operator()(event_filter_t *filter) const
{
  delete filter;
}

int event_filter_create(const lyxml_elem *filter, event_filter_ptr *ret_filter)
{
  std::string type;
  if (lyxml_get_attr(filter, "type", &type) && type != "subtree") {
    return EVENT_FILTER_UNSUPPORTED;
  }
  event_filter_ptr created(new event_filter_t);
  // Copying declares on the element what is in scope there, and changes nothing else.
  created->elements = lyxml_copy(const_cast<lyxml_elem *>(filter));
  if (created->elements == nullptr) {
    log_error("Copy the filter of a subscription failed.");
    return EVENT_FILTER_FAILED;
  }
  ds_filter_elements elements;
  for (const lyxml_elem *elem = lyxml_first_child(created->elements.get()); elem != nullptr; elem = lyxml_next(elem)) {
    elements.push_back(elem);
  }
  created->prepared = std::make_unique<ds_prepared_filter>(elements);
  *ret_filter = std::move(created);
  return EVENT_FILTER_OK;
}

bool event_filter_selects(const event_filter_t &filter, const lyxml_elem *content)
{
  // The selection marks what it finds and takes the marks off again.
  return ncxml_subtree_selects(const_cast<lyxml_elem *>(content), *filter.prepared);
}
