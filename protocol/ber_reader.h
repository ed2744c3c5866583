// The BER stream reader: the protocol layer on a connection. It decodes the
// bytes arriving from the stream below into complete top-level messages,
// value by value as they arrive, and writes outgoing messages in the
// encoding the peer uses.
//
// The encoding is decided once, from the first eight octets of the
// connection: 60 80 02 02 01 00 61 80 (the start of a legacy ClientWants)
// selects the legacy encoding, anything else the current one.
//
// Decoding is push-style: for each value header the reader asks the open
// constructed value (newChild) or, at the top level, the protocol object
// (makeMessage) for the object that receives the value. Nothing is buffered
// beyond one chunk of at most 65536 octets; octets go straight into the
// value objects, so a value may be split across reads at any octet.
//
// Nesting is bounded: at most 1024 constructed values may be open at once
// (the top-level message counts as one, every list or set as one more). A
// value that would open the 1025th throws protocol::EBer "Constructed values
// nested too deeply", so a hostile stream cannot grow the reader's stack,
// nor the native stack of the recursive clone, compare, write and
// destruction of the messages it yields, without bound.
//
// Ownership: the reader owns the stream below, every message under
// construction and every complete message until takeMessage() hands it out.
// Children follow the ChildSlot convention of protocol/ber_value.h.
#ifndef TALVIX_PROTOCOL_BER_READER_H_
#define TALVIX_PROTOCOL_BER_READER_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "net/basic_io.h"
#include "protocol/ber_protocol.h"
#include "protocol/ber_value.h"

namespace protocol {

class BerReader {
 public:
  // `protocol` makes the top-level messages and must outlive the reader.
  BerReader(const protocol::BerProtocol& protocol, std::unique_ptr<net::BasicIo> lower);
  BerReader(const BerReader&) = delete;
  BerReader& operator=(const BerReader&) = delete;
  // Destroys the stream below, the queued messages and whatever is still
  // under construction.
  ~BerReader();

  // The stream below; owned by the reader.
  net::BasicIo* lower() { return lower_.get(); }
  // One read from the stream below, decoded completely. True when the whole
  // chunk was consumed; false when nothing arrived, while the first eight
  // octets are still incomplete, when a stream failure was swallowed because
  // a message is queued, or after an early end (with stopWhenQueued, the
  // rest of the chunk is dropped once an end of contents completed a value
  // while a message is queued). Decoding failures throw protocol::EBer; the
  // reader is of no further use then.
  bool readSome(bool stopWhenQueued);

  // The oldest complete message, or null when none is queued; the caller
  // owns it.
  std::unique_ptr<protocol::BerConstructed> takeMessage();
  // Writes `message` in the reader's encoding to the stream below and
  // flushes it.
  void send(const protocol::BerValue& message);
  // Whether the peer uses the legacy encoding (final once the first eight
  // octets have arrived).
  bool legacy() const { return legacy_; }

  // The oldest complete message, reading (readSome(false)) until one is
  // queued; never null, the caller owns it. Blocks as long as the stream
  // below does. The end of the stream and every other failure of the stream
  // below pass out as it raised them (the util:: family); decoding failures
  // throw protocol::EBer.
  std::unique_ptr<protocol::BerConstructed> nextMessage();

 private:
  enum class State { kIdentifier, kTagNumber, kLength, kLongLength, kContent, kEndOfContents };

  struct Entry;

  // Feeds `count` octets to the state machine; false after an early end.
  bool parse(const uint8_t* bytes, size_t count, bool stopWhenQueued);
  // One state step over bytes[*pos...]; true when an end of contents
  // finished a value.
  bool step(const uint8_t* bytes, size_t count, size_t* pos);
  void startValue();
  void completePrimitive();
  void endOfContents();
  void finishTop();
  void closeCompleted();
  void countOctets(size_t count);
  std::string stackPath() const;

  const protocol::BerProtocol& protocol_;
  std::unique_ptr<net::BasicIo> lower_;

  State state_ = State::kIdentifier;
  std::vector<Entry> stack_;
  protocol::BerPrimitive* primitive_ = nullptr;
  std::unique_ptr<protocol::BerValue> primitiveOwned_;  // set when the reader owns it
  protocol::TagCode tag_ = 0;
  size_t length_ = 0;
  size_t received_ = 0;
  uint8_t lengthOctets_[4] = {0, 0, 0, 0};
  size_t lengthOctetCount_ = 0;
  std::deque<std::unique_ptr<protocol::BerConstructed>> queue_;

  bool legacy_ = false;
  bool sniffPending_ = true;
  uint8_t sniff_[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  size_t sniffFill_ = 0;
  std::unique_ptr<uint8_t[]> chunk_;
};

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_BER_READER_H_
