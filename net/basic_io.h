// The byte-stream interfaces that messages are written to and read from.
//
// protocol::BasicIo is an output stream; old_protocol::BasicIo adds reading.
// Every failure is raised as an exception of the error:: family (normally
// error::ESystemError); a stream never reports failure by a return value.
#ifndef TALVIX_NET_BASIC_IO_H_
#define TALVIX_NET_BASIC_IO_H_

#include <cstddef>
#include <cstdint>

namespace protocol {

class BasicIo {
 public:
  virtual ~BasicIo() = default;
  // Hands over all `length` bytes or raises.
  virtual void write(const void* data, size_t length) = 0;
  // Pushes buffered bytes down to the system or raises.
  virtual void flush() = 0;
};

}  // namespace protocol

namespace old_protocol {

class BasicIo : public protocol::BasicIo {
 public:
  // For a non-zero capacity returns at least one byte (at most `capacity`) or
  // raises; the end of the stream is a failure, never a count of 0.
  virtual uint64_t read(void* buffer, uint64_t capacity) = 0;
  // Whether a read can proceed now.
  virtual bool readable() = 0;
};

// A protocol layer stacked on a stream; the BER reader is the implementation.
// The layer owns the stream below it.
class GenericLayer {
 public:
  virtual ~GenericLayer() = default;
  virtual BasicIo* lower() = 0;
  virtual void setLower(BasicIo* stream) = 0;  // takes ownership
  // One read from the stream below and the decoding of all that arrived.
  virtual bool readSome(bool stopWhenQueued) = 0;
  virtual bool ready() = 0;
};

}  // namespace old_protocol

#endif  // TALVIX_NET_BASIC_IO_H_
