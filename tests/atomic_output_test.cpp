#include "porter/document_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

#include "support/process.h"
#include "support/error_text.h"
#include "support/run_export.h"
#include "support/server_harness.h"
#include "util/error.h"

namespace {

using support::read_file;
using porter::DocumentOutput;
using porter::OutputOptions;

const std::vector<std::string> kOnlyTarget = {"out.xml"};

// Every file and folder below `dir`, sorted.
std::vector<std::string> files_in(const support::TempDir& dir) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
    files.push_back(entry.path().lexically_relative(dir.path()));
  }
  std::sort(files.begin(), files.end());
  return files;
}

// The permissions of `path` (its link's target for a link).
mode_t mode_of(const std::string& path) {
  struct stat info{};
  EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

// A fresh folder per test with the target out.xml, plain or compressed.
class AtomicOutputTest : public testing::TestWithParam<bool> {
 protected:
  std::string content() const { return GetParam() ? support::read_gzip_file(target_) : read_file(target_); }
  DocumentOutput output(int level = -1) {
    return DocumentOutput(target_, GetParam(), standardOutput_, OutputOptions{true, level});
  }
  support::TempDir dir_;
  const std::string target_ = dir_.file("out.xml");
  std::ostringstream standardOutput_;
};

TEST_P(AtomicOutputTest, TheTargetChangesOnlyWhenTheDocumentIsClosed) {
  support::write_file(target_, "old document");
  {
    DocumentOutput unclosed = output(9);
    unclosed.stream().write(std::string(100000, 'x'));
  }
  EXPECT_EQ(files_in(dir_), kOnlyTarget) << "an unclosed output leaves no temporary file";
  EXPECT_EQ(read_file(target_), "old document");
  {
    DocumentOutput closed = output();
    closed.stream().write("<new/>\n");
    const std::vector<std::string> names = files_in(dir_);
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(names[1].rfind("out.xml.tmp-", 0), 0u) << names[1];
    EXPECT_EQ(mode_of(dir_.file(names[1])), 0600u) << "the unfinished document is private";
    EXPECT_EQ(read_file(target_), "old document");
    closed.close();
    EXPECT_EQ(files_in(dir_), kOnlyTarget);
    EXPECT_EQ(content(), "<new/>\n");
  }
  EXPECT_EQ(content(), "<new/>\n") << "the closed output leaves the file alone";
  EXPECT_EQ(standardOutput_.str(), "");
}

TEST_P(AtomicOutputTest, AFailedRenameIsReportedAndCleanedUp) {
  DocumentOutput out = output();
  out.stream().write("<new/>\n");
  // A folder that took the target's place meanwhile cannot be replaced by a file.
  ASSERT_EQ(mkdir(target_.c_str(), 0700), 0);
  const std::string failure = support::errorText<util::EFatal>([&] { out.close(); });
  EXPECT_EQ(failure.rfind("Error renaming " + target_ + ".tmp-", 0), 0u) << failure;
  EXPECT_NE(failure.find(" to " + target_ + ": "), std::string::npos) << failure;
  EXPECT_EQ(files_in(dir_), kOnlyTarget);
  EXPECT_TRUE(std::filesystem::is_directory(target_));
}

// A FIFO (another program reading the export) is not replaced by a file: the
// document goes through it to the reader. The reading end is open (so the
// export's open does not wait) and holds the whole document; once the export
// closed its end, reading it ends at the document's end.
TEST_P(AtomicOutputTest, AFifoIsWrittenInPlace) {
  support::TestServer server(support::exportable_database());
  ASSERT_EQ(mkfifo(target_.c_str(), 0600), 0);
  const int fifo = open(target_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(fcntl(fifo, F_SETPIPE_SZ, 1 << 20), 0);
  std::vector<std::string> args = {"-f" + target_, "-o", "atomic=1"};
  if (GetParam()) args.push_back("-z");
  EXPECT_EQ(support::run_exporter(server.port(), args).exitCode, 0);
  std::string received(1 << 20, '\0');
  received.resize(std::max<ssize_t>(read(fifo, received.data(), received.size()), 0));
  close(fifo);
  EXPECT_EQ(files_in(dir_), kOnlyTarget);
  EXPECT_TRUE(std::filesystem::is_fifo(target_)) << "the FIFO was replaced";
  if (GetParam()) {
    support::write_file(dir_.file("received.gz"), received);
    received = support::read_gzip_file(dir_.file("received.gz"));
  }
  EXPECT_EQ(received, support::run_exporter(server.port(), {}).document);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AtomicOutputTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "gzip" : "plain";
                         });

// What the target is before a plain atomic output replaces it (the compressed
// output differs in its stream alone), and the folder afterwards.
TEST(AtomicTargetTest, ReplacesTheFileTheTargetLeadsToWithItsPermissions) {
  const mode_t mask = umask(0);
  umask(mask);
  const struct {
    const char* name;
    std::function<void(const support::TempDir&)> prepare;  // makes out.xml, if anything
    std::string replaced;            // the file that gets the document
    mode_t mode;                     // its permissions afterwards
    std::string link;                // out.xml afterwards a symbolic link to this; "" none
    std::vector<std::string> files;  // the folder afterwards
  } cases[] = {
      {"new file", nullptr, "out.xml", 0666 & ~mask, "", {"out.xml"}},
      // Not the temporary file's own 0600.
      {"link to a file elsewhere",
       [](const support::TempDir& dir) {
         ASSERT_EQ(mkdir(dir.file("keep").c_str(), 0700), 0);
         support::write_file(dir.file("keep/backup.xml"), "old document");
         ASSERT_EQ(chmod(dir.file("keep/backup.xml").c_str(), 0640), 0);
         ASSERT_EQ(symlink("keep/backup.xml", dir.file("out.xml").c_str()), 0);
       },
       "keep/backup.xml", 0640, "keep/backup.xml", {"keep", "keep/backup.xml", "out.xml"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    support::TempDir dir;
    if (c.prepare) c.prepare(dir);
    std::ostringstream standardOutput;
    DocumentOutput out(dir.file("out.xml"), false, standardOutput, OutputOptions{true, -1});
    out.stream().write("<new/>\n");
    out.close();
    EXPECT_EQ(read_file(dir.file(c.replaced)), "<new/>\n");
    EXPECT_EQ(mode_of(dir.file(c.replaced)), c.mode);
    const std::filesystem::path target = dir.file("out.xml");
    EXPECT_EQ(std::filesystem::is_symlink(target) ? std::filesystem::read_symlink(target).string() : "", c.link);
    EXPECT_EQ(files_in(dir), c.files);
  }
}

// Writes the disk refuses (/dev/full takes no byte) fail, in place, at the
// write that meets them or at the latest at the close (standard output at
// its flush); a failed compressed write is in out_stream_test.
TEST(FullDiskTest, FailsWithTheTargetAndTheSystemsText) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  const std::string noSpace = ": /dev/full: No space left on device";
  std::ostringstream unused;
  DocumentOutput plain("/dev/full", false, unused, OutputOptions{false, 0});
  EXPECT_EQ(support::errorText<util::EFatal>([&] { plain.stream().write(std::string(1 << 20, 'x')); }),
            "Error writing" + noSpace);
  DocumentOutput gzip("/dev/full", true, unused, OutputOptions{false, 0});
  gzip.stream().write("x");
  EXPECT_EQ(support::errorText<util::EFatal>([&] { gzip.close(); }), "Error closing gz-stream" + noSpace);
  std::ofstream full("/dev/full");
  DocumentOutput standardOutput("", false, full, OutputOptions{false, 0});
  standardOutput.stream().write("x");
  EXPECT_EQ(support::errorText<util::EFatal>([&] { standardOutput.close(); }),
            "Error writing: standard output: No space left on device");
}

// checksum=1 writes out.xml.sha256 beside a finished document, in place or
// atomic, plain or compressed, which sha256sum -c accepts and the document
// then fails once changed; a failed export leaves the earlier one alone, and
// no file at all is no checksum.
TEST(ChecksumTest, TheSidecarDescribesTheFinishedFileOnly) {
  support::TestServer server(support::exportable_database());
  support::TestServer failing(
      support::with_fault(support::exportable_database(), "c1.1.1", support::ObjectFault::kOldHistory));
  const struct {
    std::vector<std::string> args;
    uint16_t port;
    int exitCode;
  } cases[] = {
      {{"-o", "checksum=1"}, server.port(), 0},
      {{"-z", "-o", "atomic=1,checksum=1"}, server.port(), 0},
      {{"-z", "-o", "checksum=1"}, server.port(), 0},
      {{"-o", "atomic=1,checksum=1"}, failing.port(), 1},
      {{"-o", "checksum=1"}, failing.port(), 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[c.args.size() - 1] + (c.exitCode ? " failing" : ""));
    support::TempDir dir;
    support::write_file(dir.file("out.xml.sha256"), "earlier\n");
    std::vector<std::string> args = c.args;
    args.push_back("-f" + dir.file("out.xml"));
    EXPECT_EQ(support::run_exporter(c.port, args).exitCode, c.exitCode);
    const std::string sidecar = read_file(dir.file("out.xml.sha256"));
    const auto check = [&] { return support::run_process("/usr/bin/sha256sum", {"-c", "out.xml.sha256"}, dir.path(), std::chrono::seconds(20)); };
    EXPECT_EQ(files_in(dir).back(), "out.xml.sha256") << "no temporary file is left";
    if (c.exitCode != 0) {
      EXPECT_EQ(sidecar, "earlier\n");
      continue;
    }
    EXPECT_EQ(files_in(dir), std::vector<std::string>({"out.xml", "out.xml.sha256"}));
    EXPECT_EQ(sidecar.size(), 64 + 2 + 8u) << sidecar;
    EXPECT_EQ(check().out, "out.xml: OK\n");
    support::write_file(dir.file("out.xml"), read_file(dir.file("out.xml")) + " ");
    EXPECT_EQ(check().exitCode, 1);
  }
  const support::Outcome noFile = support::run_exporter(server.port(), {"-o", "checksum=1"});
  EXPECT_EQ(noFile.exitCode, 1);
  EXPECT_EQ(noFile.errors, "Error: when using -o checksum=1 you must also use the -f flag.\n");
}

TEST(AtomicOutputPlainTest, StandardOutputIgnoresTheSettingAndAMissingFolderFailsAtOpening) {
  std::ostringstream standardOutput;
  DocumentOutput toStandardOutput("", false, standardOutput, OutputOptions{true, -1});
  toStandardOutput.stream().write("<doc/>");
  toStandardOutput.close();
  EXPECT_EQ(standardOutput.str(), "<doc/>");

  const std::string target = testing::TempDir() + "no_such_folder_atomic/out.xml";
  const std::string failure = support::errorText<util::EFatal>(
      [&] { DocumentOutput output(target, false, standardOutput, OutputOptions{true, -1}); });
  EXPECT_EQ(failure.rfind("Error opening: " + target + ".tmp-XXXXXX: ", 0), 0u) << failure;
}

}  // namespace
