#include "ymgrd/notify/event_filter.h"
struct _event_filter {};
void event_filter_delete_t::operator()(event_filter_t *filter) const
{
  delete filter;
}
int event_filter_create(const lyxml_elem *, event_filter_ptr *)
{
  return EVENT_FILTER_OK;
}
bool event_filter_selects(const event_filter_t &, const lyxml_elem *)
{
  return true;
}
