// Octets for tests of the wire encoding: the hex helpers and a stream that
// serves scripted chunks and collects what is written.
#ifndef TALVIX_TESTS_SUPPORT_BER_STREAMS_H_
#define TALVIX_TESTS_SUPPORT_BER_STREAMS_H_

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "net/basic_io.h"

namespace support {

using Bytes = std::vector<uint8_t>;
using Octets = std::string;

// "02 01 FF" -> octets; whitespace in the text is ignored. Throws
// std::invalid_argument for anything but pairs of hex digits.
Octets hex(std::string_view text);
Bytes from_hex(std::string_view text);
// Octets -> "02 01 FF".
std::string to_hex(std::string_view octets);
std::string to_hex(const Bytes& bytes);

// Serves the scripted chunks in order, each in one read (cut to the capacity
// asked for, the rest served next). A chunk marked as failure makes the read
// throw util::ESystemError with its text; after the script runs out every
// read throws "end of script". Writes are collected in `written`.
class ScriptedStream : public net::BasicIo {
 public:
  ScriptedStream& chunk(const Bytes& bytes);
  ScriptedStream& chunk(const std::string& hex) { return chunk(from_hex(hex)); }
  ScriptedStream& failure(const std::string& text) {
    script_.push_back(Step{{}, text});
    return *this;
  }
  // One chunk per octet of `bytes`.
  ScriptedStream& octets(const Bytes& bytes);

  uint64_t read(void* buffer, uint64_t capacity) override;
  bool readable() override { return !script_.empty(); }
  void write(const void* data, size_t length) override {
    written.insert(written.end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + length);
  }
  void flush() override { ++flushes; }

  Bytes written;
  int flushes = 0;

 private:
  struct Step {
    Bytes bytes;
    std::string failure;
  };
  std::deque<Step> script_;
};

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_BER_STREAMS_H_
