// An output stream that appends everything written to a string, e.g. to
// encode a message completely before any of it goes to a connection.
#ifndef TALVIX_NET_STRING_OUTPUT_H_
#define TALVIX_NET_STRING_OUTPUT_H_

#include <cstddef>
#include <string>

#include "net/basic_io.h"

namespace net {

class StringOutput : public ByteOutput {
 public:
  void write(const void* data, size_t length) override {
    bytes.append(static_cast<const char*>(data), length);
  }
  void flush() override {}

  std::string bytes;  // everything written so far
};

}  // namespace net

#endif  // TALVIX_NET_STRING_OUTPUT_H_
