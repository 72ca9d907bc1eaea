// date_: turns a header's seconds-since-1970 into calendar date and time of
// day (UTC, proleptic Gregorian calendar) and prints them in ISO 8601 order.
// The arithmetic is the standard library's calendar, so nothing depends on
// the process's time zone or on the width of time_t.
#include "date.h"

#include <chrono>
#include <cstdio>

size_t date_FormatDateAndTime(uint32_t seconds, const char* separator, char* out, size_t outLen) {
  using namespace std::chrono;
  const sys_seconds when{std::chrono::seconds{static_cast<int64_t>(seconds)}};
  const sys_days day = floor<days>(when);
  const year_month_day ymd{day};
  const hh_mm_ss<std::chrono::seconds> tod{when - day};
  const int n = std::snprintf(out, outLen, "%04d-%02u-%02u%s%02ld:%02ld:%02ld",
                              static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                              static_cast<unsigned>(ymd.day()), separator ? separator : "",
                              static_cast<long>(tod.hours().count()),
                              static_cast<long>(tod.minutes().count()),
                              static_cast<long>(tod.seconds().count()));
  return n < 0 ? 0 : static_cast<size_t>(n);
}
