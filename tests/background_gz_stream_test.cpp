#include "porter/background_gz_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>

#include "support/run_export.h"
#include "util/error.h"

namespace {

using export_test::read_file;
using export_test::read_gzip_file;
using porter::BackgroundGZOutStream;
constexpr size_t kBlock = BackgroundGZOutStream::kBlockSize;

class BackgroundGZOutStreamTest : public testing::Test {
 protected:
  void TearDown() override { unlink(path_.c_str()); }
  const std::string path_ = testing::TempDir() + "background_gz_stream_test_" +
                            std::to_string(getpid()) + "_" +
                            testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(BackgroundGZOutStreamTest, HoldsEveryTextInOrder) {
  // Texts of many sizes (empty ones and ones over a block among them),
  // together several blocks and more than the queue holds.
  std::mt19937 random(7);
  std::string expected;
  {
    BackgroundGZOutStream out(path_);
    while (expected.size() < 5 * kBlock * BackgroundGZOutStream::kBlocksQueued) {
      std::string piece = "<Data n=\"" + std::to_string(random()) + "\"/>\n";
      if (random() % 97 == 0) piece.assign(kBlock + 3, 'x');
      if (random() % 89 == 0) piece.clear();
      out.write(piece);
      expected += piece;
    }
    out.close();
    out.close();  // closing again does nothing
  }
  EXPECT_EQ(read_gzip_file(path_), expected);
}

TEST_F(BackgroundGZOutStreamTest, TheDestructorCompletesTheFileAsFarAsItWasWritten) {
  BackgroundGZOutStream(path_, 1).write("<doc>").write(std::string(3 * kBlock, 'y')).write("</d>");
  EXPECT_EQ(read_gzip_file(path_), "<doc>" + std::string(3 * kBlock, 'y') + "</d>");
}

TEST_F(BackgroundGZOutStreamTest, TheLevelReachesZlib) {
  const std::string text(kBlock * 2, 'z');
  for (int level : {0, 9}) {
    BackgroundGZOutStream(path_, level).write(text).close();
    EXPECT_EQ(read_gzip_file(path_), text);
    if (level == 0) {
      EXPECT_GT(read_file(path_).size(), text.size());
    } else {
      EXPECT_LT(read_file(path_).size(), text.size() / 100);
    }
  }
}

TEST_F(BackgroundGZOutStreamTest, AZeroByteFailsLikeTheSynchronousStream) {
  {
    BackgroundGZOutStream out(path_);
    out.write("before ");
    try {
      out.write(std::string("ab\0cd", 5));
      ADD_FAILURE() << "no exception";
    } catch (const error::EFatal& e) {
      EXPECT_EQ(e.text(), "Error reading gz-stream: ");
    }
  }
  EXPECT_EQ(read_gzip_file(path_), "before ab");
}

TEST(BackgroundGZOutStreamFailureTest, AnUnopenablePathFailsAtOnce) {
  const std::string name = testing::TempDir() + "no-such-directory-for-background-gz/x.gz";
  try {
    BackgroundGZOutStream out(name);
    ADD_FAILURE() << "no exception";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text(), "Couldn't open for writing gz-stream: " + name);
  }
}

TEST(BackgroundGZOutStreamFailureTest, TheCompressorsFailureReachesTheWriterAndStays) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  BackgroundGZOutStream out("/dev/full", 0);
  std::string failure;
  try {
    for (int i = 0; i < 64; ++i) out.write(std::string(kBlock, 'q'));
    out.finish();
  } catch (const error::EFatal& e) {
    failure = e.text();
  }
  EXPECT_EQ(failure.rfind("Error reading gz-stream: ", 0), 0u) << failure;
  EXPECT_NE(failure.find("No space left on device"), std::string::npos) << failure;
  EXPECT_THROW(out.write("more"), error::EFatal);
  EXPECT_THROW(out.close(), error::EFatal);
  EXPECT_THROW(out.write("after close"), error::EFatal);
}

}  // namespace
