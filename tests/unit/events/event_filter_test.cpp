// Which events a subscription's filter lets through.
#include <gtest/gtest.h>

#include "ymgrd/notify/event_filter.h"

TEST(event_filter, an_event_is_wanted_when_anything_of_it_is_selected)
{
  const char content[] = "<link xmlns='urn:ev'><name>e0</name><port><speed>10</speed></port><port><speed>100</speed>"
                         "<up/></port></link>";
  const struct {
    const char *filter;
    bool is_wanted;
  } cases[] = {
      {"<filter/>", false},
      {"<filter type='subtree'><link xmlns='urn:ev'/></filter>", true},
      {"<filter><link/></filter>", true},
      {"<filter xmlns='urn:ev'><link><name>e0</name></link></filter>", true},
      {"<filter xmlns:e='urn:ev'><e:link><e:name> e0 </e:name><e:port/></e:link></filter>", true},
      {"<filter><link xmlns='urn:other'/></filter>", false},
      {"<filter><alarm/><unknown xmlns='urn:none'><deep/></unknown></filter>", false},
      {"<filter><link><name>e1</name></link></filter>", false},
      {"<filter><link><name>e1</name></link><link><port><up/></port></link></filter>", true},
      {"<filter><link><name>e0</name><port><speed>11</speed></port></link></filter>", true}, // selects the name
      {"<filter><link><port><speed>100</speed></port></link></filter>", true},
      {"<filter><link><port><speed>10</speed><up/></port></link></filter>", true},
      {"<filter><link><port><speed>11</speed><up/></port></link></filter>", false},
  };
  lyxml_ptr event = lyxml_parse_mem(content);
  for (const auto &row : cases) {
    lyxml_ptr request = lyxml_parse_mem(row.filter);
    event_filter_ptr filter;
    ASSERT_EQ(event_filter_create(request.get(), &filter), EVENT_FILTER_OK) << row.filter;
    request.reset();                          // the request ends before the subscription
    for (int round = 0; round < 2; round++) { // nothing of the first look is left
      EXPECT_EQ(event_filter_selects(*filter, event.get()), row.is_wanted) << row.filter;
    }
  }
  event_filter_ptr filter;
  EXPECT_EQ(event_filter_create(lyxml_parse_mem("<filter type='xpath' select='/a'/>").get(), &filter),
            EVENT_FILTER_UNSUPPORTED);
  EXPECT_EQ(filter, nullptr);
}
