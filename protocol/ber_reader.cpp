#include "protocol/ber_reader.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <typeinfo>
#include <utility>

#include "protocol/ber_primitives.h"
#include "util/error.h"

namespace protocol {

using protocol::BerConstructed;
using protocol::BerPrimitive;
using protocol::BerValue;
using protocol::EBer;

namespace {

constexpr size_t kChunkSize = 262144;
constexpr size_t kIndefinite = std::numeric_limits<size_t>::max();
// Deeper nesting than any message of the protocol needs; a peer that nests
// further is refused before it can make the stack grow without end.
constexpr size_t kMaxDepth = 1024;
// The first octets of a ClientWants in the legacy encoding.
constexpr uint8_t kLegacyMarker[8] = {0x60, 0x80, 0x02, 0x02, 0x01, 0x00, 0x61, 0x80};
// The octet 19: identifier of tag code 200, ignored between values.
constexpr protocol::TagCode kIgnoredTag = 200;

// The octets of the value header at `at` when it can be taken in one go,
// else 0: a one-octet tag number that is neither an end of contents nor
// the filler tag, then a length field of at most four octets (what the
// state machine's lengthOctets_ holds), all before `limit`. Sets `tag` and
// `length` (kIndefinite for the indefinite form) only when it takes it.
size_t one_go_header(const uint8_t* at, const uint8_t* limit, protocol::TagCode& tag,
                     size_t& length) {
  if (limit - at < 2) return 0;
  const uint8_t identifier = at[0];
  const uint8_t first = at[1];
  if ((identifier & 0x1F) == 0x1F) return 0;  // a tag number in further octets
  const protocol::TagCode code = (identifier & 0x1Fu) * 8 + (identifier >> 5);
  if (code == 0 || code == kIgnoredTag) return 0;
  size_t value = first;
  size_t octets = 2;
  if (first == 0x80) {
    value = kIndefinite;
  } else if (first > 0x80) {
    const size_t lengthOctets = first & 0x7Fu;
    if (lengthOctets > 4 || static_cast<size_t>(limit - at) - 2 < lengthOctets) return 0;
    value = 0;
    for (size_t i = 0; i < lengthOctets; ++i) value = (value << 8) | at[2 + i];
    octets += lengthOctets;
  }
  tag = code;
  length = value;
  return octets;
}

// Whether the two octets at `at`, before `limit`, are an end of contents.
bool end_of_contents_at(const uint8_t* at, const uint8_t* limit) {
  return limit - at >= 2 && at[0] == 0 && at[1] == 0;
}

// Nesting a message decoded in one pass may have; deeper ones are left to
// the state machine, which bounds the nesting itself (kMaxDepth).
constexpr size_t kWholeDepth = 64;

// One pass over a message held whole in memory (BerReader::wholeMessage):
// false wherever the state machine would do anything but take the next
// value; failures of the values pass out as they are raised.
class WholeMessage {
 public:
  WholeMessage(const uint8_t* at, const protocol::Decoding& decoding)
      : at_(at), decoding_(decoding) {}

  const uint8_t* at() const { return at_; }

  // A value header taken in one go (one_go_header) before `limit`.
  bool header(const uint8_t* limit, protocol::TagCode& tag, size_t& length) {
    const size_t octets = one_go_header(at_, limit, tag, length);
    at_ += octets;
    return octets != 0;
  }

  // Steps over one value before `limit`: header, then the content of a
  // definite length, or values up to an end of contents, nested at most
  // kWholeDepth deep. Reads the framing only; no value is asked.
  bool skip(const uint8_t* limit, size_t depth) {
    protocol::TagCode tag = 0;
    size_t length = 0;
    if (!header(limit, tag, length)) return false;
    if (length != kIndefinite) {
      if (length > static_cast<size_t>(limit - at_)) return false;
      at_ += length;
      return true;
    }
    if (depth >= kWholeDepth) return false;
    for (;;) {
      if (end_of_contents_at(at_, limit)) {
        at_ += 2;
        return true;
      }
      if (!skip(limit, depth + 1)) return false;
    }
  }

