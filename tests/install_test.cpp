// The manual page renders without a single formatter warning, and
// `cmake --install` puts the binary and the manual page where they belong.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/e2e_process.h"

namespace {

const std::string kManualPage = TALVIX_MANUAL_PAGE;
const std::string kBuildDir = TALVIX_BUILD_DIR;
const std::string kCMake = TALVIX_CMAKE_COMMAND;
const std::chrono::milliseconds kLimit{60000};

// The full path of `program` found on PATH, "" when it is not there.
std::string find_on_path(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    const std::string candidate = dir + "/" + program;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

TEST(ManualPageTest, RendersWithoutWarnings) {
  // groff reports warnings on its error stream but still exits 0; mandoc's
  // lint mode reports them on standard output. Either way: no text at all.
  std::string formatter = find_on_path("groff");
  std::vector<std::string> args = {"-man", "-Tutf8", "-ww", "-z", kManualPage};
  if (formatter.empty()) {
    formatter = find_on_path("mandoc");
    args = {"-T", "lint", "-W", "warning", kManualPage};
  }
  if (formatter.empty()) GTEST_SKIP() << "neither groff nor mandoc is installed";
  const support::RunResult run = support::run_process(formatter, args, "", kLimit);
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");
}

bool is_regular(const std::string& path, mode_t* mode = nullptr) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  if (mode != nullptr) *mode = st.st_mode;
  return true;
}

TEST(InstallTest, PutsTheBinaryAndTheManualPageBelowThePrefix) {
  support::TempDir prefix;
  const support::RunResult run =
      support::run_process(kCMake, {"--install", kBuildDir, "--prefix", prefix.path()}, "", kLimit);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;

  mode_t mode = 0;
  ASSERT_TRUE(is_regular(prefix.file("bin/talvix-exporter"), &mode)) << run.out;
  EXPECT_NE(mode & S_IXUSR, 0u) << "the binary is executable";
  ASSERT_TRUE(is_regular(prefix.file("share/man/man1/talvix-exporter.1"))) << run.out;
  EXPECT_EQ(support::read_file(prefix.file("share/man/man1/talvix-exporter.1")),
            support::read_file(kManualPage));
}

}  // namespace
