// Streams that put the server's BER readers on an accepted socket without
// taking the socket over, so that a connection can change readers (the
// legacy greeting does) while it keeps writing its replies itself.
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

// Serves `prefix` first and then reads from the borrowed target.
class PrefixedStream : public BorrowedStream {
 public:
  PrefixedStream(std::string prefix, net::BasicIo& target)
      : BorrowedStream(target), prefix_(std::move(prefix)) {}
  uint64_t read(void* buffer, uint64_t capacity) override;
  bool readable() override { return cursor_ < prefix_.size() || BorrowedStream::readable(); }

 private:
  std::string prefix_;
  size_t cursor_ = 0;
};

}  // namespace server

#endif  // TALVIX_SERVER_LINK_STREAMS_H_
