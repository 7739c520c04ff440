// Date-times of RFC 3339.
#include "ymgrd/notify/event_time.h"

#include <cstdlib>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/environment.h"

TEST(event_time, texts_of_rfc_3339_are_moments)
{
  const struct {
    const char *text;
    time_t moment;
  } cases[] = {
      {"1970-01-01T00:00:00Z", 0},
      {"1969-12-31T23:59:58Z", -2},
      {"0000-02-29T00:00:00Z", -62162121600},
      {"9999-12-31T23:59:59Z", 253402300799},
      {"2038-01-19T03:14:08Z", 2147483648},
      {"2000-02-29t12:00:00z", 951825600},
      {"2024-02-29T12:00:00.9999999999999999999999Z", 1709208000},
      {"2024-03-01T01:30:00+13:30", 1709208000},
      {"2024-02-28T12:01:00-23:59", 1709208000},
      {"2024-03-01T11:59:00+23:59", 1709208000},
      {"2024-02-29T12:00:00-00:00", 1709208000},
      {"2016-12-31T23:59:60Z", 1483228800},
      {"2017-01-01T08:59:60+09:00", 1483228800},
  };
  for (const auto &row : cases) {
    time_t moment = 12345;
    EXPECT_EQ(0, event_time_parse(row.text, &moment)) << row.text;
    EXPECT_EQ(row.moment, moment) << row.text;
  }
}

TEST(event_time, other_texts_are_refused)
{
  time_t moment = 12345;
  std::istringstream texts(
      "|2024|2024-02-29|2024-02-29T12:00Z|24-02-29T12:00:00Z|2023-02-29T12:00:00Z|"
      "1900-02-29T12:00:00Z|2024-04-31T12:00:00Z|2024-00-10T12:00:00Z|2024-13-01T12:00:00Z|"
      "2024-01-00T12:00:00Z|2024-02-29T24:00:00Z|2024-02-29T12:60:00Z|2024-02-29T12:00:61Z|"
      "2024-02-29T12:00:60Z|2016-12-31T23:59:60+01:00|2024-02-29 12:00:00Z|2024-02-29T12:00:00.Z|"
      "2024-02-29T12:00:00,5Z|+2024-02-29T12:00:00Z|2024-2-29T12:00:00Z| 2024-02-29T12:00:00Z|"
      "2024-02-29T12:00:00|2024-02-29T12:00:00Z |2024-02-29T12:00:00+24:00|2024-02-29T12:00:00+01:60|"
      "2024-02-29T12:00:00+0100|2024-02-29T12:00:00+1:00|2024-02-29T12:00:00ZZ|2024-02-29T12:00:00+01");
  for (std::string text; std::getline(texts, text, '|');) {
    EXPECT_EQ(-1, event_time_parse(text, &moment)) << text;
  }
  EXPECT_EQ(12345, moment);
}

TEST(event_time, times_are_written_in_the_devices_zone)
{
  const struct {
    const char *zone;
    time_t moment;
    const char *text;
  } cases[] = {{"UTC0", -1, "1969-12-31T23:59:59Z"},
               {"NPT-5:45", 1709208000, "2024-02-29T17:45:00+05:45"},
               {"NST3:30NDT", 1709208000, "2024-02-29T08:30:00-03:30"},
               {"NST3:30NDT", 1719662400, "2024-06-29T09:30:00-02:30"}};
  for (const auto &row : cases) {
    setenv("TZ", row.zone, 1);
    EXPECT_EQ(row.text, event_time_format(row.moment));
  }
}

// Anybody can write where the file is.
TEST(event_time, zone_file_holds_an_offset_or_is_not_used)
{
  support::temp_dir dir;
  const std::string path = dir / "zone", link = dir / "link", pipe = dir / "pipe";
  int minutes = 7;
  ASSERT_TRUE(symlink(path.c_str(), link.c_str()) == 0 && mkfifo(pipe.c_str(), 0600) == 0);
  EXPECT_EQ(-1, event_time_read_zone(path.c_str(), &minutes)) << "missing";
  for (const char *text : {"", "08:00", "+8:00", "+08:60", "+24:00", "+08:00x", "Z"}) {
    support::write_file(path, text);
    EXPECT_EQ(-1, event_time_read_zone(path.c_str(), &minutes)) << text;
  }
  support::write_file(path, "-03:30\n");
  EXPECT_EQ(-1, event_time_read_zone(link.c_str(), &minutes));
  EXPECT_EQ(-1, event_time_read_zone(pipe.c_str(), &minutes));
  EXPECT_EQ(7, minutes);
  EXPECT_EQ(0, event_time_read_zone(path.c_str(), &minutes));
  EXPECT_EQ(-210, minutes);
}
