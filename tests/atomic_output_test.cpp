#include "porter/document_output.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "support/run_export.h"
#include "support/server_harness.h"
#include "util/error.h"

namespace {

using export_test::read_file;
using export_test::read_gzip_file;
using porter::DocumentOutput;
using porter::OutputOptions;

const std::vector<std::string> kOnlyTarget = {"out.xml"};

struct Kind {
  const char* name;
  bool gzip;
};

// A fresh folder per test, removed with everything in it at the end.
class AtomicOutputTest : public testing::TestWithParam<Kind> {
 protected:
  AtomicOutputTest() {
    std::string pattern = testing::TempDir() + "atomic_output_test_XXXXXX";
    folder_ = mkdtemp(pattern.data());
  }
  ~AtomicOutputTest() override { std::filesystem::remove_all(folder_); }

  std::string file(const std::string& name) const { return folder_ + "/" + name; }
  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream(file(name), std::ios::binary) << bytes;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      result.push_back(entry.path().filename());
    }
    std::sort(result.begin(), result.end());
    return result;
  }
  std::string content(const std::string& path) const {
    return GetParam().gzip ? read_gzip_file(path) : read_file(path);
  }

  std::string folder_;
  std::ostringstream standardOutput_;
};

TEST_P(AtomicOutputTest, TheTargetChangesOnlyWhenTheDocumentIsClosed) {
  const std::string target = file("out.xml");
  write("out.xml", "old document");
  {
    DocumentOutput output(target, GetParam().gzip, standardOutput_, OutputOptions{true, -1});
    output.stream().write("<new/>\n");
    ASSERT_EQ(names().size(), 2u);
    EXPECT_EQ(names()[1].rfind("out.xml.tmp-", 0), 0u) << names()[1];
    EXPECT_EQ(read_file(target), "old document");
    output.close();
    EXPECT_EQ(names(), kOnlyTarget);
    EXPECT_EQ(content(target), "<new/>\n");
  }
  EXPECT_EQ(content(target), "<new/>\n") << "the closed output leaves the file alone";
  EXPECT_EQ(standardOutput_.str(), "");

  struct stat info{};
  ASSERT_EQ(stat(target.c_str(), &info), 0);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask) << "the file gets the usual permissions";
}

TEST_P(AtomicOutputTest, AnUnclosedOutputLeavesTheOldTargetAndNoTemporaryFile) {
  const std::string target = file("out.xml");
  write("out.xml", "old document");
  {
    DocumentOutput output(target, GetParam().gzip, standardOutput_, OutputOptions{true, 9});
    output.stream().write(std::string(100000, 'x'));
  }
  EXPECT_EQ(names(), kOnlyTarget);
  EXPECT_EQ(read_file(target), "old document");
}

TEST_P(AtomicOutputTest, AFailedRenameIsReportedAndCleanedUp) {
  // A folder in the target's place cannot be replaced by a file.
  const std::string target = file("out.xml");
  ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
  DocumentOutput output(target, GetParam().gzip, standardOutput_, OutputOptions{true, -1});
  output.stream().write("<new/>\n");
  try {
    output.close();
    FAIL() << "the rename over a folder succeeded";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text().rfind("Error renaming " + target + ".tmp-", 0), 0u) << e.text();
    EXPECT_NE(e.text().find(" to " + target + ": "), std::string::npos) << e.text();
  }
  EXPECT_EQ(names(), kOnlyTarget);
  struct stat info{};
  ASSERT_EQ(stat(target.c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

INSTANTIATE_TEST_SUITE_P(Kinds, AtomicOutputTest,
                         testing::Values(Kind{"plain", false}, Kind{"gzip", true}),
                         [](const testing::TestParamInfo<Kind>& info) { return info.param.name; });

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

// Whole exports against a server that drops the connection in the middle of
// the walk and one that does not.
class AtomicExportTest : public AtomicOutputTest {
 protected:
  export_test::ExportOutcome export_to(uint16_t port, bool atomic) {
    export_test::ExportRun run;
    run.port = port;
    run.outputFileName = file("out.xml");
    run.gzip = GetParam().gzip;
    run.extra.atomic = atomic;
    return export_test::run_export(run);
  }
};

TEST_P(AtomicExportTest, OnlyAWholeDocumentReplacesTheTarget) {
  server::ServerOptions options;
  options.faults.closeAtRequest = 8;
  server_test::TestServer failing(export_test::exportable_database(), options);
  const std::string target = file("out.xml");
  const std::string old = std::string("\x1F\x8B old export \0 with a zero\n", 27);
  write("out.xml", old);

  const export_test::ExportOutcome outcome = export_to(failing.port(), true);
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.failure, "Error reading: OsalSocket::read end of stream");
  EXPECT_EQ(read_file(target), old);
  EXPECT_EQ(names(), kOnlyTarget);

  // Without the setting the same failure leaves a partial document.
  EXPECT_FALSE(export_to(failing.port(), false).ok);
  EXPECT_EQ(content(target).rfind("<?xml", 0), 0u);
  EXPECT_EQ(names(), kOnlyTarget);

  server_test::TestServer server(export_test::exportable_database());
  export_test::ExportRun toStandardOutput;
  toStandardOutput.port = server.port();
  const std::string whole = export_test::run_export(toStandardOutput).document;
  ASSERT_TRUE(export_to(server.port(), true).ok);
  EXPECT_EQ(content(target), whole);
  EXPECT_NE(whole.find("</Object>"), std::string::npos);
  EXPECT_EQ(names(), kOnlyTarget);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AtomicExportTest,
                         testing::Values(Kind{"plain", false}, Kind{"gzip", true}),
                         [](const testing::TestParamInfo<Kind>& info) { return info.param.name; });

}  // namespace
