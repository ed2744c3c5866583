// Feeds arbitrary bytes through the BER reader as a server would send them.
// The first input octet chooses the setting: its low six bits the chunk
// size the fake connection delivers, bit 6 the protocol, bit 7 the early
// end. Every decoding failure must surface as an util::Exception, never as
// a crash, hang or runaway allocation.
//
// Each input is read twice, with messages found whole decoded in one pass
// and with every octet through the state machine; the two readings must
// give the same messages (compared by their encoding) and end with the same
// failure, or the target aborts.
//
// Two protocols take turns: the client's own message classes, and "open"
// sequences that accept every child and decode each primitive with the
// value class its tag suggests, so arbitrary content reaches every
// primitive decoder as well as the state machine.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "net/string_output.h"
#include "protocol/ber_primitives.h"
#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"
#include "protocol/tags.h"
#include "util/bignum.h"
#include "util/error.h"

namespace {

using namespace protocol;

class OpenSequence : public BerConstructed {
 public:
  explicit OpenSequence(TagCode tag) : tag_(tag) {}
  std::unique_ptr<BerValue> clone() const override { return std::make_unique<OpenSequence>(tag_); }
  TagCode tag(bool) const override { return tag_; }
  bool operator==(const BerValue& other) const override { return this == &other; }
  void write(net::ByteOutput& stream, bool) const override {
    write_tag(stream, tag_);
    write_indefinite(stream);
    write_end_of_contents(stream);
  }
  uint32_t requiredFields() const override { return tag_ % 3; }

  ChildSlot newChild(uint32_t index, TagCode tag, const Decoding& decoding) override {
    if ((tag & 1) != 0) {
      if (index % 4 == 3) return ChildSlot::owned_by_reader(makeSkipper(tag));
      children_.push_back(std::make_unique<OpenSequence>(tag));
      return ChildSlot::owned_by_parent(children_.back().get());
    }
    switch (tag) {
      case BE_INTEGER:
        switch (index % 5) {
          case 0:
            return ChildSlot::owned_by_reader(
                std::make_unique<BerInt32>(i32_, INT32_MIN, 65535, BE_INTEGER));
          case 1:
            return ChildSlot::owned_by_reader(
                std::make_unique<BerUInt32>(u32_, 0, UINT32_MAX, BE_INTEGER));
          case 2:
            return ChildSlot::owned_by_reader(
                std::make_unique<BerInt64>(i64_, INT64_MIN, INT64_MAX, BE_INTEGER));
          case 3:
            return ChildSlot::owned_by_reader(
                std::make_unique<BerUInt64>(u64_, 0, UINT64_MAX, BE_INTEGER));
          default:
            return ChildSlot::owned_by_reader(std::make_unique<BerBigNum>(big_, BE_INTEGER));
        }
      case BE_BOOLEAN:
        return ChildSlot::owned_by_reader(std::make_unique<BerBoolean>(flag_, BE_BOOLEAN));
      case BE_REAL:
        return ChildSlot::owned_by_reader(std::make_unique<BerReal>(real_, BE_REAL));
      case BE_ENUMERATED:
        return ChildSlot::owned_by_reader(std::make_unique<Severity>(enum_));
      case BE_NULL:
        return ChildSlot::owned_by_reader(std::make_unique<BerNull>(BE_NULL, false));
      default:
        if (tag == string_tag(decoding.legacy)) {
          return ChildSlot::owned_by_reader(std::make_unique<BerString>(text_, 1024, tag));
        }
        if (tag % 7 == 0) throw EBer("Unexpected tag " + std::to_string(tag));
        return ChildSlot::owned_by_reader(makeSkipper(tag));
    }
  }

 private:
  TagCode tag_;
  std::vector<std::unique_ptr<OpenSequence>> children_;
  int32_t i32_ = 0;
  uint32_t u32_ = 0;
  int64_t i64_ = 0;
  uint64_t u64_ = 0;
  util::BigNum big_;
  bool flag_ = false;
  double real_ = 0;
  int32_t enum_ = 0;
  std::string text_;
};

class OpenProtocol : public BerProtocol {
 public:
  std::unique_ptr<BerConstructed> makeMessage(TagCode tag, bool) const override {
    if ((tag & 1) == 0 || tag % 5 == 0) throw EBer("Unknown tag " + std::to_string(tag));
    return std::make_unique<OpenSequence>(tag);
  }
};

// Serves the input in chunks of a fixed size, then reports the end of the
// stream as the socket stream does.
class ChunkStream : public net::BasicIo {
 public:
  ChunkStream(const uint8_t* data, size_t size, size_t chunk)
      : data_(data), size_(size), chunk_(chunk) {}
  uint64_t read(void* buffer, uint64_t capacity) override {
    if (capacity == 0) return 0;
    if (pos_ == size_) throw util::ESystemError("Error reading: end of stream");
    const size_t count = std::min<size_t>({chunk_, size_ - pos_, static_cast<size_t>(capacity)});
    std::memcpy(buffer, data_ + pos_, count);
    pos_ += count;
    return count;
  }
  bool readable() override { return pos_ < size_; }
  void write(const void*, size_t) override {}
  void flush() override {}

 private:
  const uint8_t* data_;
  size_t size_;
  size_t chunk_;
  size_t pos_ = 0;
};

// What one reading of the input gave: each message's encoding, then the
// text of the failure that ended it.
std::string read_input(const uint8_t* data, size_t size, bool wholeMessages) {
  static const OpenProtocol open;
  const BerProtocol& protocol = (data[0] & 0x40) != 0 ? guiProtocol() : open;
  const size_t chunk = (data[0] & 0x3F) == 0 ? 65536 : (data[0] & 0x3F);
  auto owned = std::make_unique<ChunkStream>(data + 1, size - 1, chunk);
  ChunkStream* stream = owned.get();
  protocol::BerReader reader(protocol, std::move(owned));
  reader.setWholeMessages(wholeMessages);
  std::string transcript;
  try {
    while (stream->readable()) {
      reader.readSome((data[0] & 0x80) != 0);
      while (auto message = reader.takeMessage()) {
        // A received message goes out again in the connection's encoding.
        net::StringOutput encoded;
        message->write(encoded, reader.legacy());
        transcript += encoded.bytes + "|";
        reader.send(*message);
      }
    }
  } catch (const util::Exception& e) {
    // A refused input: what the session would report to the user.
    transcript += "failure: " + e.text();
  }
  return transcript;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (read_input(data, size, true) != read_input(data, size, false)) std::abort();
  return 0;
}