  // The children of `value`, whose header was just read, up to its end of
  // contents or its `length` octets, all before `limit`; then its checks.
  bool content(BerConstructed& value, size_t length, const uint8_t* limit, size_t depth) {
    const bool indefinite = length == kIndefinite;
    if (!indefinite) {
      if (length > static_cast<size_t>(limit - at_)) return false;
      limit = at_ + length;
    }
    uint32_t children = 0;
    for (;;) {
      if (indefinite) {
        if (end_of_contents_at(at_, limit)) {
          at_ += 2;
          break;
        }
      } else if (at_ == limit) {
        break;
      }
      protocol::TagCode tag = 0;
      size_t childLength = 0;
      if (!header(limit, tag, childLength)) return false;
      protocol::ChildSlot slot = value.newChild(children++, tag, decoding_);
      BerValue* child = slot.value;
      if (child == nullptr || child->tag(decoding_.legacy) != tag) return false;
      if (BerConstructed* constructed = child->asConstructed()) {
        if (depth >= kWholeDepth || !content(*constructed, childLength, limit, depth + 1)) {
          return false;
        }
        continue;
      }
      BerPrimitive* primitive = child->asPrimitive();
      if (primitive == nullptr || childLength == kIndefinite ||
          childLength > static_cast<size_t>(limit - at_)) {
        return false;
      }
      primitive->readStart(childLength);
      if (childLength > 0) primitive->readData(at_, childLength);
      primitive->readDone();
      at_ += childLength;
    }
    if (children < value.requiredFields()) return false;
    value.readDone();
    return true;
  }

