#include "util/time.h"

#include <ctime>

#include "util/error.h"
#include "util/format.h"

namespace util {

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

[[noreturn]] void throw_localtime_failure(int64_t time) {
  util::throw_system_error("Couldn't get localtime for time " +
                           int_to_string(static_cast<int32_t>(static_cast<uint32_t>(time))));
}

}  // namespace

void append_iso_time(std::string& out, int64_t time) {
  if (time < 0) assert_failed("iso_time2str(): Parameter less than 0");
  if (time < kYear10000) {
    append_utc_text(out, time);
    return;
  }
  struct tm t {};
  const auto seconds = static_cast<time_t>(time);
  if (gmtime_r(&seconds, &t) == nullptr) throw_localtime_failure(time);
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

std::string iso_time2str(int64_t time) {
  std::string text;
  append_iso_time(text, time);
  return text;
}

}  // namespace util
