#include "util/time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "util/error.h"

namespace {

TEST(TimeZoneTextTest, PosixFormWithInvertedSignAppliedToTz) {
  const struct { int32_t offset; const char* text; } cases[] = {
      {0, "GMT-0"}, {-3600, "GMT1"}, {3661, "GMT-1:01:01"}, {-19800, "GMT5:30"}, {59, "GMT-0:59"},
      {TimeZone::kStartZone - 1, "GMT-4660:20:14"}, {INT32_MAX, "GMT-596523:14:07"}, {INT32_MIN, "GMT596523:14:08"}};
  for (const auto& c : cases) {
    TimeZone zone(c.offset);
    EXPECT_EQ(time_zone_text(zone), c.text);
    apply_time_zone(zone);
    const char* tz = std::getenv("TZ");
    EXPECT_STREQ(tz == nullptr ? "(unset)" : tz, c.text);
  }
}

TEST(IsoTimeTest, Text) {
  const struct { int64_t time; int32_t offset; const char* text; } cases[] = {
      {951782400, 0, "2000-02-29-T00:00:00"}, {253402300800, 0, "10000-01-01-T00:00:00"},
      {0, 3661, "1970-01-01-T01:01:01"},
      // Zero minutes are left out of the zone text, so the seconds that
      // follow the hour are read as minutes.
      {0, -1, "1969-12-31-T23:59:00"},
      // Offsets of a day and more are kept exactly.
      {0, 90000, "1970-01-02-T01:00:00"}, {0, -INT32_MAX, "1901-12-13-T20:45:53"}};
  for (const auto& c : cases) {
    EXPECT_EQ(iso_time2str(c.time, TimeZone(c.offset)), c.text) << c.time << " " << c.offset;
  }
}

// For zones the C library can express, the broken-down time equals what
// localtime_r gives under the TZ value that was set, including the zone texts
// that read back as another offset.
TEST(LocalTimeTest, AgreesWithTheLibraryForZonesUpToADay) {
  const int32_t offsets[] = {0, 3600, -3661, -19800, 45296, 86400, -86400, 59, -1, 3605, -7230};
  const int64_t times[] = {0, 1, 86399, 951782400, 1234567890, 4102444800};
  for (int32_t offset : offsets) {
    for (int64_t time : times) {
      struct tm ours = local_time(TimeZone(offset), time);
      time_t t = static_cast<time_t>(time);
      struct tm theirs {};
      ASSERT_NE(localtime_r(&t, &theirs), nullptr);
      auto fields = [](const struct tm& x) {
        return std::vector<int>{x.tm_year, x.tm_mon,  x.tm_mday, x.tm_hour, x.tm_min,
                                x.tm_sec,  x.tm_wday, x.tm_yday, x.tm_isdst};
      };
      theirs.tm_isdst = 0;  // fixed zones have no daylight saving time
      EXPECT_EQ(fields(ours), fields(theirs)) << offset << " " << time;
    }
  }
}

TEST(LocalTimeTest, TimeBeyondTheCalendarFails) {
  const struct { int64_t time; int32_t offset; const char* text; } cases[] = {
      {INT64_MAX - 10, 3600, "Couldn't get localtime for time -11"},
      {INT64_MAX - 255, 0, "Couldn't get localtime for time -256"},
      {INT64_MAX, TimeZone::kStartZone, "Couldn't get localtime for time -1"}};
  for (const auto& c : cases) {
    try {
      iso_time2str(c.time, TimeZone(c.offset));
      ADD_FAILURE() << "no exception for " << c.text;
    } catch (const error::ESystemError& e) {
      EXPECT_EQ(e.text(), c.text);
    }
  }
}

TEST(IsoTimeDeathTest, NegativeTimeIsAnAssertion) {
  EXPECT_DEATH(iso_time2str(-1, TimeZone(0)),
               "^Assertion failed: iso_time2str\\(\\): Parameter less than 0\n");
}

// The start zone is captured once per process, so these run in a freshly
// started copy of the test program, which reports through its exit code.
class StartZoneTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  void TearDown() override { GTEST_FLAG_SET(death_test_style, "fast"); }
};

[[noreturn]] void exit_unless(bool ok, const std::string& what) {
  if (!ok) std::fprintf(stderr, "mismatch: %s\n", what.c_str());
  std::fflush(stderr);
  std::_Exit(ok ? 0 : 1);
}

// Unset at the start, the start zone assigns an empty TZ; otherwise it is the
// TZ of the first construction of any zone, whatever TZ says later.
TEST_F(StartZoneTest, ZoneOfTheFirstConstructionIsRestored) {
  EXPECT_EXIT(
      {
        unsetenv("TZ");
        TimeZone start(TimeZone::kStartZone);
        setenv("TZ", "EST5EDT", 1);
        apply_time_zone(start);
        const char* tz = std::getenv("TZ");
        exit_unless(tz != nullptr && tz[0] == '\0' && time_zone_text(start).empty() &&
                        iso_time2str(0, start) == "1970-01-01-T00:00:00",
                    tz == nullptr ? "unset" : tz);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_EXIT(
      {
        setenv("TZ", "EST5EDT", 1);
        TimeZone fixed(0);
        setenv("TZ", "JST-9", 1);
        TimeZone start(TimeZone::kStartZone);
        std::string utc = iso_time2str(0, fixed);
        std::string atStart = iso_time2str(0, start);
        const char* tz = std::getenv("TZ");
        exit_unless(utc == "1970-01-01-T00:00:00" && atStart == "1969-12-31-T19:00:00" &&
                        tz != nullptr && std::strcmp(tz, "EST5EDT") == 0,
                    utc + " " + atStart);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
