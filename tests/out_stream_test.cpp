// The compressing streams, gzip and zstd, each compressing in the writer's
// thread or on a thread of its own: the same texts in the file, the same
// failures. zstd files are read back by the zstd program. The failures of
// writes and closes on a full disk are in atomic_output_test and e2e_test.
#include "porter/out_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>

#include "porter/background_gz_stream.h"
#include "porter/zstd_out_stream.h"
#include "support/process.h"
#include "support/error_text.h"
#include "util/error.h"

namespace {

using support::read_file;
using support::read_gzip_file;
using porter::BackgroundGZOutStream;
using porter::GZOutStream;
using porter::Compression;
constexpr size_t kBlock = BackgroundGZOutStream::kBlockSize;

struct BackgroundZstd : BackgroundGZOutStream {
  explicit BackgroundZstd(const std::string& path, int level = -1)
      : BackgroundGZOutStream(path, level, Compression::kZstd) {}
};
template <class Stream>
constexpr bool kZstd = std::is_same_v<Stream, porter::ZstdOutStream> ||
                       std::is_same_v<Stream, BackgroundZstd>;

// The text of a compressed file, or "<not complete: ...>".
template <class Stream>
std::string read_back(const std::string& path) {
  if constexpr (!kZstd<Stream>) return read_gzip_file(path);
  const support::RunResult run =
      support::run_process("/usr/bin/zstd", {"-dcq", path}, "", std::chrono::seconds(60));
  return run.exitCode == 0 ? run.out : "<not complete: " + run.err + ">";
}

template <class Stream>
class GZStreamTest : public testing::Test {
 protected:
  support::TempDir dir_;
  const std::string path_ = dir_.file("out.gz");
};
using Streams =
    testing::Types<GZOutStream, BackgroundGZOutStream, porter::ZstdOutStream, BackgroundZstd>;
TYPED_TEST_SUITE(GZStreamTest, Streams);

TYPED_TEST(GZStreamTest, HoldsEveryTextInOrderAndReplacesTheFile) {
  const std::string& path = this->path_;
  std::ofstream(path) << "old content that is longer than the new one";
  // Texts of many sizes (empty ones and ones over a block among them),
  // together several blocks and more than the background queue holds.
  std::mt19937 random(7);
  std::string expected;
  {
    TypeParam out(path);
    expected = "caf\xC3\xA9\r\n\xFF";
    out.write("").write(expected).write("");
    while (expected.size() < 5 * kBlock * BackgroundGZOutStream::kBlocksQueued) {
      std::string piece = "<Data n=\"" + std::to_string(random()) + "\"/>\n";
      if (random() % 97 == 0) piece.assign(kBlock + 3, 'x');
      if (random() % 89 == 0) piece.clear();
      out.write(piece);
      expected += piece;
    }
    out.close();
    out.close();  // closing again does nothing; nor does the destructor
  }
  EXPECT_LT(read_file(path).size(), expected.size() / 4);
  EXPECT_EQ(read_back<TypeParam>(path), expected);
  TypeParam(path).close();
  EXPECT_EQ(read_back<TypeParam>(path), "") << "a close with nothing written: a complete empty file";

  // The gzip destructor completes the file as far as it was written; zstd
  // leaves the frame unended, so that an export cut short shows as such.
  TypeParam(path, 9).write("<doc>").write(std::string(3 * kBlock, 'y')).write("</d>");
  if constexpr (kZstd<TypeParam>) {
    EXPECT_EQ(read_back<TypeParam>(path).rfind("<not complete: ", 0), 0u);
    TypeParam(path, 19).write(std::string(3 * kBlock, 'y')).close();
    EXPECT_EQ(read_back<TypeParam>(path), std::string(3 * kBlock, 'y'));
    return;
  }
  EXPECT_EQ(read_gzip_file(path), "<doc>" + std::string(3 * kBlock, 'y') + "</d>");
  EXPECT_EQ(read_file(path)[8], '\x02') << "the gzip header's flag of the slowest compression (level 9)";
  TypeParam(path).close();
  EXPECT_EQ(read_file(path)[8], '\0') << "the gzip header's flag of the default level (6)";
  // Level 0 stores the text.
  TypeParam(path, 0).write(std::string(3 * kBlock, 'y')).close();
  EXPECT_GT(read_file(path).size(), 3 * kBlock);
}

// gzip: a zero byte fails (zlib has no error of its own to report: it
// merely stopped there) and the text up to it stays; zstd takes it. A path
// that cannot be opened fails at once.
TYPED_TEST(GZStreamTest, AZeroByteAndAnUnopenablePathFail) {
  {
    TypeParam out(this->path_);
    out.write("before ");
    const std::string failure =
        support::errorText<util::EFatal>([&] { out.write(std::string("ab\0cd", 5)); });
    EXPECT_EQ(failure, kZstd<TypeParam> ? "(no error)" : "Error reading gz-stream: ");
    out.close();
  }
  EXPECT_EQ(read_back<TypeParam>(this->path_),
            kZstd<TypeParam> ? std::string("before ab\0cd", 12) : "before ab");
  const std::string name = this->path_ + "/x.gz";
  EXPECT_EQ(support::errorText<util::EFatal>([&] { TypeParam out(name); }),
            kZstd<TypeParam> ? "Couldn't open for writing zstd-stream: " + name + ": Not a directory"
                             : "Couldn't open for writing gz-stream: " + name);
}

TEST(BackgroundGZOutStreamFailureTest, TheCompressorsFailureReachesTheWriterAndStays) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  BackgroundGZOutStream out("/dev/full", 0);
  const std::string failure = support::errorText<util::EFatal>([&] {
    for (int i = 0; i < 64; ++i) out.write(std::string(kBlock, 'q'));
    out.finish();
  });
  EXPECT_EQ(failure, "Error reading gz-stream: /dev/full: No space left on device");
  EXPECT_THROW(out.write("more"), util::EFatal);
  EXPECT_THROW(out.close(), util::EFatal);
  EXPECT_THROW(out.write("after close"), util::EFatal);
}

}  // namespace
