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

// The stream below: records what reaches it; each read delivers the next
// piece of `reads` (cut to the capacity).
struct ScriptedStream : net::BasicIo {
  std::string events;  // the size of each write, "flush", "read" and the capacity
  std::string written;
  std::deque<std::string> reads;

  void write(const void* data, size_t length) override {
    events += std::to_string(length) + " ";
    written.append(static_cast<const char*>(data), length);
  }
  void flush() override { events += "flush"; }
  uint64_t read(void* buffer, uint64_t capacity) override {
    events += "read " + std::to_string(capacity) + " ";
    if (reads.empty()) util::throw_system_error("Error reading: OsalSocket::read end of stream");
    const size_t count = reads.front().copy(static_cast<char*>(buffer), capacity);
    reads.front().erase(0, count);
    if (reads.front().empty()) reads.pop_front();
    return count;
  }
  bool readable() override { return false; }
};

// A BufferIo over a ScriptedStream it owns, and that stream.
struct Buffered {
  std::unique_ptr<ScriptedStream> owned = std::make_unique<ScriptedStream>();
  ScriptedStream& below = *owned;
  BufferIo io{std::move(owned)};
};

std::string pattern(size_t length, size_t seed) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>((i + seed) * 131 % 251);
  return text;
}

// Only full 64 KiB buffers go below before flush() ("|"), which sends the
// rest; with nothing buffered it only flushes the stream below.
TEST(BufferIoWriteTest, SendsOnlyFullBuffersUntilFlush) {
  const std::pair<std::vector<size_t>, std::string> cases[] = {
      {{65536}, "65536 | flush"},
      {{200000}, "65536 65536 65536 | 3392 flush"},
      {{100, 65536}, "65536 | 100 flush"}};
  for (const auto& [writes, events] : cases) {
    SCOPED_TRACE(events);
    Buffered b;
    std::string all;
    for (size_t i = 0; i < writes.size(); ++i) {
      const std::string piece = pattern(writes[i], i);
      b.io.write(piece.data(), piece.size());
      all += piece;
    }
    b.below.events += "| ";
    b.io.flush();
    EXPECT_EQ(b.below.events, events);
    EXPECT_TRUE(b.below.written == all) << "bytes lost, duplicated or reordered";
  }
}

// A read of nothing reads nothing below. A read takes what one read below
// delivered (offering it the whole buffer) and hands out buffered bytes
// without reading below again; a caller with room for a buffer or more is
// offered its whole room in one read below. A failure below passes through.
TEST(BufferIoReadTest, ReadsDeliverBufferedBytesBeforeReadingBelow) {
  Buffered b;
  b.below.reads = {"abcdefgh", pattern(70000, 3)};
  std::vector<char> got(100000);
  auto read = [&](size_t room) { return std::string(got.data(), b.io.read(got.data(), room)); };
  EXPECT_EQ(read(0), "");
  EXPECT_EQ(read(3), "abc");
  EXPECT_EQ(read(10), "defgh");  // the rest of the buffer, not topped up from below
  EXPECT_TRUE(read(got.size()) == pattern(70000, 3));
  EXPECT_EQ(support::errorText<util::ESystemError>([&] { read(4); }),
            "Error reading: OsalSocket::read end of stream");
  EXPECT_EQ(b.below.events, "read 65536 read 100000 read 65536 ");
  EXPECT_TRUE(b.io.readable());  // whatever the stream below says
}

}  // namespace
