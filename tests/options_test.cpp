// The settings of a run without options. How each option is scanned and
// what it sets is in run_test, which starts its expectations from these
// defaults and so cannot see a changed default.
#include "porter/options.h"

#include <gtest/gtest.h>

#include <string>

namespace porter {
namespace {

// The defaults the usage text promises.
TEST(RunSettingsTest, DefaultsAreTheDocumentedOnes) {
  const RunSettings s;
  EXPECT_EQ(s.format + " " + s.server + " " + std::to_string(s.port) + " " + s.loginDomain + " " +
                s.exportDomain,
            "xml localhost 3241 . .");
  EXPECT_TRUE(s.history);
  EXPECT_FALSE(s.gzip || s.passwordGiven);
}

}  // namespace
}  // namespace porter
