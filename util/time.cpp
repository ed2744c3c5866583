#include "util/time.h"

#include <cstdlib>
#include <optional>

#include "util/error.h"
#include "util/format.h"

namespace util {

namespace {

// TZ as it was when the first TimeZone was made; nothing when it was unset.
struct StartZone {
  bool captured = false;
  std::optional<std::string> text;
};

StartZone& start_zone() {
  // Process-wide by nature: it mirrors the process's TZ environment variable.
  static StartZone zone;
  return zone;
}

[[noreturn]] void throw_localtime_failure(int64_t time) {
  util::throw_system_error("Couldn't get localtime for time " +
                           int_to_string(static_cast<int32_t>(static_cast<uint32_t>(time))));
}

}  // namespace

TimeZone::TimeZone(int32_t offset) : offset_(offset) {
  StartZone& start = start_zone();
  if (!start.captured) {
    start.captured = true;
    if (const char* tz = std::getenv("TZ")) start.text = tz;
  }
}

namespace {

// The parts of |offset| as the zone text writes them.
struct OffsetParts {
  int64_t hours;
  int32_t minutes;
  int32_t seconds;
};

OffsetParts split_offset(int32_t offset) {
  int64_t a = offset < 0 ? -int64_t{offset} : int64_t{offset};
  int64_t hours = a / 3600;
  int64_t rest = a - hours * 3600;
  int32_t minutes = static_cast<int32_t>(rest / 60);
  int32_t seconds = static_cast<int32_t>(rest - minutes * 60);
  return {hours, minutes, seconds};
}

// The offset east of UTC that the C library reads from the zone text. The
// text leaves out zero minutes even when seconds follow, so "GMT-0:59" (for
// 59 seconds) reads as 59 minutes; dates follow the text, not the number.
int64_t effective_offset(int32_t offset) {
  OffsetParts p = split_offset(offset);
  int64_t magnitude = p.hours * 3600;
  if (p.minutes != 0) {
    magnitude += p.minutes * 60 + p.seconds;
  } else {
    magnitude += p.seconds * 60;
  }
  return offset < 0 ? -magnitude : magnitude;
}

}  // namespace

std::string time_zone_text(const TimeZone& zone) {
  if (zone.offset() == TimeZone::kStartZone) return start_zone().text.value_or("");
  // POSIX zones count hours west of UTC, so the sign is inverted.
  OffsetParts p = split_offset(zone.offset());
  std::string text = "GMT";
  if (zone.offset() >= 0) text += "-";
  text += std::to_string(p.hours);
  for (int32_t part : {p.minutes, p.seconds}) {
    if (part == 0) continue;
    text += ':';
    text += int_to_string(part, true);
  }
  return text;
}

void apply_time_zone(const TimeZone& zone) {
  // setenv copies the text, so no buffer has to outlive the call and a start
  // zone of any length fits.
  if (setenv("TZ", time_zone_text(zone).c_str(), 1) != 0) {
    util::throw_system_error("Couldn't set TZ environment variable");
  }
  tzset();
}

struct tm local_time(const TimeZone& zone, int64_t time) {
  struct tm result {};
  if (zone.offset() == TimeZone::kStartZone) {
    apply_time_zone(zone);
    time_t t = static_cast<time_t>(time);
    if (localtime_r(&t, &result) == nullptr) throw_localtime_failure(time);
    return result;
  }
  // A fixed-offset zone has no daylight saving time: the local time is UTC
  // moved by the offset the zone text stands for. Computing it here rather
  // than with localtime_r keeps offsets beyond 24 hours, which glibc's TZ
  // parser would cut to 24 hours, and leaves TZ alone.
  int64_t shifted = 0;
  if (__builtin_add_overflow(time, effective_offset(zone.offset()), &shifted)) {
    throw_localtime_failure(time);
  }
  time_t t = static_cast<time_t>(shifted);
  if (gmtime_r(&t, &result) == nullptr) throw_localtime_failure(time);
  result.tm_isdst = 0;
  return result;
}

namespace {

// Two digits of `value` (0..99) at `at`.
void put_two(char* at, int value) {
  at[0] = static_cast<char>('0' + value / 10);
  at[1] = static_cast<char>('0' + value % 10);
}

// The text of a UTC time `t` from 0 (1970) up to the end of the year 9999,
// without the C library: days to a civil date in the proleptic Gregorian
// calendar, counted in 400-year eras from 0000-03-01.
void append_utc_text(std::string& out, int64_t t) {
  const int64_t days = t / 86400;
  const auto seconds = static_cast<int>(t % 86400);
  const int64_t z = days + 719468;
  const int64_t era = z / 146097;
  const auto dayOfEra = static_cast<int>(z - era * 146097);
  const int yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int monthFromMarch = (5 * dayOfYear + 2) / 153;
  const int day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
  const int month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  const auto year = static_cast<int>(yearOfEra + era * 400 + (month <= 2 ? 1 : 0));
  char text[20] = {'0', '0', '0', '0', '-', '0', '0', '-', '0', '0',
                   '-', 'T', '0', '0', ':', '0', '0', ':', '0', '0'};
  put_two(text, year / 100);
  put_two(text + 2, year % 100);
  put_two(text + 5, month);
  put_two(text + 8, day);
  put_two(text + 12, seconds / 3600);
  put_two(text + 15, seconds / 60 % 60);
  put_two(text + 18, seconds % 60);
  out.append(text, sizeof text);
}

// 10000-01-01T00:00:00 UTC: from here on a year has five digits.
constexpr int64_t kYear10000 = 253402300800;

}  // namespace

void append_iso_time(std::string& out, int64_t time, const TimeZone& zone) {
  if (time < 0) assert_failed("iso_time2str(): Parameter less than 0");
  if (zone.offset() != TimeZone::kStartZone && time < 2 * kYear10000) {
    // An offset's magnitude is below 2^32: no overflow.
    const int64_t shifted = time + effective_offset(zone.offset());
    if (shifted >= 0 && shifted < kYear10000) {
      append_utc_text(out, shifted);
      return;
    }
  }
  const struct tm t = local_time(zone, time);
  append_int(out, int64_t{t.tm_year} + 1900);
  out += '-';
  append_int(out, t.tm_mon + 1, true);
  out += '-';
  append_int(out, t.tm_mday, true);
  out += "-T";
  append_int(out, t.tm_hour, true);
  out += ':';
  append_int(out, t.tm_min, true);
  out += ':';
  append_int(out, t.tm_sec, true);
}

std::string iso_time2str(int64_t time, const TimeZone& zone) {
  std::string text;
  append_iso_time(text, time, zone);
  return text;
}

}  // namespace util
