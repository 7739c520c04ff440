#include "ymgrd/notify/event_time.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libconf/safe_string.h"
#include "libconf/unique_fd.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"

namespace {

namespace chrono = std::chrono;

constexpr int MINUTES_PER_HOUR = 60;
constexpr int SECONDS_PER_MINUTE = 60;
constexpr int LEAP_SECOND = 60;
constexpr size_t ZONE_TEXT_MAX = 16; // of the zone file

// Takes `form` off the front of the text: a digit for each '0' (whose numbers are given in order), else that character.
bool take(std::string_view *text, std::string_view form, std::initializer_list<int *> numbers)
{
  if (text->size() < form.size()) {
    return false;
  }
  auto number = numbers.begin();
  for (size_t i = 0; i < form.size(); i++) {
    char found = (*text)[i];
    if (form[i] != '0') {
      if (found != form[i]) {
        return false;
      }
      continue;
    }
    if (found < '0' || found > '9') {
      return false;
    }
    bool is_first = i == 0 || form[i - 1] != '0';
    bool is_last = i + 1 == form.size() || form[i + 1] != '0';
    **number = (is_first ? 0 : **number * 10) + (found - '0');
    number += is_last ? 1 : 0;
  }
  text->remove_prefix(form.size());
  return true;
}

bool take_one_of(std::string_view *text, std::string_view characters)
{
  if (text->empty() || characters.find(text->front()) == std::string_view::npos) {
    return false;
  }
  text->remove_prefix(1);
  return true;
}

// "." and digits, or nothing.
bool skip_fraction(std::string_view *text)
{
  if (!take_one_of(text, ".")) {
    return true;
  }
  size_t digits = text->find_first_not_of("0123456789");
  text->remove_prefix(digits == std::string_view::npos ? text->size() : digits);
  return digits != 0;
}

// "+HH:MM" or "-HH:MM".
bool take_offset(std::string_view *text, int *ret_minutes)
{
  bool is_west = text->starts_with('-');
  int hours = 0;
  int minutes = 0;
  if (!take_one_of(text, "+-") || !take(text, "00:00", {&hours, &minutes}) || hours > 23 ||
      minutes >= MINUTES_PER_HOUR) {
    return false;
  }
  int offset = hours * MINUTES_PER_HOUR + minutes;
  *ret_minutes = is_west ? -offset : offset;
  return true;
}

// Leap seconds end the last day of a month, in universal time.
bool may_be_after_leap_second(chrono::sys_seconds moment)
{
  auto day = chrono::floor<chrono::days>(moment);
  return moment == day && chrono::year_month_day(day).day() == chrono::day(1);
}

// --- The device's zone.

typedef struct _zone_stamp {
  dev_t device = 0;
  ino_t file = 0;
  off_t size = -1; // -1: there is no file
  time_t seconds = 0;
  long nanoseconds = 0;
  bool operator==(const _zone_stamp &) const = default;
} zone_stamp_t;

zone_stamp_t stamp_of_zone_file()
{
  struct stat status = {};
  if (lstat(TIME_ZONE_PATH, &status) != 0) {
    return {};
  }
  return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

// The file is read, and what is wrong with it is told, when it is another one than the last time.
int zone_file_minutes()
{
  static bool is_known = false;
  static zone_stamp_t known_stamp;
  static int known_minutes = 0;
  zone_stamp_t stamp = stamp_of_zone_file();
  if (!is_known || stamp != known_stamp) {
    known_minutes = 0;
    (void)event_time_read_zone(TIME_ZONE_PATH, &known_minutes); // universal time then
    known_stamp = stamp;
    is_known = true;
  }
  return known_minutes;
}

int zone_minutes(time_t time)
{
  if (getenv("TZ") == nullptr) {
    return zone_file_minutes();
  }
  tm local = {};
  tzset();
  return localtime_r(&time, &local) == nullptr ? 0 : static_cast<int>(local.tm_gmtoff / SECONDS_PER_MINUTE);
}

} // namespace

int event_time_parse(std::string_view text, time_t *ret_time)
{
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  bool is_time = take(&text, "0000-00-00", {&year, &month, &day}) && take_one_of(&text, "Tt") &&
                 take(&text, "00:00:00", {&hour, &minute, &second}) && skip_fraction(&text);
  chrono::year_month_day date(chrono::year(year), chrono::month(static_cast<unsigned>(month)),
                              chrono::day(static_cast<unsigned>(day)));
  if (!is_time || !date.ok() || hour > 23 || minute >= MINUTES_PER_HOUR || second > LEAP_SECOND) {
    log_error("Wrong date time format not compliant to RFC 3339..");
    return -1;
  }
  int offset = 0;
  if ((!take_one_of(&text, "Zz") && !take_offset(&text, &offset)) || !text.empty()) {
    log_error("Wrong date time shift format not compliant to RFC 3339..");
    return -1;
  }
  chrono::sys_seconds moment =
      chrono::sys_days(date) + chrono::hours(hour) + chrono::minutes(minute - offset) + chrono::seconds(second);
  if (second == LEAP_SECOND && !may_be_after_leap_second(moment)) {
    log_error("Wrong date time format not compliant to RFC 3339..");
    return -1;
  }
  *ret_time = moment.time_since_epoch().count();
  return 0;
}

std::string event_time_format(time_t time)
{
  int minutes = zone_minutes(time);
  time_t shifted = time + static_cast<time_t>(minutes) * SECONDS_PER_MINUTE;
  tm parts = {};
  gmtime_r(&shifted, &parts);
  char zone[16] = "Z";
  if (minutes != 0) {
    int distance = std::abs(minutes);
    (void)snprintf_s(zone, sizeof(zone), "%s%02d:%02d", minutes < 0 ? "-" : "+", distance / MINUTES_PER_HOUR,
                     distance % MINUTES_PER_HOUR);
  }
  char text[96] = ""; // large enough for any numbers
  (void)snprintf_s(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d%s", parts.tm_year + 1900, parts.tm_mon + 1,
                   parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, zone);
  return text;
}

int event_time_read_zone(const char *path, int *ret_minutes)
{
  // Anybody may have put something else there: no link is followed, no pipe waited for.
  unique_fd file(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status = {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    log_warn("Open pdt_lsw_timezone failed.");
    return -1;
  }
  char bytes[ZONE_TEXT_MAX];
  ssize_t length = read(file.get(), bytes, sizeof(bytes));
  std::string_view text(bytes, length < 0 ? 0 : static_cast<size_t>(length));
  int minutes = 0;
  if (!take_offset(&text, &minutes) || text.find_first_not_of(" \t\r\n") != std::string_view::npos) {
    log_warn("Read zonediff failed.");
    return -1;
  }
  *ret_minutes = minutes;
  return 0;
}
