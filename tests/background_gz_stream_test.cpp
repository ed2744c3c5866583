#include "porter/background_gz_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>

#include "porter/out_stream.h"
#include "support/run_export.h"
#include "util/error.h"

namespace {

using porter::BackgroundGZOutStream;
using porter::GZOutStream;

class BackgroundGZOutStreamTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string base = testing::TempDir() + "background_gz_stream_test_" +
                             std::to_string(getpid()) + "_" +
                             testing::UnitTest::GetInstance()->current_test_info()->name();
    path_ = base + ".gz";
    reference_ = base + ".reference.gz";
  }
  void TearDown() override {
    unlink(path_.c_str());
    unlink(reference_.c_str());
  }

  // Texts of many sizes, together several blocks and more than the queue.
  static std::vector<std::string> pieces() {
    std::vector<std::string> result;
    std::mt19937 random(7);
    size_t total = 0;
    while (total < 5 * BackgroundGZOutStream::kBlockSize * BackgroundGZOutStream::kBlocksQueued) {
      std::string piece = "<Data n=\"" + std::to_string(random()) + "\"/>\n";
      if (random() % 97 == 0) piece.assign(BackgroundGZOutStream::kBlockSize + 3, 'x');
      if (random() % 89 == 0) piece.clear();
      total += piece.size();
      result.push_back(piece);
    }
    return result;
  }

  std::string path_, reference_;
};

TEST_F(BackgroundGZOutStreamTest, HoldsTheTextTheSynchronousStreamHolds) {
  std::string expected;
  {
    BackgroundGZOutStream out(path_);
    GZOutStream reference(reference_);
    for (const std::string& piece : pieces()) {
      out.write(piece);
      reference.write(piece);
      expected += piece;
    }
    out.close();
    out.close();  // closing again does nothing
    reference.close();
  }
  EXPECT_EQ(export_test::read_gzip_file(path_), expected);
  EXPECT_EQ(export_test::read_gzip_file(reference_), expected);
}

TEST_F(BackgroundGZOutStreamTest, TheDestructorCompletesTheFileAsFarAsItWasWritten) {
  {
    BackgroundGZOutStream out(path_, 1);
    out.write("<doc>").write(std::string(3 * BackgroundGZOutStream::kBlockSize, 'y'));
    out.write("</doc>");
  }
  EXPECT_EQ(export_test::read_gzip_file(path_),
            "<doc>" + std::string(3 * BackgroundGZOutStream::kBlockSize, 'y') + "</doc>");
}

TEST_F(BackgroundGZOutStreamTest, TheLevelReachesZlib) {
  const std::string text(BackgroundGZOutStream::kBlockSize * 2, 'z');
  for (int level : {0, 9}) {
    BackgroundGZOutStream out(level == 0 ? path_ : reference_, level);
    out.write(text);
    out.close();
  }
  EXPECT_GT(export_test::read_file(path_).size(), text.size());
  EXPECT_LT(export_test::read_file(reference_).size(), text.size() / 100);
  EXPECT_EQ(export_test::read_gzip_file(path_), text);
  EXPECT_EQ(export_test::read_gzip_file(reference_), text);
}

TEST_F(BackgroundGZOutStreamTest, AZeroByteFailsLikeTheSynchronousStream) {
  for (const std::string& path : {path_, reference_}) {
    std::unique_ptr<porter::OutStream> out;
    if (path == path_) {
      out = std::make_unique<BackgroundGZOutStream>(path);
    } else {
      out = std::make_unique<GZOutStream>(path);
    }
    out->write("before ");
    try {
      out->write(std::string("ab\0cd", 5));
      ADD_FAILURE() << "no exception for " << path;
    } catch (const error::EFatal& e) {
      EXPECT_EQ(e.text(), "Error reading gz-stream: ");
    }
  }
  EXPECT_EQ(export_test::read_gzip_file(path_), "before ab");
  EXPECT_EQ(export_test::read_gzip_file(reference_), "before ab");
}

TEST(BackgroundGZOutStreamFailureTest, TheCompressorsFailureReachesTheWriter) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  BackgroundGZOutStream out("/dev/full", 0);
  const std::string block(BackgroundGZOutStream::kBlockSize, 'q');
  std::string failure;
  try {
    for (int i = 0; i < 64; ++i) out.write(block);
    out.finish();
  } catch (const error::EFatal& e) {
    failure = e.text();
  }
  EXPECT_EQ(failure.rfind("Error reading gz-stream: ", 0), 0u) << failure;
  EXPECT_NE(failure.find("No space left on device"), std::string::npos) << failure;
  EXPECT_THROW(out.write("more"), error::EFatal) << "the failure stays";
  EXPECT_THROW(out.close(), error::EFatal);
  EXPECT_THROW(out.write("after close"), error::EFatal);
}

TEST(BackgroundGZOutStreamOpenTest, AnUnopenablePathFailsAtOnce) {
  const std::string name = testing::TempDir() + "no-such-directory-for-background-gz/x.gz";
  try {
    BackgroundGZOutStream out(name);
    ADD_FAILURE() << "no exception";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text(), "Couldn't open for writing gz-stream: " + name);
  }
}

}  // namespace
