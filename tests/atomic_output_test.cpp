#include "porter/document_output.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

// A fresh folder per test, removed with everything in it at the end.
class OutputFolder {
 public:
  OutputFolder() {
    std::string pattern = testing::TempDir() + "atomic_output_test_XXXXXX";
    path_ = mkdtemp(pattern.data());
  }
  ~OutputFolder() {
    for (const std::string& name : names()) {
      const std::string path = path_ + "/" + name;
      if (unlink(path.c_str()) != 0) rmdir(path.c_str());
    }
    rmdir(path_.c_str());
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    if (DIR* dir = opendir(path_.c_str())) {
      while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") result.push_back(name);
      }
      closedir(dir);
    }
    std::sort(result.begin(), result.end());
    return result;
  }
  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream(file(name), std::ios::binary) << bytes;
  }

 private:
  std::string path_;
};

const std::vector<std::string> kOnlyTarget = {"out.xml"};

struct Kind {
  const char* name;
  bool gzip;
};

class AtomicOutputTest : public testing::TestWithParam<Kind> {
 protected:
  std::string content(const std::string& path) const {
    return GetParam().gzip ? read_gzip_file(path) : read_file(path);
  }
  OutputFolder folder_;
  std::ostringstream standardOutput_;
};

TEST_P(AtomicOutputTest, TheTargetChangesOnlyWhenTheDocumentIsClosed) {
  const std::string target = folder_.file("out.xml");
  folder_.write("out.xml", "old document");
  {
    DocumentOutput output(target, GetParam().gzip, standardOutput_, OutputOptions{true, -1});
    output.stream().write("<new/>\n");
    ASSERT_EQ(folder_.names().size(), 2u);
    EXPECT_EQ(folder_.names()[1].rfind("out.xml.tmp-", 0), 0u) << folder_.names()[1];
    EXPECT_EQ(read_file(target), "old document");
    output.close();
    EXPECT_EQ(folder_.names(), kOnlyTarget);
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
  const std::string target = folder_.file("out.xml");
  folder_.write("out.xml", "old document");
  {
    DocumentOutput output(target, GetParam().gzip, standardOutput_, OutputOptions{true, 9});
    output.stream().write(std::string(100000, 'x'));
  }
  EXPECT_EQ(folder_.names(), kOnlyTarget);
  EXPECT_EQ(read_file(target), "old document");
}

TEST_P(AtomicOutputTest, AFailedRenameIsReportedAndCleanedUp) {
  // A folder in the target's place cannot be replaced by a file.
  const std::string target = folder_.file("out.xml");
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
  EXPECT_EQ(folder_.names(), kOnlyTarget);
  struct stat info{};
  ASSERT_EQ(stat(target.c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

TEST_P(AtomicOutputTest, WithoutTheSettingTheTargetIsWrittenInPlace) {
  // The documented behaviour: what was written stays when the export stops.
  const std::string target = folder_.file("out.xml");
  folder_.write("out.xml", "old document");
  {
    DocumentOutput output(target, GetParam().gzip, standardOutput_, OutputOptions{false, -1});
    output.stream().write("<partial>");
    EXPECT_EQ(folder_.names(), kOnlyTarget);
  }
  EXPECT_EQ(content(target), "<partial>");
}

INSTANTIATE_TEST_SUITE_P(Kinds, AtomicOutputTest,
                         testing::Values(Kind{"plain", false}, Kind{"gzip", true}),
                         [](const testing::TestParamInfo<Kind>& info) { return info.param.name; });

TEST(AtomicOutputStandardOutputTest, WithoutAFileTheSettingHasNoEffect) {
  std::ostringstream standardOutput;
  DocumentOutput output("", false, standardOutput, OutputOptions{true, -1});
  output.stream().write("<doc/>");
  output.close();
  EXPECT_EQ(standardOutput.str(), "<doc/>");
}

TEST(AtomicOutputOpenTest, AFolderThatCannotTakeTheTemporaryFileFailsAtOpening) {
  std::ostringstream standardOutput;
  const std::string target = testing::TempDir() + "no_such_folder_atomic/out.xml";
  try {
    DocumentOutput output(target, false, standardOutput, OutputOptions{true, -1});
    FAIL() << "opened " << target;
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text().rfind("Error opening: " + target + ".tmp-XXXXXX: ", 0), 0u) << e.text();
  }
}

// Whole exports: a server that drops the connection in the middle of the walk.
class AtomicExportTest : public testing::TestWithParam<Kind> {
 protected:
  export_test::ExportOutcome export_to(const std::string& target, uint16_t port, bool atomic) {
    export_test::ExportRun run;
    run.port = port;
    run.outputFileName = target;
    run.gzip = GetParam().gzip;
    run.extra.atomic = atomic;
    return export_test::run_export(run);
  }
  std::string content(const std::string& path) const {
    return GetParam().gzip ? read_gzip_file(path) : read_file(path);
  }
  OutputFolder folder_;
};

TEST_P(AtomicExportTest, AFailedExportLeavesTheOldTargetByteForByte) {
  server::ServerOptions options;
  options.faults.closeAtRequest = 8;
  server_test::TestServer server(export_test::exportable_database(), options);
  const std::string target = folder_.file("out.xml");
  const std::string old = std::string("\x1F\x8B old export \0 with a zero\n", 27);
  folder_.write("out.xml", old);

  const export_test::ExportOutcome outcome = export_to(target, server.port(), true);
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.failure, "Error reading: OsalSocket::read end of stream");
  EXPECT_EQ(read_file(target), old);
  EXPECT_EQ(folder_.names(), kOnlyTarget);

  // Without the setting the same failure leaves a partial document.
  const export_test::ExportOutcome inPlace = export_to(target, server.port(), false);
  EXPECT_FALSE(inPlace.ok);
  EXPECT_EQ(content(target).rfind("<?xml", 0), 0u);
  EXPECT_EQ(folder_.names(), kOnlyTarget);
}

TEST_P(AtomicExportTest, ASuccessfulExportReplacesTheTargetWithTheWholeDocument) {
  server_test::TestServer server(export_test::exportable_database());
  const std::string target = folder_.file("out.xml");
  const std::string reference = folder_.file("reference.xml");

  ASSERT_TRUE(export_to(reference, server.port(), false).ok);
  folder_.write("out.xml", "old");
  const export_test::ExportOutcome outcome = export_to(target, server.port(), true);
  ASSERT_TRUE(outcome.ok) << outcome.failure;
  EXPECT_EQ(content(target), content(reference));
  EXPECT_NE(content(target).find("</Object>"), std::string::npos);
  EXPECT_EQ(folder_.names(), (std::vector<std::string>{"out.xml", "reference.xml"}));
}

INSTANTIATE_TEST_SUITE_P(Kinds, AtomicExportTest,
                         testing::Values(Kind{"plain", false}, Kind{"gzip", true}),
                         [](const testing::TestParamInfo<Kind>& info) { return info.param.name; });

}  // namespace
