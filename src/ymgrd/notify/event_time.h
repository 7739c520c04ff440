// Times of events: RFC 3339 date-times, read with any zone and fraction, written in the device's zone to the second.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

// 0; -1 (logged) when the text is no date-time of RFC 3339. A fraction of a second is dropped, a leap second is the
// second after it.
int event_time_parse(std::string_view text, time_t *ret_time);
// With "Z", or the offset of the device's zone (TZ, else the zone file).
std::string event_time_format(time_t time);

// The offset that a zone file holds ("+HH:MM" or "-HH:MM" and a line end), in minutes. 0 or -1 (logged).
int event_time_read_zone(const char *path, int *ret_minutes);
