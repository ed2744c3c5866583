// Writing messages to bytes and reading bytes back into messages through the
// real stream reader, for tests of the message classes.
#ifndef TALVIX_TESTS_SUPPORT_MESSAGE_IO_H_
#define TALVIX_TESTS_SUPPORT_MESSAGE_IO_H_

#include <functional>
#include <memory>
#include <vector>

#include "protocol/ber_protocol.h"
#include "protocol/ber_value.h"
#include "support/ber_streams.h"

namespace support {

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


#endif  // TALVIX_TESTS_SUPPORT_MESSAGE_IO_H_
