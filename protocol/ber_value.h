// The root classes of every BER value: primitives (integers, strings, reals,
// ...) and constructed values (the message, list and set classes).
//
// A value object is an adapter: writing encodes the current content of the
// field it is bound to, reading fills that field. Reading is push-style: the
// stream reader hands content to primitives (readStart/readData/readDone) and
// asks constructed values for the object that receives each child (newChild).
#ifndef TALVIX_PROTOCOL_BER_VALUE_H_
#define TALVIX_PROTOCOL_BER_VALUE_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "net/basic_io.h"
#include "util/error.h"

namespace protocol {

// Tag code: number * 8 + class * 2 + constructed.
using TagCode = uint32_t;

// A decoding failure or a write-side range/length failure.
class EBer : public util::EParseError {
 public:
  explicit EBer(std::string message) : EParseError(std::move(message)) {}
};

class BerPrimitive;
class BerConstructed;

class BerValue {
 public:
  virtual ~BerValue() = default;
  // A new owning deep copy.
  virtual std::unique_ptr<BerValue> clone() const = 0;
  // Primitives report the code they were made with; constructed values the
  // code of the given encoding.
  virtual TagCode tag(bool legacy) const = 0;
  // Decodes what was received; called once when the value is complete.
  virtual void readDone() {}
  virtual bool operator==(const BerValue& other) const = 0;
  // Encodes tag, length and content.
  virtual void write(net::ByteOutput& stream, bool legacy) const = 0;
  // The value as one of the two kinds, null for the other: how the reader
  // tells them apart without run-time type identification on every value.
  virtual BerPrimitive* asPrimitive() { return nullptr; }
  virtual BerConstructed* asConstructed() { return nullptr; }
};

class BerPrimitive : public BerValue {
 public:
  // Called once with the content length before any content; throws EBer when
  // the length exceeds the value's maximum.
  virtual void readStart(size_t length) = 0;
  // Successive pieces of content, adding up to the announced length.
  virtual void readData(const uint8_t* bytes, size_t count) = 0;
  BerPrimitive* asPrimitive() final { return this; }
};

// What the reader tells the receiver of every child along with its tag.
struct Decoding {
  // The peer's encoding (see BerReader).
  bool legacy = false;
  // Whether an object that arrives among another object's children keeps its
  // properties (protocol::Object). When false, each of its properties is
  // decoded and checked as usual and then freed before the next one starts,
  // so a property that fails still fails its message; the object keeps its
  // class name, flags, id and children.
  bool nestedProperties = true;
};

// What newChild() returns: the object that receives the child. When
// `transient` is set the reader owns the object (`value` points into it) and
// destroys it once the child is complete (bound primitives, list adapters,
// skippers); otherwise the parent stored the object and keeps owning it.
struct ChildSlot {
  BerValue* value = nullptr;
  std::unique_ptr<BerValue> transient;

  static ChildSlot owned_by_parent(BerValue* value) { return ChildSlot{value, nullptr}; }
  static ChildSlot owned_by_reader(std::unique_ptr<BerValue> value) {
    BerValue* raw = value.get();
    return ChildSlot{raw, std::move(value)};
  }
};

class BerConstructed : public BerValue {
 public:
  // The object that receives child `index` (0-based), which arrived with
  // `tag`. Throws EBer when the tag is not acceptable at that position.
  virtual ChildSlot newChild(uint32_t index, TagCode tag, const Decoding& decoding) = 0;
  // The least number of children that must have arrived when the value ends.
  virtual uint32_t requiredFields() const = 0;
  BerConstructed* asConstructed() final { return this; }
};

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_BER_VALUE_H_
