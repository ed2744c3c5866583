#include "support/error_text.h"
#include "porter/background_gz_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>

#include "support/e2e_process.h"
#include "util/error.h"

namespace {

using e2e::read_file;
using e2e::read_gzip_file;
using porter::BackgroundGZOutStream;
constexpr size_t kBlock = BackgroundGZOutStream::kBlockSize;

class BackgroundGZOutStreamTest : public testing::Test {
 protected:
  e2e::TempDir dir_;
  const std::string path_ = dir_.file("out.gz");
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
  BackgroundGZOutStream(path_, 0).write(text).close();
  EXPECT_EQ(read_gzip_file(path_), text);
  EXPECT_GT(read_file(path_).size(), text.size());
  BackgroundGZOutStream(path_, 9).write(text).close();
  EXPECT_EQ(read_gzip_file(path_), text);
  EXPECT_LT(read_file(path_).size(), text.size() / 100);
}

TEST_F(BackgroundGZOutStreamTest, AZeroByteFailsLikeTheSynchronousStream) {
  {
    BackgroundGZOutStream out(path_);
    out.write("before ");
    EXPECT_EQ(peer::errorText<util::EFatal>([&] { out.write(std::string("ab\0cd", 5)); }),
              "Error reading gz-stream: ");
  }
  EXPECT_EQ(read_gzip_file(path_), "before ab");
}

TEST_F(BackgroundGZOutStreamTest, AnUnopenablePathFailsAtOnce) {
  const std::string name = path_ + "/x.gz";
  EXPECT_EQ(peer::errorText<util::EFatal>([&] { BackgroundGZOutStream out(name); }),
            "Couldn't open for writing gz-stream: " + name);
}

TEST(BackgroundGZOutStreamFailureTest, TheCompressorsFailureReachesTheWriterAndStays) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  BackgroundGZOutStream out("/dev/full", 0);
  const std::string failure = peer::errorText<util::EFatal>([&] {
    for (int i = 0; i < 64; ++i) out.write(std::string(kBlock, 'q'));
    out.finish();
  });
  EXPECT_EQ(failure.rfind("Error reading gz-stream: ", 0), 0u) << failure;
  EXPECT_NE(failure.find("No space left on device"), std::string::npos) << failure;
  EXPECT_THROW(out.write("more"), util::EFatal);
  EXPECT_THROW(out.close(), util::EFatal);
  EXPECT_THROW(out.write("after close"), util::EFatal);
}

}  // namespace
