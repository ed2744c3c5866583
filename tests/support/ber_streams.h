// Octets and messages for tests of the wire encoding: the hex helpers, a
// stream that serves scripted chunks and collects what is written, and
// messages written to octets and read back through the real stream reader.
#ifndef TALVIX_TESTS_SUPPORT_BER_STREAMS_H_
#define TALVIX_TESTS_SUPPORT_BER_STREAMS_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "net/basic_io.h"
#include "protocol/ber_protocol.h"
#include "protocol/ber_value.h"

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

using MessageList = std::vector<std::unique_ptr<protocol::BerConstructed>>;
using MessageFactory = std::function<std::unique_ptr<protocol::BerConstructed>()>;

// Request 1: a select from the start id "X" with the pattern "." and every
// child kind (integer, choice, set of strings, nested sequence, null, lists).
extern const char kSelectRequest[];

// `message` written in the given encoding.
Bytes encode_message(const protocol::BerValue& message, bool legacy);

// Feeds `bytes` to a BerReader over `protocol` (in one chunk, or one octet
// per read when `octetwise`) and returns every message it queued. A legacy
// stream is preceded by a legacy ClientWants that switches the reader to
// the legacy encoding and is dropped again. EBer failures propagate.
MessageList decode_messages(const Bytes& bytes, bool legacy, const protocol::BerProtocol& protocol,
                            bool octetwise = false);

// A protocol whose every top-level value is a new object from `make`, so
// that nested classes can be read as if they were messages.
class FactoryProtocol : public protocol::BerProtocol {
 public:
  explicit FactoryProtocol(MessageFactory make) : make_(std::move(make)) {}
  std::unique_ptr<protocol::BerConstructed> makeMessage(protocol::TagCode, bool) const override {
    return make_();
  }

 private:
  MessageFactory make_;
};

// Reads `bytes` as one object of class T; the test fails unless exactly one
// message results.
template <class T>
std::unique_ptr<T> decode_as(const Bytes& bytes, bool legacy) {
  FactoryProtocol protocol([] { return std::make_unique<T>(); });
  MessageList messages = decode_messages(bytes, legacy, protocol);
  if (messages.size() != 1) return nullptr;
  return std::unique_ptr<T>(dynamic_cast<T*>(messages.front().release()));
}

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_BER_STREAMS_H_
