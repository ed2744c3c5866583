#include "porter/document_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

#include "support/e2e_process.h"
#include "support/error_text.h"
#include "support/run_export.h"
#include "support/server_harness.h"
#include "util/error.h"

namespace {

using support::read_file;
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
  std::string content() const { return GetParam() ? support::read_gzip_file(target_) : read_file(target_); }
  DocumentOutput output(int level = -1) {
    return DocumentOutput(target_, GetParam(), standardOutput_, OutputOptions{true, level});
  }

  support::TempDir dir_;
  const std::string target_ = dir_.file("out.xml");
  std::ostringstream standardOutput_;
};

// The permissions of `path` (its link's target for a link).
mode_t mode_of(const std::string& path) {
  struct stat info{};
  EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

// The permissions a plain export gives a new file.
mode_t new_file_mode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

TEST_P(AtomicOutputTest, TheTargetChangesOnlyWhenTheDocumentIsClosed) {
  support::write_file(target_, "old document");
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
    EXPECT_EQ(mode_of(dir_.file(names()[1])), 0600u) << "the unfinished document is private";
    EXPECT_EQ(read_file(target_), "old document");
    closed.close();
    EXPECT_EQ(names(), kOnlyTarget);
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
  try {
    out.close();
    FAIL() << "the rename over a folder succeeded";
  } catch (const util::EFatal& e) {
    EXPECT_EQ(e.text().rfind("Error renaming " + target_ + ".tmp-", 0), 0u) << e.text();
    EXPECT_NE(e.text().find(" to " + target_ + ": "), std::string::npos) << e.text();
  }
  EXPECT_EQ(names(), kOnlyTarget);
  EXPECT_TRUE(std::filesystem::is_directory(target_));
}

// Whole exports against a server that drops the connection in the middle of
// the walk (then refuses every further one) and one that does not.
TEST_P(AtomicOutputTest, OnlyAWholeDocumentReplacesTheTarget) {
  server::ServerOptions options;
  options.faults.closeAtRequest = 8;
  support::TestServer failing(support::exportable_database(), options);
  support::TestServer server(support::exportable_database());
  auto export_to = [&](uint16_t port, bool atomic, const char* more = "") {
    std::vector<std::string> args = {"-f" + target_, "-o", atomic ? "atomic=1" : "atomic=0", "-o",
                                     more};
    if (GetParam()) args.push_back("-z");
    return support::run_exporter(port, args);
  };
  const std::string old = std::string("\x1F\x8B old export \0 with a zero\n", 27);
  support::write_file(target_, old);

  EXPECT_EQ(export_to(failing.port(), true).failure, "Error reading: OsalSocket::read end of stream");
  EXPECT_EQ(read_file(target_), old);
  EXPECT_EQ(names(), kOnlyTarget);
  options.faults.goneAfterFirst = true;
  support::TestServer gone(support::exportable_database(), options);
  EXPECT_EQ(export_to(gone.port(), true, "reconnect=3,reconnect-wait=0").failure,
            "Error reading: OsalSocket::read end of stream");
  EXPECT_EQ(read_file(target_), old);
  EXPECT_EQ(names(), kOnlyTarget);

  // Without the setting the same failure leaves a partial document.
  EXPECT_EQ(export_to(failing.port(), false).exitCode, 1);
  EXPECT_EQ(content().rfind("<?xml", 0), 0u);
  EXPECT_EQ(names(), kOnlyTarget);

  const std::string whole = support::run_exporter(server.port(), {}).document;
  ASSERT_EQ(export_to(server.port(), true).exitCode, 0);
  EXPECT_EQ(content(), whole);
  EXPECT_NE(whole.find("</Object>"), std::string::npos);
  EXPECT_EQ(names(), kOnlyTarget);
}

// A FIFO (another program reading the export) is not replaced by a file: the
// document goes through it to the reader.
TEST_P(AtomicOutputTest, AFifoIsWrittenInPlace) {
  support::TestServer server(support::exportable_database());
  const std::string whole = support::run_exporter(server.port(), {}).document;
  ASSERT_EQ(mkfifo(target_.c_str(), 0600), 0);
  // Opened before the export, so that its open for writing does not wait.
  const int fifo = open(target_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(fifo, 0);
  std::atomic<bool> exported{false};
  std::string received;
  std::thread reader([&] {
    char buffer[65536];
    for (;;) {
      const bool last = exported;  // everything was written before the flag was set
      ssize_t n;
      while ((n = read(fifo, buffer, sizeof buffer)) > 0) received.append(buffer, size_t(n));
      if (last) return;
      pollfd ready{fifo, POLLIN, 0};
      poll(&ready, 1, 50);
    }
  });
  std::vector<std::string> args = {"-f" + target_, "-o", "atomic=1"};
  if (GetParam()) args.push_back("-z");
  const int exitCode = support::run_exporter(server.port(), args).exitCode;
  exported = true;
  reader.join();
  close(fifo);

  EXPECT_EQ(exitCode, 0);
  struct stat info{};
  ASSERT_EQ(lstat(target_.c_str(), &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode)) << "the FIFO was replaced";
  EXPECT_EQ(names(), kOnlyTarget);
  if (GetParam()) {
    support::write_file(dir_.file("received.gz"), received);
    received = support::read_gzip_file(dir_.file("received.gz"));
  }
  EXPECT_EQ(received, whole);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AtomicOutputTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "gzip" : "plain";
                         });

// What the target is before an atomic output replaces it, and what the
// folder holds afterwards (plain: the compressed output differs in its stream
// alone, above).
struct TargetCase {
  const char* name;
  std::function<void(const support::TempDir&)> prepare;  // makes out.xml, if anything
  std::string replaced;                 // the file that gets the document, in the folder
  mode_t mode;                          // its permissions afterwards; 0: those of a new file
  std::string link;                     // out.xml afterwards a symbolic link to this; "" none
  std::vector<std::string> files;       // every file and folder in the folder afterwards
};
void PrintTo(const TargetCase& c, std::ostream* os) { *os << c.name; }

// out.xml with an old document and the permissions `mode`.
std::function<void(const support::TempDir&)> old_file(const std::string& name, mode_t mode) {
  return [=](const support::TempDir& dir) {
    support::write_file(dir.file(name), "old document");
    ASSERT_EQ(chmod(dir.file(name).c_str(), mode), 0);
  };
}

class AtomicTargetTest : public testing::TestWithParam<TargetCase> {};

TEST_P(AtomicTargetTest, ReplacesTheFileTheTargetLeadsToWithItsPermissions) {
  const TargetCase& c = GetParam();
  support::TempDir dir;
  if (c.prepare) c.prepare(dir);
  std::ostringstream standardOutput;
  DocumentOutput out(dir.file("out.xml"), false, standardOutput, OutputOptions{true, -1});
  out.stream().write("<new/>\n");
  out.close();

  const std::string replaced = dir.file(c.replaced);
  EXPECT_EQ(read_file(replaced), "<new/>\n");
  EXPECT_EQ(mode_of(replaced), c.mode != 0 ? c.mode : new_file_mode());
  const std::filesystem::path target = dir.file("out.xml");
  ASSERT_EQ(std::filesystem::is_symlink(target), !c.link.empty());
  if (!c.link.empty()) {
    EXPECT_EQ(std::filesystem::read_symlink(target), c.link);
  }
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
    files.push_back(entry.path().lexically_relative(dir.path()));
  }
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, c.files);
}

