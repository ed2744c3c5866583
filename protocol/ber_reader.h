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
// beyond one chunk of at most 262144 octets (large, so that most answers
// arrive whole in one read, see below); octets go straight into the
// value objects, so a value may be split across reads at any octet.
//
// Nesting is bounded: at most 1024 constructed values may be open at once
// (the top-level message counts as one, every list or set as one more). A
// value that would open the 1025th throws protocol::EBer "Constructed values
// nested too deeply", so a hostile stream cannot grow the reader's stack,
// nor the native stack of the recursive clone, compare, write and
// destruction of the messages it yields, without bound.
//
// Keyed failures (off until setKeyedFailures(true)): a top-level message is
// keyed once its first field is complete (the id of a Request or Response).
// A decoding failure inside a keyed message travels with the message instead
// of being thrown, so that the peer's answer fails its own request only:
//  - the framing intact (a value refused for its content, length or tag, a
//    constructed value with too few fields): the rest of the message is read
//    and dropped, the message is queued with its first failure, and decoding
//    goes on with the next message;
//  - the framing broken (a long length of more than four octets, an end of
//    contents with content, an indefinite primitive, nesting too deep): the
//    message is queued with its first failure at once, and every later
//    readSome() throws the framing failure: the stream is of no further use.
// A failure before the first field is complete throws from readSome() as
// without keyed failures.
//
// A message that arrives whole within one read is decoded in one pass over
// its octets instead (wholeMessage()), asking its values exactly what the
// state machine would ask them; anything unusual in it is left to the
// state machine, so both ways give the same messages and failures.
//
// Ownership: the reader owns the stream below, every message under
// construction and every complete message until takeMessage() or
// takeReceived() hands it out. Children follow the ChildSlot convention of
// protocol/ber_value.h.
#ifndef TALVIX_PROTOCOL_BER_READER_H_
#define TALVIX_PROTOCOL_BER_READER_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <optional>
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
  // while a message is queued), and when a keyed failure broke the framing.
  // Decoding failures throw protocol::EBer (or the util::Exception a value
  // raised); the reader is of no further use then. Keyed failures are queued
  // with their message instead (see above).
  bool readSome(bool stopWhenQueued);

  // Whether failures inside keyed messages travel with them; applies to the
  // failures met from now on.
  void setKeyedFailures(bool on) { keyedFailures_ = on; }

  // A message as the queue hands it out. With `failure` set, `message` holds
  // its first field and whatever else was decoded before the failure.
  struct Received {
    std::unique_ptr<protocol::BerConstructed> message;  // null when none was queued
    std::exception_ptr failure;
  };
  // The oldest complete message with its failure, if any; the caller owns it.
  Received takeReceived();
  // The oldest complete message, or null when none is queued; the caller
  // owns it. A message queued with a failure is dropped and its failure
  // rethrown.
  std::unique_ptr<protocol::BerConstructed> takeMessage();
  // Writes `message` in the reader's encoding to the stream below and
  // flushes it.
  void send(const protocol::BerValue& message);
  // Held messages that go out together without waiting for a read.
  static constexpr size_t kSendBatch = 16;
  // Writes `message` like send() but leaves it in the buffers below: held
  // messages go out together at the next send() or flush(), when the
  // buffer below fills, once kSendBatch of them are held (so that the peer
  // works on a batch while the caller queues the next), and at the latest
  // before the reader next reads from the stream below, so no answer is
  // ever awaited for a message still held.
  // Failures of the stream below pass out of send() and flush(); when the
  // held messages fail to go out in a batch or before a read, the next read
  // goes ahead and its own failure is the one raised: a peer that closed
  // after answering what reached it is read to its end, as when every
  // message is sent alone.
  void queue(const protocol::BerValue& message);
  void flush();
  // Whether messages found whole in one read are decoded in one pass (on
  // unless switched off; off, every octet goes through the state machine).
  // Either way the messages and failures are the same; for comparing the two.
  void setWholeMessages(bool on) { wholeMessages_ = on; }
  // Whether a complete message waits in the queue.
  bool hasReceived() const { return !queue_.empty(); }
  // Whether the peer uses the legacy encoding (final once the first eight
  // octets have arrived).
  bool legacy() const { return decoding_.legacy; }
  // Whether objects nested in another object's children keep their
  // properties (protocol::Decoding; kept unless switched off); applies to
  // the values that start from now on.
  void setNestedProperties(bool keep) { decoding_.nestedProperties = keep; }

  // The oldest complete message, reading (readSome(false)) until one is
  // queued; its message is never null, the caller owns it. Blocks as long as
  // the stream below does. The end of the stream and every other failure of
  // the stream below pass out as it raised them (the util:: family); decoding
  // failures outside keyed messages throw protocol::EBer.
  Received nextReceived();
  // nextReceived(), with a keyed message's failure rethrown.
  std::unique_ptr<protocol::BerConstructed> nextMessage();

 private:
  enum class State { kIdentifier, kTagNumber, kLength, kLongLength, kContent, kEndOfContents };

  struct Entry;

  // Feeds `count` octets to the state machine; false after an early end.
  bool parse(const uint8_t* bytes, size_t count, bool stopWhenQueued);
  // One state step over bytes[*pos...]; true when an end of contents
  // finished a value.
  bool step(const uint8_t* bytes, size_t count, size_t* pos);
  // In state kIdentifier: a whole value header (one-octet tag, length) at
  // bytes[*pos...] taken in one go, as step() would take it octet by
  // octet; false, consuming nothing, for anything else (an end of
  // contents, the ignored tag, a long tag number, a header cut by the end
  // of the chunk, a length field too long).
  bool header(const uint8_t* bytes, size_t count, size_t* pos);
  // At a message boundary: decodes the message that starts at bytes[*pos]
  // when all of it lies before bytes[count] and queues it, moving *pos past
  // it. Declines (false; nothing consumed, nothing queued, what was built
  // discarded) when the message is not all there, when it holds anything
  // the state machine treats specially (an end of contents or a filler
  // octet where a value should start, a long tag number, a length field of
  // more than four octets, an indefinite primitive, a value running past
  // the one around it, deep nesting), and when a value refuses what it is
  // given: the state machine then reads the message from the same octet.
  // The protocol is asked for the message only once its framing is all
  // there, so only a refusal makes the state machine ask again.
  bool wholeMessage(const uint8_t* bytes, size_t count, size_t* pos);
  void startValue();
  void completePrimitive();
  void endOfContents();
  // Checks and completes the top entry (unless the message already failed),
  // then finishTop().
  void closeTop();
  void finishTop();
  void closeCompleted();
  void countOctets(size_t count);
  std::string stackPath() const;
  // Runs `operation`, a call into a value object. A util::Exception from it
  // becomes the failure of the current message when that is keyed (false is
  // returned); otherwise it passes on.
  template <class Operation>
  bool guarded(Operation&& operation);
  // A failure of the framing: queued with the keyed message, which ends
  // here, and thrown by every later readSome(); thrown at once otherwise.
  void breakFraming(const protocol::EBer& failure);

  // Sends the held messages; a failure is left for the next read to meet.
  void sendHeld();

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
  std::deque<Received> queue_;

  bool wholeMessages_ = true;
  bool keyedFailures_ = false;
  bool keyed_ = false;             // the current message's first field is complete
  std::exception_ptr failure_;     // its first failure; the rest of it is skipped
  std::optional<protocol::EBer> broken_;  // the framing failure that ended decoding

  protocol::Decoding decoding_;  // legacy: final once the first eight octets are in
  size_t held_ = 0;  // messages queue() left in the buffers below
  bool sniffPending_ = true;
  uint8_t sniff_[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  size_t sniffFill_ = 0;
  std::unique_ptr<uint8_t[]> chunk_;
};

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_BER_READER_H_
