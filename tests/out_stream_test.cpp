#include "porter/out_stream.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "support/e2e_process.h"
#include "util/error.h"

namespace {

using e2e::read_file;
using e2e::read_gzip_file;
using porter::GZOutStream;

class GZOutStreamTest : public testing::Test {
 protected:
  e2e::TempDir dir_;
  const std::string path_ = dir_.file("out.gz");
};

// Expects `action` to fail with exactly `text`.
template <typename Action>
void expect_failure(Action action, const std::string& text) {
  try {
    action();
    ADD_FAILURE() << "no exception";
  } catch (const util::EFatal& e) {
    EXPECT_EQ(e.text(), text);
  }
}

TEST_F(GZOutStreamTest, ChainedWritesReplaceTheFileAndDecompressToTheirConcatenation) {
  std::ofstream(path_) << "old content that is longer than the new one";
  std::string big;
  for (int i = 0; i < 20000; ++i) big += "<Data n=\"" + std::to_string(i) + "\"/>\n";
  {
    GZOutStream out(path_);
    out.write("").write("caf\xC3\xA9\r\n\xFF").write("");
    out.write(big);
  }
  EXPECT_EQ(read_file(path_).substr(0, 2), "\x1F\x8B");  // gzip magic
  EXPECT_LT(read_file(path_).size(), big.size() / 4);
  EXPECT_EQ(read_gzip_file(path_), "caf\xC3\xA9\r\n\xFF" + big);
}

TEST_F(GZOutStreamTest, CloseCompletesTheFileOnceEvenWithNothingWritten) {
  GZOutStream out(path_);
  out.close();
  EXPECT_EQ(read_file(path_).substr(0, 2), "\x1F\x8B");
  EXPECT_EQ(read_gzip_file(path_), "");
  out.close();  // a second close does nothing; nor does the destructor
}

TEST_F(GZOutStreamTest, ATextWithAZeroByteFails) {
  GZOutStream out(path_);
  // zlib has no error of its own to report: it merely stopped at the zero.
  expect_failure([&] { out.write(std::string("ab\0cd", 5)); }, "Error reading gz-stream: ");
}

TEST_F(GZOutStreamTest, TheLevelChangesTheSizeButNotTheText) {
  std::string document;
  for (int i = 0; i < 5000; ++i) {
    document += "<Object id=\"n" + std::to_string(i * 7919 % 10007) + "\">" +
                std::to_string(i * i % 977) + "</Object>\n";
  }
  std::map<int, std::string> files;
  for (int level : {-1, 0, 6, 9}) {
    GZOutStream(path_, level).write(document).close();
    EXPECT_EQ(read_gzip_file(path_), document) << "level " << level;
    files[level] = read_file(path_);
  }
  EXPECT_GT(files[0].size(), document.size()) << "level 0 stores the text uncompressed";
  EXPECT_LT(files[9].size(), files[0].size() / 4);
  EXPECT_EQ(files[-1], files[6]) << "without a level zlib's default (6) is used";
}

// The failures of writes and closes on a full disk are in atomic_output_test.
TEST(GZOutStreamFailureTest, OpeningFailureIsReported) {
  const std::string name = e2e::TempDir().file("x.gz");  // the folder is gone again
  expect_failure([&] { GZOutStream out(name); }, "Couldn't open for writing gz-stream: " + name);
}

}  // namespace