INSTANTIATE_TEST_SUITE_P(
    Targets, AtomicTargetTest,
    testing::Values(
        TargetCase{"NewFile", nullptr, "out.xml", 0, "", {"out.xml"}},
        // Not the temporary file's own 0600.
        TargetCase{"GroupReadableFile", old_file("out.xml", 0640), "out.xml", 0640, "", {"out.xml"}},
        TargetCase{"LinkToAFileElsewhere",
                   [](const support::TempDir& dir) {
                     ASSERT_EQ(mkdir(dir.file("keep").c_str(), 0700), 0);
                     old_file("keep/backup.xml", 0640)(dir);
                     ASSERT_EQ(symlink("keep/backup.xml", dir.file("out.xml").c_str()), 0);
                   },
                   "keep/backup.xml", 0640, "keep/backup.xml", {"keep", "keep/backup.xml", "out.xml"}},
        TargetCase{"DanglingLink",
                   [](const support::TempDir& dir) {
                     ASSERT_EQ(symlink("first.xml", dir.file("out.xml").c_str()), 0);
                   },
                   "first.xml", 0, "first.xml", {"first.xml", "out.xml"}}),
    [](const auto& info) { return std::string(info.param.name); });

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
    EXPECT_EQ(support::errorText<util::EFatal>([&] { out.stream().write(text); }), c.failure);
  } else {
    out.stream().write(text);
    EXPECT_EQ(support::errorText<util::EFatal>([&] { out.close(); }), c.failure);
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
  } catch (const util::EFatal& e) {
    EXPECT_EQ(e.text().rfind("Error opening: " + target + ".tmp-XXXXXX: ", 0), 0u) << e.text();
  }
}

}  // namespace
