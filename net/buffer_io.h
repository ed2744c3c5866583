// A buffering stream over another stream.
//
// Output is gathered in a 64 KiB buffer and reaches the stream below only
// when the buffer fills or at flush(); input is taken from the stream below
// in pieces of up to 64 KiB and handed out from the buffer, or read straight
// into a caller's buffer of 64 KiB or more.
#ifndef TALVIX_NET_BUFFER_IO_H_
#define TALVIX_NET_BUFFER_IO_H_

#include <cstdint>
#include <memory>

#include "net/basic_io.h"

namespace net {

class BufferIo : public BasicIo {
 public:
  static constexpr uint64_t kBufferSize = 0x10000;

  // Takes ownership of `lower`, which must not be null. Both buffers start empty.
  explicit BufferIo(std::unique_ptr<BasicIo> lower);
  BufferIo(const BufferIo&) = delete;
  BufferIo& operator=(const BufferIo&) = delete;
  // Destroys the stream below. Bytes still in the write buffer are NOT sent.
  ~BufferIo() override;

  // Appends to the write buffer; every time the buffer becomes full it is sent
  // whole with one write of the stream below, so after a write fewer than
  // kBufferSize bytes wait. Failures of the stream below pass through.
  void write(const void* data, size_t length) override;
  // Sends the waiting bytes (if any) and then always flushes the stream below.
  void flush() override;
  // If the read buffer is empty, refills it with one read of the stream below;
  // then delivers min(capacity, bytes buffered). A caller that asks for at
  // least kBufferSize while the buffer is empty is read into directly, with
  // one read of up to `capacity` octets and no copy. Never reads the stream
  // below more than once per call. A capacity of 0 returns 0 without reading.
  uint64_t read(void* buffer, uint64_t capacity) override;
  // Always true.
  bool readable() override;

 private:
  std::unique_ptr<BasicIo> lower_;
  std::unique_ptr<uint8_t[]> read_buffer_;
  uint64_t read_cursor_ = 0;  // bytes in [read_cursor_, read_end_) are not yet delivered
  uint64_t read_end_ = 0;
  std::unique_ptr<uint8_t[]> write_buffer_;
  uint64_t write_cursor_ = 0;  // bytes in [0, write_cursor_) wait to be sent
};

}  // namespace net

#endif  // TALVIX_NET_BUFFER_IO_H_
