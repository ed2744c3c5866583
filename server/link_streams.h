// Streams that put the server's BER reader on an accepted socket without
// taking the socket over, so that a connection can take over the decoding
// while it keeps writing its replies itself.
#ifndef TALVIX_SERVER_LINK_STREAMS_H_
#define TALVIX_SERVER_LINK_STREAMS_H_

#include <string>

#include "net/basic_io.h"

namespace server {

// Forwards everything to a stream it does not own, which must outlive it.
class BorrowedStream : public net::BasicIo {
 public:
  explicit BorrowedStream(net::BasicIo& target) : target_(target) {}
  void write(const void* data, size_t length) override { target_.write(data, length); }
  void flush() override { target_.flush(); }
  uint64_t read(void* buffer, uint64_t capacity) override { return target_.read(buffer, capacity); }
  bool readable() override { return target_.readable(); }

 private:
  net::BasicIo& target_;
};

// The stream under a connection's BER reader, which lets the connection
// take over the decoding at a message boundary and hand octets back later.
// It reads from the borrowed target and, while recording, keeps a copy of
// everything it hands out. Octets given to feed() are handed out before
// anything is read from the target again.
class FeedStream : public BorrowedStream {
 public:
  explicit FeedStream(net::BasicIo& target) : BorrowedStream(target) {}
  uint64_t read(void* buffer, uint64_t capacity) override;
  bool readable() override { return cursor_ < fed_.size() || BorrowedStream::readable(); }

  // What was handed out while recording; stopRecording() ends the copy.
  const std::string& recorded() const { return recorded_; }
  void stopRecording() {
    recording_ = false;
    recorded_.clear();
  }
  void feed(const char* data, size_t size) { fed_.append(data, size); }
  bool fedPending() const { return cursor_ < fed_.size(); }

 private:
  bool recording_ = true;
  std::string recorded_;
  std::string fed_;
  size_t cursor_ = 0;
};

}  // namespace server

#endif  // TALVIX_SERVER_LINK_STREAMS_H_
