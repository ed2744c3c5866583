#include "porter/document_output.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "support/e2e_process.h"
#include "support/error_text.h"
#include "support/run_export.h"
#include "support/server_harness.h"
#include "util/error.h"

namespace {

using e2e::read_file;
using porter::DocumentOutput;
using porter::OutputOptions;

const std::vector<std::string> kOnlyTarget = {"out.xml"};

// A fresh folder per test with the target out.xml, plain or compressed.
class AtomicOutputTest : public testing::TestWithParam<bool> {
 protected:
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      result.push_back(entry.path().filename());
    }
    std::sort(result.begin(), result.end());
    return result;
  }
  std::string content() const { return GetParam() ? e2e::read_gzip_file(target_) : read_file(target_); }
  DocumentOutput output(int level = -1) {
    return DocumentOutput(target_, GetParam(), standardOutput_, OutputOptions{true, level});
  }

  e2e::TempDir dir_;
  const std::string target_ = dir_.file("out.xml");
  std::ostringstream standardOutput_;
};

TEST_P(AtomicOutputTest, TheTargetChangesOnlyWhenTheDocumentIsClosed) {
  e2e::write_file(target_, "old document");
  {
    DocumentOutput unclosed = output(9);
    unclosed.stream().write(std::string(100000, 'x'));
  }
  EXPECT_EQ(names(), kOnlyTarget) << "an unclosed output leaves no temporary file";
  EXPECT_EQ(read_file(target_), "old document");
  {
    DocumentOutput closed = output();
    closed.stream().write("<new/>\n");
    ASSERT_EQ(names().size(), 2u);
    EXPECT_EQ(names()[1].rfind("out.xml.tmp-", 0), 0u) << names()[1];
    EXPECT_EQ(read_file(target_), "old document");
    closed.close();
    EXPECT_EQ(names(), kOnlyTarget);
    EXPECT_EQ(content(), "<new/>\n");
  }
  EXPECT_EQ(content(), "<new/>\n") << "the closed output leaves the file alone";
  EXPECT_EQ(standardOutput_.str(), "");

  struct stat info{};
  ASSERT_EQ(stat(target_.c_str(), &info), 0);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask) << "the file gets the usual permissions";
}

TEST_P(AtomicOutputTest, AFailedRenameIsReportedAndCleanedUp) {
  // A folder in the target's place cannot be replaced by a file.
  ASSERT_EQ(mkdir(target_.c_str(), 0700), 0);
  DocumentOutput out = output();
  out.stream().write("<new/>\n");
  try {
    out.close();
    FAIL() << "the rename over a folder succeeded";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text().rfind("Error renaming " + target_ + ".tmp-", 0), 0u) << e.text();
    EXPECT_NE(e.text().find(" to " + target_ + ": "), std::string::npos) << e.text();
  }
  EXPECT_EQ(names(), kOnlyTarget);
  EXPECT_TRUE(std::filesystem::is_directory(target_));
}

// Whole exports against a server that drops the connection in the middle of
// the walk and one that does not.
TEST_P(AtomicOutputTest, OnlyAWholeDocumentReplacesTheTarget) {
  server::ServerOptions options;
  options.faults.closeAtRequest = 8;
  server_test::TestServer failing(export_test::exportable_database(), options);
  server_test::TestServer server(export_test::exportable_database());
  auto export_to = [&](uint16_t port, bool atomic) {
    std::vector<std::string> args = {"-f" + target_, "-o", atomic ? "atomic=1" : "atomic=0"};
    if (GetParam()) args.push_back("-z");
    return export_test::run_exporter(port, args);
  };
  const std::string old = std::string("\x1F\x8B old export \0 with a zero\n", 27);
  e2e::write_file(target_, old);

  EXPECT_EQ(export_to(failing.port(), true).failure, "Error reading: OsalSocket::read end of stream");
  EXPECT_EQ(read_file(target_), old);
  EXPECT_EQ(names(), kOnlyTarget);

  // Without the setting the same failure leaves a partial document.
  EXPECT_EQ(export_to(failing.port(), false).exitCode, 1);
  EXPECT_EQ(content().rfind("<?xml", 0), 0u);
  EXPECT_EQ(names(), kOnlyTarget);

  const std::string whole = export_test::run_exporter(server.port(), {}).document;
  ASSERT_EQ(export_to(server.port(), true).exitCode, 0);
  EXPECT_EQ(content(), whole);
  EXPECT_NE(whole.find("</Object>"), std::string::npos);
  EXPECT_EQ(names(), kOnlyTarget);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AtomicOutputTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "gzip" : "plain";
                         });

// Writes the disk refuses (/dev/full takes no byte) fail, in place, at the
// write that meets them or at the latest at the close.
struct FullDiskCase {
  const char* name;
  bool gzip, background, standardOutput;
  size_t size;    // of the one text written
  bool atWrite;   // the write fails, not only the close
  std::string failure;
};
void PrintTo(const FullDiskCase& c, std::ostream* os) { *os << c.name; }

const std::string kNoSpace = "/dev/full: No space left on device";

class FullDiskTest : public testing::TestWithParam<FullDiskCase> {};

TEST_P(FullDiskTest, FailsWithTheTargetAndTheSystemsText) {
  const FullDiskCase& c = GetParam();
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  std::ofstream full("/dev/full");
  std::ostringstream unused;
  std::ostream& standardOutput = c.standardOutput ? static_cast<std::ostream&>(full) : unused;
  DocumentOutput out(c.standardOutput ? "" : "/dev/full", c.gzip, standardOutput,
                     OutputOptions{false, 0, c.background});
  const std::string text(c.size, 'x');
  if (c.atWrite) {
    EXPECT_EQ(peer::errorText<error::EFatal>([&] { out.stream().write(text); }), c.failure);
  } else {
    out.stream().write(text);
    EXPECT_EQ(peer::errorText<error::EFatal>([&] { out.close(); }), c.failure);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, FullDiskTest,
    testing::Values(
        FullDiskCase{"PlainAtTheFlush", false, false, false, 100, false, "Error writing: " + kNoSpace},
        FullDiskCase{"PlainAtTheWrite", false, false, false, 1 << 20, true, "Error writing: " + kNoSpace},
        FullDiskCase{"StandardOutputAtTheFlush", false, false, true, 100, false,
                     "Error writing: standard output: No space left on device"},
        FullDiskCase{"GzipAtTheClose", true, false, false, 100, false,
                     "Error closing gz-stream: " + kNoSpace},
        FullDiskCase{"GzipAtTheWrite", true, false, false, 1 << 20, true,
                     "Error reading gz-stream: " + kNoSpace},
        FullDiskCase{"BackgroundGzipAtTheClose", true, true, false, 100, false,
                     "Error closing gz-stream: " + kNoSpace}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(AtomicOutputPlainTest, StandardOutputIgnoresTheSettingAndAMissingFolderFailsAtOpening) {
  std::ostringstream standardOutput;
  DocumentOutput toStandardOutput("", false, standardOutput, OutputOptions{true, -1});
  toStandardOutput.stream().write("<doc/>");
  toStandardOutput.close();
  EXPECT_EQ(standardOutput.str(), "<doc/>");

  const std::string target = testing::TempDir() + "no_such_folder_atomic/out.xml";
  try {
    DocumentOutput output(target, false, standardOutput, OutputOptions{true, -1});
    FAIL() << "opened " << target;
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text().rfind("Error opening: " + target + ".tmp-XXXXXX: ", 0), 0u) << e.text();
  }
}

}  // namespace
