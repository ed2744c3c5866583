// The manual page renders without a single formatter warning, and
// `cmake --install` puts the binary and the manual page where they belong.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "support/process.h"

namespace {

const std::string kManualPage = TALVIX_MANUAL_PAGE;
const std::chrono::milliseconds kLimit{60000};

TEST(ManualPageTest, RendersWithoutWarnings) {
  // groff reports warnings on its error stream but still exits 0.
  if (access("/usr/bin/groff", X_OK) != 0) GTEST_SKIP() << "groff is not installed";
  const support::RunResult run =
      support::run_process("/usr/bin/groff", {"-man", "-Tutf8", "-ww", "-z", kManualPage}, "", kLimit);
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out + run.err, "");
}

TEST(InstallTest, PutsTheBinaryAndTheManualPageBelowThePrefix) {
  support::TempDir prefix;
  const support::RunResult run = support::run_process(
      TALVIX_CMAKE_COMMAND, {"--install", TALVIX_BUILD_DIR, "--prefix", prefix.path()}, "", kLimit);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  struct stat binary{};
  ASSERT_EQ(stat(prefix.file("bin/talvix-exporter").c_str(), &binary), 0) << run.out;
  EXPECT_TRUE(S_ISREG(binary.st_mode) && (binary.st_mode & S_IXUSR) != 0) << "an executable file";
  EXPECT_EQ(support::read_file(prefix.file("share/man/man1/talvix-exporter.1")),
            support::read_file(kManualPage));
  EXPECT_EQ(access(prefix.file("bin/talvix-audit").c_str(), X_OK), 0);
  EXPECT_TRUE(support::read_file(prefix.file("share/man/man1/talvix-audit.1")).starts_with(".TH TALVIX-AUDIT 1"));
}

}  // namespace
