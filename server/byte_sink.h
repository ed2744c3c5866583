// Output streams that collect what is written in a string.
#ifndef TALVIX_SERVER_BYTE_SINK_H_
#define TALVIX_SERVER_BYTE_SINK_H_

#include <string>

#include "net/basic_io.h"
#include "net/string_output.h"
#include "protocol/ber_value.h"

namespace server {

using ByteSink = net::StringOutput;

// An output stream that appends everything written to a string it does not
// own, which must outlive it.
class AppendingSink : public net::ByteOutput {
 public:
  explicit AppendingSink(std::string& out) : out_(out) {}
  void write(const void* data, size_t length) override {
    out_.append(static_cast<const char*>(data), length);
  }
  void flush() override {}

 private:
  std::string& out_;
};

// `message` in the current encoding. Range and length failures of its fields
// throw protocol::EBer.
inline std::string encode(const protocol::BerValue& message) {
  ByteSink sink;
  message.write(sink, false);
  return std::move(sink.bytes);
}

}  // namespace server

#endif  // TALVIX_SERVER_BYTE_SINK_H_
