#include "util/time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <vector>

#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

// The whole range of four-digit years against the C library's calendar: leap
// days, centuries, the last second before the year 10000 and the first after.
// Beyond what the calendar holds the conversion fails.
TEST(IsoTimeTest, AsTheCLibraryCountsThem) {
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
    ASSERT_EQ(util::iso_time2str(t), expected) << t;
  }
  EXPECT_EQ(support::errorText<util::ESystemError>([] { util::iso_time2str(INT64_MAX - 255); }),
            "Couldn't get localtime for time -256");
}

TEST(IsoTimeDeathTest, NegativeTimeIsAnAssertion) {
  EXPECT_DEATH(util::iso_time2str(-1),
               "^Assertion failed: iso_time2str\\(\\): Parameter less than 0\n");
}

}  // namespace