 private:
  const uint8_t* at_;
  const protocol::Decoding& decoding_;
};

}  // namespace

// One open constructed value.
struct BerReader::Entry {
  BerConstructed* value;
  std::unique_ptr<BerValue> transient;       // set when the reader owns the value
  std::unique_ptr<BerConstructed> message;   // set for the top-level message
  uint32_t children;
  size_t consumed;
  size_t length;  // kIndefinite for the indefinite form
};

template <class Operation>
bool BerReader::guarded(Operation&& operation) {
  try {
    operation();
    return true;
  } catch (const util::Exception&) {
    if (!keyedFailures_ || !keyed_ || failure_) throw;
    failure_ = std::current_exception();
    return false;
  }
}

BerReader::BerReader(const protocol::BerProtocol& protocol, std::unique_ptr<net::BasicIo> lower)
    : protocol_(protocol), lower_(std::move(lower)) {}

BerReader::~BerReader() {
  // A bound primitive and the open values refer into the values below them
  // on the stack, so they go first, from the top down.
  primitive_ = nullptr;
  primitiveOwned_.reset();
  while (!stack_.empty()) stack_.pop_back();
}

BerReader::Received BerReader::takeReceived() {
  if (queue_.empty()) return {};
  Received received = std::move(queue_.front());
  queue_.pop_front();
  return received;
}

std::unique_ptr<BerConstructed> BerReader::takeMessage() {
  Received received = takeReceived();
  if (received.failure) std::rethrow_exception(received.failure);
  return std::move(received.message);
}

void BerReader::send(const BerValue& message) {
  queue(message);
  flush();
}

void BerReader::queue(const BerValue& message) {
  ++held_;
  message.write(*lower_, decoding_.legacy);
  if (held_ >= kSendBatch) sendHeld();
}

void BerReader::flush() {
  lower_->flush();
  held_ = 0;
}

void BerReader::sendHeld() {
  try {
    flush();
  } catch (const util::Exception&) {
    // The peer may have closed after answering what reached it before:
    // those answers are still read, and the end of the connection shows
    // as the read's failure, as it does when each message is sent alone.
    // A stream that fails on writing fails on reading as well.
    held_ = 0;
  }
}

bool BerReader::readSome(bool stopWhenQueued) {
  if (broken_) {
    // Like a failure of the stream below: held back while a message is queued.
    if (!queue_.empty()) return false;
    throw *broken_;
  }
  if (held_ > 0) sendHeld();
  if (sniffPending_) {
    const uint64_t got = lower_->read(sniff_ + sniffFill_, sizeof sniff_ - sniffFill_);
    if (got == 0) return false;
    if (got > sizeof sniff_ - sniffFill_) util::assert_failed("Stream read more than asked for");
    sniffFill_ += static_cast<size_t>(got);
    if (std::memcmp(sniff_, kLegacyMarker, sniffFill_) == 0) {
      if (sniffFill_ < sizeof sniff_) return false;
      decoding_.legacy = true;
    }
    sniffPending_ = false;
    return parse(sniff_, sniffFill_, stopWhenQueued);
  }

  if (!chunk_) chunk_ = std::make_unique<uint8_t[]>(kChunkSize);
  uint64_t got = 0;
  try {
    got = lower_->read(chunk_.get(), kChunkSize);
  } catch (const util::Exception&) {
    // A message that arrived before the failure is still delivered; the
    // failure shows again on the next read.
    if (!queue_.empty()) return false;
    throw;
  }
  if (got == 0) return false;
  if (got > kChunkSize) util::assert_failed("Stream read more than asked for");
  return parse(chunk_.get(), static_cast<size_t>(got), stopWhenQueued);
}

bool BerReader::parse(const uint8_t* bytes, size_t count, bool stopWhenQueued) {
  size_t pos = 0;
  while (pos < count) {
    if (state_ == State::kIdentifier && stack_.empty() && wholeMessages_ && !stopWhenQueued &&
        wholeMessage(bytes, count, &pos)) {
      continue;
    }
    if (state_ == State::kIdentifier && header(bytes, count, &pos)) {
      if (broken_) return false;
      continue;
    }
    const bool endedValue = step(bytes, count, &pos);
    if (broken_) return false;
    if (endedValue && stopWhenQueued && !queue_.empty()) return false;
  }
  return true;
}

bool BerReader::wholeMessage(const uint8_t* bytes, size_t count, size_t* pos) {
  const uint8_t* limit = bytes + count;
  // The framing first, so that no message is made for one not all here.
  if (!WholeMessage(bytes + *pos, decoding_).skip(limit, 1)) return false;
  WholeMessage whole(bytes + *pos, decoding_);
  protocol::TagCode tag = 0;
  size_t length = 0;
  if (!whole.header(limit, tag, length)) return false;
  std::unique_ptr<BerConstructed> message;
  try {
    message = protocol_.makeMessage(tag, decoding_.legacy);
    if (message == nullptr || message->tag(decoding_.legacy) != tag ||
        !whole.content(*message, length, limit, 1)) {
      return false;
    }
  } catch (const util::Exception&) {
    return false;  // the state machine meets the same failure
  }
  queue_.push_back(Received{std::move(message), nullptr});
  *pos = static_cast<size_t>(whole.at() - bytes);
  return true;
}

void BerReader::countOctets(size_t count) {
  if (!stack_.empty()) stack_.back().consumed += count;
}

bool BerReader::header(const uint8_t* bytes, size_t count, size_t* pos) {
  const size_t octets = one_go_header(bytes + *pos, bytes + count, tag_, length_);
  if (octets == 0) return false;
  *pos += octets;
  countOctets(octets);
  startValue();
  return true;
}

bool BerReader::step(const uint8_t* bytes, size_t count, size_t* pos) {
  if (state_ == State::kContent) {
    const size_t take = std::min(count - *pos, length_ - received_);
    // A primitive dropped by a keyed failure has its content skipped.
    if (primitive_ != nullptr && !guarded([&] { primitive_->readData(bytes + *pos, take); })) {
      primitive_ = nullptr;
      primitiveOwned_.reset();
    }
    *pos += take;
    received_ += take;
    if (received_ == length_) completePrimitive();
    return false;
  }

  const uint8_t b = bytes[(*pos)++];
  countOctets(1);
  switch (state_) {
    case State::kIdentifier:
      if ((b & 0x1F) == 0x1F) {
        tag_ = b >> 5;  // class and constructed bits; the number follows
        state_ = State::kTagNumber;
      } else {
        tag_ = (b & 0x1Fu) * 8 + (b >> 5);
        if (tag_ == 0) {
          // End of contents inside a value; stray zero octets between
          // messages are ignored.
          if (!stack_.empty()) state_ = State::kEndOfContents;
        } else if (tag_ != kIgnoredTag) {
          state_ = State::kLength;
        }
      }
      return false;

    case State::kTagNumber: {
      // Unsigned arithmetic: an absurdly long tag number wraps around and
      // is then refused by whoever is asked for its receiver.
      const uint32_t number = (tag_ >> 3) * 128 + (b & 0x7Fu);
      tag_ = (number << 3) | (tag_ & 7);
      if ((b & 0x80) == 0) state_ = State::kLength;
      return false;
    }

    case State::kLength:
      if (b < 0x80) {
        length_ = b;
        startValue();
      } else if (b == 0x80) {
        length_ = kIndefinite;
        startValue();
      } else {
        lengthOctetCount_ = b & 0x7F;
        if (lengthOctetCount_ > sizeof lengthOctets_) {
          breakFraming(EBer("Length field too long"));
          return false;
        }
        lengthOctets_[0] = 0;
        received_ = 0;  // counts the length octets collected so far
        state_ = State::kLongLength;
      }
      return false;

    case State::kLongLength:
      lengthOctets_[received_++] = b;
      if (received_ == lengthOctetCount_) {
        length_ = 0;
        for (size_t i = 0; i < lengthOctetCount_; ++i) length_ = (length_ << 8) | lengthOctets_[i];
        startValue();
      }
      return false;

    case State::kEndOfContents:
      if (b != 0) {
        breakFraming(EBer("Length field nonzero after zero tag " + std::to_string(b)));
        return false;
      }
      state_ = State::kIdentifier;
      endOfContents();
      return true;

    case State::kContent:
      break;
  }
  return false;
}

std::string BerReader::stackPath() const {
  std::string path;
  for (const Entry& entry : stack_) {
    if (!path.empty()) path += ", ";
    path += util::readable_type_name(typeid(*entry.value)) + ":" + std::to_string(entry.children);
  }
  return path;
}

void BerReader::startValue() {
  state_ = State::kIdentifier;

  BerValue* value = nullptr;
  std::unique_ptr<BerValue> transient;
  std::unique_ptr<BerConstructed> message;
  const auto withPath = [this](auto&& make) {
    try {
      make();
    } catch (EBer& e) {
      e.detail += ", BerReader: " + stackPath();
      throw;
    }
  };
  if (stack_.empty()) {
    withPath([&] { message = protocol_.makeMessage(tag_, decoding_.legacy); });
    value = message.get();
  } else {
    Entry& top = stack_.back();
    const uint32_t index = top.children++;
    // Once the message failed its values are skipped, not asked for.
    const bool asked = !failure_ && guarded([&] {
      withPath([&] {
        protocol::ChildSlot slot = top.value->newChild(index, tag_, decoding_);
        value = slot.value;
        transient = std::move(slot.transient);
      });
    });
    if (!asked) {
      transient = protocol::makeSkipper(tag_);
      value = transient.get();
    }
  }

  if (value == nullptr) util::assert_failed("Value neither BerPrimitive nor BerConstructed");
  const protocol::TagCode own = value->tag(decoding_.legacy);
  if (own != tag_) {
    std::string where = " at top level";
    if (!stack_.empty()) {
      const BerConstructed& parent = *stack_.back().value;
      where = " child of " + util::readable_type_name(typeid(parent));
    }
    util::assert_failed("Internal server error, tag mismatch " + std::to_string(tag_) +
                        " != " + std::to_string(own) + where);
  }

  if (BerConstructed* constructed = value->asConstructed()) {
    if (stack_.size() >= kMaxDepth) {
      breakFraming(EBer("Constructed values nested too deeply"));
      return;
    }
    stack_.push_back(Entry{constructed, std::move(transient), std::move(message), 0, 0, length_});
    closeCompleted();
    return;
  }
  BerPrimitive* primitive = value->asPrimitive();
  if (primitive == nullptr) util::assert_failed("Value neither BerPrimitive nor BerConstructed");
  if (length_ == kIndefinite) {
    breakFraming(EBer("Indefinite length on tag " + std::to_string(tag_)));
    return;
  }
  primitive_ = primitive;
  primitiveOwned_ = std::move(transient);
  received_ = 0;
  if (!guarded([&] { primitive->readStart(length_); })) {
    primitive_ = nullptr;
    primitiveOwned_.reset();
  }
  if (length_ == 0) {
    completePrimitive();
  } else {
    state_ = State::kContent;
  }
}

void BerReader::completePrimitive() {
  state_ = State::kIdentifier;
  BerPrimitive* primitive = primitive_;
  std::unique_ptr<BerValue> owned = std::move(primitiveOwned_);
  primitive_ = nullptr;
  countOctets(received_);
  if (primitive != nullptr) guarded([&] { primitive->readDone(); });
  owned.reset();
  if (stack_.size() == 1) keyed_ = true;
  closeCompleted();
}

void BerReader::endOfContents() {
  if (primitive_ != nullptr) util::assert_failed("Primitive object on top of stack");
  if (stack_.empty()) util::assert_failed("Stack empty");
  closeTop();
  closeCompleted();
}

void BerReader::closeTop() {
  Entry& top = stack_.back();
  if (!failure_) {
    guarded([&] {
      if (top.children < top.value->requiredFields()) {
        throw EBer("Got to few fields of constructed value");
      }
      top.value->readDone();
    });
  }
  finishTop();
}

void BerReader::finishTop() {
  Entry entry = std::move(stack_.back());
  stack_.pop_back();
  if (stack_.empty()) {
    queue_.push_back(Received{std::move(entry.message), std::exchange(failure_, nullptr)});
    keyed_ = false;
  } else {
    stack_.back().consumed += entry.consumed;
    if (stack_.size() == 1) keyed_ = true;
  }
  // A value the reader owns (a list adapter, a skipper) goes with `entry`;
  // one its parent stored stays with the parent.
}

void BerReader::closeCompleted() {
  while (!stack_.empty()) {
    Entry& top = stack_.back();
    if (top.length == kIndefinite || top.consumed != top.length) return;
    closeTop();
  }
}

void BerReader::breakFraming(const EBer& failure) {
  if (!keyedFailures_ || !keyed_) throw failure;
  if (!failure_) failure_ = std::make_exception_ptr(failure);
  broken_ = failure;
  // What is still open refers into the values below it: from the top down.
  primitive_ = nullptr;
  primitiveOwned_.reset();
  while (stack_.size() > 1) stack_.pop_back();
  queue_.push_back(Received{std::move(stack_.back().message), std::exchange(failure_, nullptr)});
  stack_.pop_back();
  keyed_ = false;
}

BerReader::Received BerReader::nextReceived() {
  Received received = takeReceived();
  while (!received.message) {
    readSome(false);
    received = takeReceived();
  }
  return received;
}

std::unique_ptr<BerConstructed> BerReader::nextMessage() {
  Received received = nextReceived();
  if (received.failure) std::rethrow_exception(received.failure);
  return std::move(received.message);
}

}  // namespace protocol
