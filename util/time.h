// Points in time (signed seconds since 1970-01-01 00:00:00 UTC) as date-time
// text in a chosen time zone. The start zone is the process's TZ: using it
// sets that environment variable, so that zone is not safe from several
// threads. Fixed-offset zones leave TZ alone.
#ifndef TALVIX_UTIL_TIME_H_
#define TALVIX_UTIL_TIME_H_

#include <cstdint>
#include <ctime>
#include <string>

namespace util {

// A fixed offset from UTC, or the zone the process had at start.
class TimeZone {
 public:
  // Marker offset (not 0xFFFFFFFF) for the zone in TZ when the first TimeZone
  // was made.
  static constexpr int32_t kStartZone = 0xFFFFFF;

  // `offset` is in seconds east of UTC (3600: one hour ahead) or kStartZone.
  // The first construction in the process saves the TZ variable as it is then.
  explicit TimeZone(int32_t offset);

  int32_t offset() const { return offset_; }

 private:
  int32_t offset_;
};

// The TZ value for the zone: the POSIX form with inverted sign for a fixed
// offset ("GMT-0", "GMT1", "GMT-1:01:01", "GMT5:30"), the saved start zone
// for kStartZone ("" when TZ was not set at start).
std::string time_zone_text(const TimeZone& zone);

// Sets TZ to time_zone_text(zone) and re-reads it. Throws util::ESystemError
// "Couldn't set TZ environment variable" when the environment refuses.
void apply_time_zone(const TimeZone& zone);

// The broken-down time of `time` in the zone; the start zone is applied
// first (apply_time_zone), a fixed offset is computed without TZ. Throws
// util::ESystemError "Couldn't get localtime for time <n>" (n: the low 32
// bits as a signed number) when the time is beyond the calendar's range.
struct tm local_time(const TimeZone& zone, int64_t time);

// "YYYY-MM-DD-THH:MM:SS" of `time` in the zone, e.g. 1970-01-01-T00:00:00 for
// time 0 at offset 0. A negative time is an assertion failure (the process
// ends); local_time's failures propagate.
std::string iso_time2str(int64_t time, const TimeZone& zone);
// iso_time2str(time, zone) appended to `out`.
void append_iso_time(std::string& out, int64_t time, const TimeZone& zone);

}  // namespace util

#endif  // TALVIX_UTIL_TIME_H_
