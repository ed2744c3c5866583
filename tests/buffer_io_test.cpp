// The buffering stream over a scripted stream that records what reaches it.
#include "net/buffer_io.h"

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using net::BufferIo;

// What the stream below saw; shared so that it outlives the stream.
struct Log {
  std::vector<size_t> write_sizes;
  std::string written;
  int flushes = 0;
  std::vector<uint64_t> read_capacities;
  std::deque<std::string> reads;  // each read delivers the next piece (cut to the capacity)
};

class ScriptedStream : public net::BasicIo {
 public:
  explicit ScriptedStream(std::shared_ptr<Log> log) : log_(std::move(log)) {}
  void write(const void* data, size_t length) override {
    log_->write_sizes.push_back(length);
    log_->written.append(static_cast<const char*>(data), length);
  }
  void flush() override { ++log_->flushes; }
  uint64_t read(void* buffer, uint64_t capacity) override {
    log_->read_capacities.push_back(capacity);
    if (log_->reads.empty())
      util::throw_system_error("Error reading: OsalSocket::read end of stream");
    std::string& piece = log_->reads.front();
    const size_t count = piece.copy(static_cast<char*>(buffer), capacity);
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

// Only full 64 KiB buffers go below before flush(), which sends the rest; an
// empty buffer still flushes the stream below.
TEST(BufferIoWriteTest, SendsOnlyFullBuffersUntilFlush) {
  const struct {
    std::vector<size_t> writes;
    std::vector<size_t> sent;  // at once
    size_t pending;            // left for flush()
  } cases[] = {{{65536}, {65536}, 0}, {{65535}, {}, 65535}, {{200000}, {65536, 65536, 65536}, 3392},
               {{100, 65536}, {65536}, 100}, {{0}, {}, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << (&c - cases));
    auto log = std::make_shared<Log>();
    BufferIo io(std::make_unique<ScriptedStream>(log));
    std::string all;
    for (size_t i = 0; i < c.writes.size(); ++i) {
      const std::string piece = pattern(c.writes[i], i);
      io.write(piece.data(), piece.size());
      all += piece;
    }
    EXPECT_EQ(log->write_sizes, c.sent);
    EXPECT_EQ(log->flushes, 0);
    io.flush();
    std::vector<size_t> after_flush = c.sent;
    if (c.pending > 0) after_flush.push_back(c.pending);
    EXPECT_EQ(log->write_sizes, after_flush);
    EXPECT_EQ(log->flushes, 1);
    EXPECT_TRUE(log->written == all) << "bytes lost, duplicated or reordered";
  }
}

// A read of nothing reads nothing below. A read takes what one read below
// delivered (offering it the whole buffer) and hands out buffered bytes
// without reading below again; a caller with room for a buffer or more is
// offered its whole room in one read below. A failure below passes through.
TEST(BufferIoReadTest, ReadsDeliverBufferedBytesBeforeReadingBelow) {
  auto log = std::make_shared<Log>();
  BufferIo io(std::make_unique<ScriptedStream>(log));
  log->reads = {"abcdefgh", pattern(70000, 3)};
  std::vector<char> got(100000);
  EXPECT_EQ(io.read(got.data(), 0), 0u);
  EXPECT_TRUE(log->read_capacities.empty());
  ASSERT_EQ(io.read(got.data(), 3), 3u);
  EXPECT_EQ(std::string(got.data(), 3), "abc");
  EXPECT_EQ(log->read_capacities, std::vector<uint64_t>{65536});
  ASSERT_EQ(io.read(got.data(), 10), 5u);  // the rest of the buffer, not topped up from below
  EXPECT_EQ(std::string(got.data(), 5), "defgh");
  EXPECT_EQ(log->read_capacities.size(), 1u);
  ASSERT_EQ(io.read(got.data(), got.size()), 70000u);
  EXPECT_EQ(std::string(got.data(), 70000), pattern(70000, 3));
  EXPECT_EQ(log->read_capacities, (std::vector<uint64_t>{65536, 100000}));
  EXPECT_EQ(support::errorText<util::ESystemError>([&] { io.read(got.data(), 4); }),
            "Error reading: OsalSocket::read end of stream");
  EXPECT_TRUE(io.readable());  // whatever the stream below says
}

}  // namespace
