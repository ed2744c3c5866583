// The buffering stream over a scripted stream that records what reaches it.
#include "net/buffer_io.h"

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/error.h"

namespace {

using old_protocol::BasicIo;
using old_protocol::BufferIo;

// What the stream below saw; shared so that it outlives the stream.
struct Log {
  std::vector<size_t> write_sizes;
  std::string written;
  int flushes = 0;
  std::vector<uint64_t> read_capacities;
  std::deque<std::string> reads;  // each read delivers the next piece (cut to the capacity)
  bool fail_reads = false;
};

class ScriptedStream : public BasicIo {
 public:
  explicit ScriptedStream(std::shared_ptr<Log> log) : log_(std::move(log)) {}
  void write(const void* data, size_t length) override {
    log_->write_sizes.push_back(length);
    log_->written.append(static_cast<const char*>(data), length);
  }
  void flush() override { ++log_->flushes; }
  uint64_t read(void* buffer, uint64_t capacity) override {
    log_->read_capacities.push_back(capacity);
    if (log_->fail_reads || log_->reads.empty()) {
      error::throw_system_error("Error reading: OsalSocket::read end of stream");
    }
    std::string& piece = log_->reads.front();
    const size_t count = std::min<uint64_t>(capacity, piece.size());
    piece.copy(static_cast<char*>(buffer), count);
    piece.erase(0, count);
    if (piece.empty()) log_->reads.pop_front();
    return count;
  }
  bool readable() override { return false; }

 private:
  std::shared_ptr<Log> log_;
};

std::string pattern(size_t length, size_t seed) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>((i + seed) * 131 % 251);
  return text;
}

class BufferIoTest : public testing::Test {
 protected:
  std::shared_ptr<Log> log = std::make_shared<Log>();
  std::unique_ptr<BufferIo> io = std::make_unique<BufferIo>(std::make_unique<ScriptedStream>(log));
};

// A sequence of writes, the sizes of the writes that must reach the stream
// below at once, and the number of bytes then left waiting for flush().
struct WriteCase {
  std::vector<size_t> writes;
  std::vector<size_t> sent;
  size_t pending;
};

class BufferIoWriteTest : public BufferIoTest, public testing::WithParamInterface<WriteCase> {};

TEST_P(BufferIoWriteTest, SendsOnlyFullBuffersUntilFlush) {
  std::string all;
  for (size_t i = 0; i < GetParam().writes.size(); ++i) {
    const std::string piece = pattern(GetParam().writes[i], i);
    io->write(piece.data(), piece.size());
    all += piece;
  }
  EXPECT_EQ(log->write_sizes, GetParam().sent);
  EXPECT_EQ(log->flushes, 0);

  io->flush();
  std::vector<size_t> after_flush = GetParam().sent;
  if (GetParam().pending > 0) after_flush.push_back(GetParam().pending);
  EXPECT_EQ(log->write_sizes, after_flush);
  EXPECT_EQ(log->flushes, 1);
  EXPECT_TRUE(log->written == all) << "bytes lost, duplicated or reordered";
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, BufferIoWriteTest,
    testing::Values(WriteCase{{65536}, {65536}, 0}, WriteCase{{65535}, {}, 65535},
                    WriteCase{{200000}, {65536, 65536, 65536}, 3392}, WriteCase{{65535, 1}, {65536}, 0},
                    WriteCase{{100, 65536}, {65536}, 100}, WriteCase{{0}, {}, 0}));

TEST_F(BufferIoTest, FlushOfEmptyBufferStillFlushesBelow) {
  io->flush();
  io->flush();
  EXPECT_TRUE(log->write_sizes.empty());
  EXPECT_EQ(log->flushes, 2);
}

TEST_F(BufferIoTest, DestructionDropsPendingBytes) {
  io->write("pending", 7);
  io.reset();
  EXPECT_TRUE(log->write_sizes.empty());
  EXPECT_EQ(log->flushes, 0);
}

// A read takes what one read below delivered (offering it the whole buffer)
// and hands out buffered bytes without reading below again.
TEST_F(BufferIoTest, ReadsDeliverBufferedBytesBeforeReadingBelow) {
  log->reads = {"abcdefgh", "z"};
  char got[10];
  ASSERT_EQ(io->read(got, 3), 3u);
  EXPECT_EQ(std::string(got, 3), "abc");
  EXPECT_EQ(log->read_capacities, std::vector<uint64_t>{65536});
  ASSERT_EQ(io->read(got, 10), 5u);  // the rest of the buffer, not topped up from below
  EXPECT_EQ(std::string(got, 5), "defgh");
  EXPECT_EQ(log->read_capacities.size(), 1u);
  ASSERT_EQ(io->read(got, 10), 1u);
  EXPECT_EQ(got[0], 'z');
  EXPECT_EQ(log->read_capacities.size(), 2u);
}

TEST_F(BufferIoTest, ReadOfALargePieceIsCutToTheBuffer) {
  log->reads = {pattern(70000, 3)};
  std::vector<char> got(100000);
  ASSERT_EQ(io->read(got.data(), got.size()), 65536u);
  EXPECT_EQ(std::string(got.data(), 65536), pattern(70000, 3).substr(0, 65536));
  ASSERT_EQ(io->read(got.data(), got.size()), 70000u - 65536u);
}

TEST_F(BufferIoTest, FailureBelowPassesThroughAndZeroCapacityReadsNothing) {
  char got[4];
  EXPECT_EQ(io->read(got, 0), 0u);
  EXPECT_TRUE(log->read_capacities.empty());
  log->fail_reads = true;
  try {
    io->read(got, sizeof got);
    FAIL() << "no exception";
  } catch (const error::ESystemError& e) {
    EXPECT_EQ(e.text(), "Error reading: OsalSocket::read end of stream");
  }
  EXPECT_TRUE(io->readable());  // whatever the stream below says
}

}  // namespace
