#include "util/time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

TEST(TimeZoneTextTest, PosixFormWithInvertedSignAppliedToTz) {
  const struct { int32_t offset; const char* text;
  } cases[] = {{0, "GMT-0"},
               {-3600, "GMT1"},
               {3661, "GMT-1:01:01"},
               {-19800, "GMT5:30"},
               {59, "GMT-0:59"},
               {util::TimeZone::kStartZone - 1, "GMT-4660:20:14"},
               {INT32_MAX, "GMT-596523:14:07"},
               {INT32_MIN, "GMT596523:14:08"}};
  for (const auto& c : cases) {
    util::TimeZone zone(c.offset);
    EXPECT_EQ(util::time_zone_text(zone), c.text);
    util::apply_time_zone(zone);
    const char* tz = std::getenv("TZ");
    EXPECT_STREQ(tz == nullptr ? "(unset)" : tz, c.text);
  }
}

TEST(IsoTimeTest, Text) {
  const struct { int64_t time; int32_t offset; const char* text; } cases[] = {
      {253402300800, 0, "10000-01-01-T00:00:00"},
      {0, 3661, "1970-01-01-T01:01:01"},
      // Zero minutes are left out of the zone text, so the seconds that
      // follow the hour are read as minutes.
      {0, -1, "1969-12-31-T23:59:00"},
      // Offsets of a day and more are kept exactly.
      {0, 90000, "1970-01-02-T01:00:00"}, {0, -INT32_MAX, "1901-12-13-T20:45:53"}};
  for (const auto& c : cases) {
    EXPECT_EQ(util::iso_time2str(c.time, util::TimeZone(c.offset)), c.text)
        << c.time << " " << c.offset;
  }
}

// The whole range of four-digit years at offset 0, against the C library's
// calendar: leap days, centuries, the last second before the year 10000.
TEST(IsoTimeTest, FourDigitYearsAsTheCLibraryCountsThem) {
  std::vector<int64_t> times = {0, 951782400, 951868799, 4107542399, 4107542400,
                                253402300799, 253402300800};
  uint64_t seed = 7;
  for (int i = 0; i < 20000; ++i) {
    seed = seed * 6364136223846793005u + 1442695040888963407u;
    times.push_back(static_cast<int64_t>((seed >> 16) % 253402300800u));
  }
  for (int64_t t : times) {
    const time_t seconds = static_cast<time_t>(t);
    struct tm parts {};
    ASSERT_NE(gmtime_r(&seconds, &parts), nullptr);
    char expected[64];
    std::snprintf(expected, sizeof expected, "%04d-%02d-%02d-T%02d:%02d:%02d",
                  parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                  parts.tm_min, parts.tm_sec);
    ASSERT_EQ(util::iso_time2str(t, util::TimeZone(0)), expected) << t;
  }
}

TEST(LocalTimeTest, TimeBeyondTheCalendarFails) {
  const struct { int64_t time; int32_t offset; const char* text;
  } cases[] = {{INT64_MAX - 10, 3600, "Couldn't get localtime for time -11"},
               {INT64_MAX - 255, 0, "Couldn't get localtime for time -256"},
               {INT64_MAX, util::TimeZone::kStartZone, "Couldn't get localtime for time -1"}};
  for (const auto& c : cases) {
    EXPECT_EQ(support::errorText<util::ESystemError>(
                  [&] { util::iso_time2str(c.time, util::TimeZone(c.offset)); }),
              c.text);
  }
}

TEST(IsoTimeDeathTest, NegativeTimeIsAnAssertion) {
  EXPECT_DEATH(util::iso_time2str(-1, util::TimeZone(0)),
               "^Assertion failed: iso_time2str\\(\\): Parameter less than 0\n");
}

// The start zone is captured once per process, so these run in a freshly
// started copy of the test program, which reports through its exit code.

[[noreturn]] void exit_unless(bool ok, const std::string& what) {
  if (!ok) std::fprintf(stderr, "mismatch: %s\n", what.c_str());
  std::fflush(stderr);
  std::_Exit(ok ? 0 : 1);
}

// Unset at the start, the start zone assigns an empty TZ; otherwise it is the
// TZ of the first construction of any zone, whatever TZ says later.
TEST(StartZoneTest, ZoneOfTheFirstConstructionIsRestored) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        unsetenv("TZ");
        util::TimeZone start(util::TimeZone::kStartZone);
        setenv("TZ", "EST5EDT", 1);
        util::apply_time_zone(start);
        const char* tz = std::getenv("TZ");
        exit_unless(tz != nullptr && tz[0] == '\0' && util::time_zone_text(start).empty() &&
                        util::iso_time2str(0, start) == "1970-01-01-T00:00:00",
                    tz == nullptr ? "unset" : tz);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_EXIT(
      {
        setenv("TZ", "EST5EDT", 1);
        util::TimeZone fixed(0);
        setenv("TZ", "JST-9", 1);
        util::TimeZone start(util::TimeZone::kStartZone);
        std::string utc = util::iso_time2str(0, fixed);
        std::string atStart = util::iso_time2str(0, start);
        const char* tz = std::getenv("TZ");
        exit_unless(utc == "1970-01-01-T00:00:00" && atStart == "1969-12-31-T19:00:00" &&
                        tz != nullptr && std::strcmp(tz, "EST5EDT") == 0,
                    utc + " " + atStart);
      },
      testing::ExitedWithCode(0), "");
  GTEST_FLAG_SET(death_test_style, "fast");
}

}  // namespace
