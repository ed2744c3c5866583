#include "util/time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/error.h"

namespace {

struct ZoneCase {
  int32_t offset;
  const char* text;
};
void PrintTo(const ZoneCase& c, std::ostream* os) { *os << "offset " << c.offset; }

class TimeZoneTextTest : public testing::TestWithParam<ZoneCase> {};

TEST_P(TimeZoneTextTest, PosixFormWithInvertedSign) {
  TimeZone zone(GetParam().offset);
  EXPECT_EQ(time_zone_text(zone), GetParam().text);
  apply_time_zone(zone);
  const char* tz = std::getenv("TZ");
  ASSERT_NE(tz, nullptr);
  EXPECT_STREQ(tz, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Table, TimeZoneTextTest,
    testing::Values(ZoneCase{0, "GMT-0"}, ZoneCase{-3600, "GMT1"}, ZoneCase{3600, "GMT-1"},
                    ZoneCase{3661, "GMT-1:01:01"}, ZoneCase{1800, "GMT-0:30"},
                    ZoneCase{-19800, "GMT5:30"}, ZoneCase{60, "GMT-0:01"},
                    ZoneCase{59, "GMT-0:59"}, ZoneCase{-1, "GMT0:01"},
                    ZoneCase{3605, "GMT-1:05"}, ZoneCase{86400, "GMT-24"},
                    ZoneCase{90000, "GMT-25"}, ZoneCase{TimeZone::kStartZone - 1, "GMT-4660:20:14"},
                    ZoneCase{-TimeZone::kStartZone, "GMT4660:20:15"},
                    ZoneCase{INT32_MAX, "GMT-596523:14:07"},
                    ZoneCase{INT32_MIN, "GMT596523:14:08"}));

struct IsoCase {
  int64_t time;
  int32_t offset;
  const char* text;
};
void PrintTo(const IsoCase& c, std::ostream* os) {
  *os << "time " << c.time << " offset " << c.offset;
}

class IsoTimeTest : public testing::TestWithParam<IsoCase> {};

TEST_P(IsoTimeTest, Text) {
  EXPECT_EQ(iso_time2str(GetParam().time, TimeZone(GetParam().offset)), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Table, IsoTimeTest,
    testing::Values(IsoCase{0, 0, "1970-01-01-T00:00:00"},
                    IsoCase{86399, 0, "1970-01-01-T23:59:59"},
                    IsoCase{951782400, 0, "2000-02-29-T00:00:00"},
                    IsoCase{1234567890, 0, "2009-02-13-T23:31:30"},
                    IsoCase{253402300799, 0, "9999-12-31-T23:59:59"},
                    IsoCase{253402300800, 0, "10000-01-01-T00:00:00"},
                    IsoCase{0, -19800, "1969-12-31-T18:30:00"},
                    IsoCase{0, 3661, "1970-01-01-T01:01:01"},
                    IsoCase{0, 1800, "1970-01-01-T00:30:00"},
                    IsoCase{0, -3600, "1969-12-31-T23:00:00"},
                    IsoCase{0, 3720, "1970-01-01-T01:02:00"},
                    // Zero minutes are left out of the zone text, so the
                    // seconds that follow the hour are read as minutes.
                    IsoCase{0, 59, "1970-01-01-T00:59:00"},
                    IsoCase{0, -1, "1969-12-31-T23:59:00"},
                    IsoCase{0, 3605, "1970-01-01-T01:05:00"},
                    // Offsets of a day and more are kept exactly.
                    IsoCase{0, 90000, "1970-01-02-T01:00:00"},
                    IsoCase{0, -90000, "1969-12-30-T23:00:00"},
                    IsoCase{0, INT32_MAX, "2038-01-19-T03:14:07"},
                    IsoCase{0, -INT32_MAX, "1901-12-13-T20:45:53"}));

// For zones the C library can express, the broken-down time equals what
// localtime_r gives under the TZ value that was set, including the zone texts
// that read back as another offset.
TEST(LocalTimeTest, AgreesWithTheLibraryForZonesUpToADay) {
  const int32_t offsets[] = {0,      3600,  -3600, 3661, -3661, 1800, -19800,
                             45296,  86400, -86400, 59,   -1,    3605, -7230};
  const int64_t times[] = {0, 1, 86399, 951782400, 1234567890, 4102444800};
  for (int32_t offset : offsets) {
    for (int64_t time : times) {
      struct tm ours = local_time(TimeZone(offset), time);
      time_t t = static_cast<time_t>(time);
      struct tm theirs {};
      ASSERT_NE(localtime_r(&t, &theirs), nullptr);
      std::string where = std::to_string(offset) + " " + std::to_string(time);
      EXPECT_EQ(ours.tm_year, theirs.tm_year) << where;
      EXPECT_EQ(ours.tm_mon, theirs.tm_mon) << where;
      EXPECT_EQ(ours.tm_mday, theirs.tm_mday) << where;
      EXPECT_EQ(ours.tm_hour, theirs.tm_hour) << where;
      EXPECT_EQ(ours.tm_min, theirs.tm_min) << where;
      EXPECT_EQ(ours.tm_sec, theirs.tm_sec) << where;
      EXPECT_EQ(ours.tm_wday, theirs.tm_wday) << where;
      EXPECT_EQ(ours.tm_yday, theirs.tm_yday) << where;
      EXPECT_EQ(ours.tm_isdst, 0) << where;
    }
  }
}

TEST(LocalTimeTest, TimeBeyondTheCalendarFails) {
  struct Case {
    int64_t time;
    int32_t offset;
    const char* text;
  } cases[] = {{INT64_MAX, 0, "Couldn't get localtime for time -1"},
               {INT64_MAX - 10, 3600, "Couldn't get localtime for time -11"},
               {INT64_MAX - 255, 0, "Couldn't get localtime for time -256"},
               {INT64_MAX, TimeZone::kStartZone, "Couldn't get localtime for time -1"}};
  for (const Case& c : cases) {
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

TEST_F(StartZoneTest, UnsetAtStartAssignsAnEmptyZone) {
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
}

TEST_F(StartZoneTest, ZoneOfTheFirstConstructionIsRestored) {
  EXPECT_EXIT(
      {
        setenv("TZ", "EST5EDT", 1);
        TimeZone fixed(0);  // the first construction captures TZ
        setenv("TZ", "JST-9", 1);
        TimeZone start(TimeZone::kStartZone);  // too late to change what was saved
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
