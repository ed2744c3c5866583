// Points in time (signed seconds since 1970-01-01 00:00:00 UTC) as date-time
// text in UTC.
#ifndef TALVIX_UTIL_TIME_H_
#define TALVIX_UTIL_TIME_H_

#include <cstdint>
#include <string>

namespace util {

// "YYYY-MM-DD-THH:MM:SS" of `time` in UTC, e.g. 1970-01-01-T00:00:00 for time
// 0; from the year 10000 on the year has as many digits as it needs. A
// negative time is an assertion failure (the process ends). Throws
// util::ESystemError "Couldn't get localtime for time <n>" (n: the low 32 bits
// as a signed number) when the time is beyond the calendar's range.
std::string iso_time2str(int64_t time);
// iso_time2str(time) appended to `out`.
void append_iso_time(std::string& out, int64_t time);

}  // namespace util

#endif  // TALVIX_UTIL_TIME_H_
