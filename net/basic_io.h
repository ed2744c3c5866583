// The byte-stream interfaces that messages are written to and read from.
//
// net::ByteOutput is an output stream; net::BasicIo adds reading.
// Every failure is raised as an exception of the util:: family (normally
// util::ESystemError); a stream never reports failure by a return value.
#ifndef TALVIX_NET_BASIC_IO_H_
#define TALVIX_NET_BASIC_IO_H_

#include <cstddef>
#include <cstdint>

namespace net {

class ByteOutput {
 public:
  virtual ~ByteOutput() = default;
  // Hands over all `length` bytes or raises.
  virtual void write(const void* data, size_t length) = 0;
  // Pushes buffered bytes down to the system or raises.
  virtual void flush() = 0;
};

class BasicIo : public ByteOutput {
 public:
  // For a non-zero capacity returns at least one byte (at most `capacity`) or
  // raises; the end of the stream is a failure, never a count of 0.
  virtual uint64_t read(void* buffer, uint64_t capacity) = 0;
  // Whether a read can proceed now.
  virtual bool readable() = 0;
};

}  // namespace net

#endif  // TALVIX_NET_BASIC_IO_H_
