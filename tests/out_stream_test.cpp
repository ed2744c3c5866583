#include "porter/out_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <fstream>
#include <map>
#include <sstream>

#include "util/error.h"

namespace {

using porter::CPPOutStream;
using porter::GZOutStream;

// A fresh path in the test's temporary directory, removed again at the end.
class GZOutStreamTest : public testing::Test {
 protected:
  void SetUp() override {
    path_ = testing::TempDir() + "out_stream_test_" + std::to_string(getpid()) + "_" +
            testing::UnitTest::GetInstance()->current_test_info()->name() + ".gz";
  }
  void TearDown() override { unlink(path_.c_str()); }

  std::string raw() const {
    std::ifstream in(path_, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  std::string decompressed() const {
    gzFile f = gzopen(path_.c_str(), "rb");
    if (f == nullptr) {
      ADD_FAILURE() << "cannot reopen " << path_;
      return "";
    }
    std::string text;
    char buffer[4096];
    int n;
    while ((n = gzread(f, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
    EXPECT_EQ(n, 0) << "gzread failed";
    gzclose(f);
    return text;
  }

  std::string path_;
};

TEST_F(GZOutStreamTest, ChainedWritesDecompressToTheirConcatenation) {
  std::string big;
  for (int i = 0; i < 20000; ++i) big += "<Data n=\"" + std::to_string(i) + "\"/>\n";
  {
    GZOutStream out(path_);
    out.write("<?xml version=\"1.0\"?>\n").write("caf\xC3\xA9\r\n\xFF");
    out.write(big);
  }
  const std::string compressed = raw();
  ASSERT_GE(compressed.size(), 2u);
  EXPECT_EQ(compressed.substr(0, 2), "\x1F\x8B");  // gzip magic
  EXPECT_LT(compressed.size(), big.size() / 4);
  EXPECT_EQ(decompressed(), "<?xml version=\"1.0\"?>\ncaf\xC3\xA9\r\n\xFF" + big);
}

TEST_F(GZOutStreamTest, EmptyTextIsWrittenWithoutError) {
  {
    GZOutStream out(path_);
    out.write("");
    out.write("x").write("");
  }
  EXPECT_EQ(decompressed(), "x");
}

TEST_F(GZOutStreamTest, NothingWrittenStillGivesACompleteFile) {
  { GZOutStream out(path_); }
  EXPECT_EQ(raw().substr(0, 2), "\x1F\x8B");
  EXPECT_EQ(decompressed(), "");
}

TEST_F(GZOutStreamTest, AnExistingFileIsReplaced) {
  std::ofstream(path_) << "old content that is longer than the new one";
  {
    GZOutStream out(path_);
    out.write("new");
  }
  EXPECT_EQ(decompressed(), "new");
}

TEST_F(GZOutStreamTest, ATextWithAZeroByteFails) {
  GZOutStream out(path_);
  try {
    out.write(std::string("ab\0cd", 5));
    ADD_FAILURE() << "no exception";
  } catch (const error::EFatal& e) {
    // zlib has no error of its own to report: it merely stopped at the zero.
    EXPECT_EQ(e.text(), "Error reading gz-stream: ");
  }
}

// A document-like text: many similar lines with varying numbers.
std::string sample_document() {
  std::string text = "<?xml version=\"1.0\"?>\n";
  for (int i = 0; i < 5000; ++i) {
    text += "  <Object type=\"Node\" id=\"n" + std::to_string(i * 7919 % 10007) +
            "\">\n    <Property name=\"load\" type=\"Unsigned\">" + std::to_string(i * i % 977) +
            "</Property>\n  </Object>\n";
  }
  return text;
}

TEST_F(GZOutStreamTest, TheLevelChangesTheSizeButNotTheText) {
  const std::string document = sample_document();
  std::map<int, std::string> files;
  for (int level : {-1, 0, 6, 9}) {
    {
      GZOutStream out(path_, level);
      out.write(document);
    }
    EXPECT_EQ(decompressed(), document) << "level " << level;
    files[level] = raw();
  }
  EXPECT_GT(files[0].size(), document.size()) << "level 0 stores the text uncompressed";
  EXPECT_LT(files[9].size(), files[0].size() / 4);
  EXPECT_LE(files[9].size(), files[6].size());
  EXPECT_EQ(files[-1], files[6]) << "without a level zlib's default (6) is used";
}

TEST_F(GZOutStreamTest, CloseCompletesTheFileOnce) {
  GZOutStream out(path_);
  out.write("<doc/>");
  out.close();
  EXPECT_EQ(decompressed(), "<doc/>") << "complete before the stream is destroyed";
  out.close();  // a second close does nothing; nor does the destructor
}

TEST(GZOutStreamCloseTest, AFailureToCompleteTheFileIsReported) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  GZOutStream out("/dev/full");
  out.write("a text that stays in zlib's buffer until the close");
  try {
    out.close();
    ADD_FAILURE() << "no exception";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text(), "Error closing gz-stream: /dev/full: No space left on device");
  }
}

TEST(GZOutStreamOpenTest, AnUnopenablePathFails) {
  const std::string name = testing::TempDir() + "no-such-directory-for-out-stream/x.gz";
  try {
    GZOutStream out(name);
    ADD_FAILURE() << "no exception";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text(), "Couldn't open for writing gz-stream: " + name);
  }
}

TEST(CPPOutStreamTest, ForwardsEveryByteToTheStream) {
  std::ostringstream sink;
  {
    CPPOutStream out(sink);
    out.write("a\n").write(std::string("b\0c", 3)).write("");
  }
  // The stream is not owned: it is still usable after the CPPOutStream is gone.
  sink << "!";
  EXPECT_EQ(sink.str(), std::string("a\nb\0c!", 6));
}

}  // namespace
