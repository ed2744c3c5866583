// The primitive values of the wire encoding: booleans, integers of four
// widths, big numbers, reals, nulls, enumerations and strings, plus the
// skippers that read and drop values nobody asked for.
//
// A value is either bound or owning. A bound value refers to a field of a
// message object, which must outlive it; it frees nothing but its receive
// buffer. An owning value holds its own target (what a message stores as a
// choice alternative or list element) and frees it with itself. clone()
// always gives an owning value holding a copy of the current target.
//
// Writing encodes the target's current content; a range or length failure
// throws EBer before anything reaches the stream. Reading follows the
// BerPrimitive protocol: readStart(length), readData(...) pieces adding up to
// the length, then readDone() which decodes into the target or throws EBer.
#ifndef TALVIX_PROTOCOL_BER_PRIMITIVES_H_
#define TALVIX_PROTOCOL_BER_PRIMITIVES_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "protocol/ber_value.h"
#include "protocol/tags.h"
#include "util/bignum.h"

namespace protocol {

// Base of every value decoded from a small receive buffer. readStart throws
// EBer "Data value exceeds maximum allowed length <n> > <max>" when the
// announced length exceeds the maximum; content of up to 64 octets (every
// value but a big number) is kept inside the object, longer content in a
// buffer of exactly `length` octets. == looks at the received octets only:
// true when both received the same octets; a value of another family
// compares false.
class BerShortValue : public BerPrimitive {
 public:
  ~BerShortValue() override;
  void readStart(size_t length) override;
  void readData(const uint8_t* bytes, size_t count) override;
  bool operator==(const BerValue& other) const override;

  bool ownsTarget() const { return ownsTarget_; }

 protected:
  BerShortValue(size_t maxLength, bool ownsTarget);
  BerShortValue(const BerShortValue&) = delete;
  BerShortValue& operator=(const BerShortValue&) = delete;

  // The octets received so far; valid until the next readStart() or the
  // value's destruction.
  const uint8_t* received() const { return buffer_; }
  size_t receivedLength() const { return receivedLength_; }

 private:
  bool ownsTarget_;
  size_t receivedLength_ = 0;
  size_t bufferLength_ = 0;
  uint8_t* buffer_ = nullptr;  // inline_ or heap_
  std::unique_ptr<uint8_t[]> heap_;
  size_t maxLength_;
  uint8_t inline_[64];
};

// BOOLEAN: one octet 01/00 on write; any non-zero first octet reads as true,
// no content as false.
class BerBoolean : public BerShortValue {
 public:
  BerBoolean(bool& target, TagCode tag);  // bound
  explicit BerBoolean(TagCode tag);       // owning, false
  ~BerBoolean() override;

  bool value() const { return *target_; }
  void set_value(bool value) { *target_ = value; }

  std::unique_ptr<BerValue> clone() const override;
  TagCode tag(bool legacy) const override;
  void readDone() override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  // What write() writes for `value`, without an object.
  static void encode(net::ByteOutput& stream, bool value, TagCode tag);

 private:
  std::unique_ptr<bool> owned_;
  bool* target_;
  TagCode tag_;
};

// REAL: NaN 60, infinities 40/41, zero without content, everything else 00
// and the "%e" text. Reads accept up to 60 content octets; NaN reads as 0.0.
class BerReal : public BerShortValue {
 public:
  BerReal(double& target, TagCode tag);  // bound
  explicit BerReal(TagCode tag);         // owning, 0.0
  ~BerReal() override;

  double value() const { return *target_; }
  void set_value(double value) { *target_ = value; }

  std::unique_ptr<BerValue> clone() const override;
  TagCode tag(bool legacy) const override;
  void readDone() override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  // What write() writes for `value`, without an object.
  static void encode(net::ByteOutput& stream, double value, TagCode tag);

 private:
  std::unique_ptr<double> owned_;
  double* target_;
  TagCode tag_;
};

// INTEGER of one of four widths, range-checked against [min, max] on write
// and on read. Instantiated for int32_t, uint32_t, int64_t and uint64_t only
// (the messages name them "int", "unsigned int", "__int64" and
// "unsigned __int64"); maximum content length 4, 5, 8 and 9 octets.
template <class T>
class BerIntegerTemplate : public BerShortValue {
 public:
  BerIntegerTemplate(T& target, T min, T max, TagCode tag);  // bound
  BerIntegerTemplate(T min, T max, TagCode tag);             // owning, 0
  ~BerIntegerTemplate() override;

  T value() const { return *target_; }
  void set_value(T value) { *target_ = value; }
  T min() const { return min_; }
  T max() const { return max_; }

  std::unique_ptr<BerValue> clone() const override;
  TagCode tag(bool legacy) const override;
  void readDone() override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  // What write() writes for `value` in [min, max], without an object;
  // throws as write() out of that range.
  static void encode(net::ByteOutput& stream, T value, T min, T max, TagCode tag);

 private:
  std::unique_ptr<T> owned_;
  T* target_;
  T min_;
  T max_;
  TagCode tag_;
};

// The content octets of an INTEGER as BerIntegerTemplate writes them, at
// most sizeof(T) + 1 into `out`: the shortest two's complement, unsigned
// values with a leading 00 when their top bit is set. Returns the count.
template <class T>
size_t integer_content(T value, uint8_t* out) {
  constexpr int kBytes = sizeof(T);
  size_t n = 0;
  if constexpr (std::is_signed_v<T>) {
    for (int k = kBytes - 1; k >= 1; --k) {
      const T high = value >> (8 * k - 1);
      if (high != 0 && high != -1) out[n++] = static_cast<uint8_t>(value >> (8 * k));
    }
  } else {
    if ((value >> (8 * kBytes - 1)) != 0) out[n++] = 0x00;
    for (int k = kBytes - 1; k >= 1; --k) {
      if ((value >> (8 * k - 1)) != 0) out[n++] = static_cast<uint8_t>(value >> (8 * k));
    }
  }
  out[n++] = static_cast<uint8_t>(value);
  return n;
}

using BerInt32 = BerIntegerTemplate<int32_t>;
using BerUInt32 = BerIntegerTemplate<uint32_t>;
using BerInt64 = BerIntegerTemplate<int64_t>;
using BerUInt64 = BerIntegerTemplate<uint64_t>;

extern template class BerIntegerTemplate<int32_t>;
extern template class BerIntegerTemplate<uint32_t>;
extern template class BerIntegerTemplate<int64_t>;
extern template class BerIntegerTemplate<uint64_t>;

// INTEGER carrying a BigNum magnitude (at most 1040 octets); zero has no
// content octets. Each read builds a fresh BigNum and assigns it.
class BerBigNum : public BerShortValue {
 public:
  BerBigNum(util::BigNum& target, TagCode tag);  // bound
  explicit BerBigNum(TagCode tag);         // owning, 0
  ~BerBigNum() override;

  const util::BigNum& value() const { return *target_; }
  void set_value(const util::BigNum& value) { *target_ = value; }

  std::unique_ptr<BerValue> clone() const override;
  TagCode tag(bool legacy) const override;
  void readDone() override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  // What write() writes for `value`, without an object.
  static void encode(net::ByteOutput& stream, const util::BigNum& value, TagCode tag);

 private:
  std::unique_ptr<util::BigNum> owned_;
  util::BigNum* target_;
  TagCode tag_;
};

// NULL: no content; any content fails in readStart. A kept null is stored by
// its owner (the value choice of a message); a transient one stands for the
// absent case of a nullable integer and is dropped after reading.
class BerNull : public BerShortValue {
 public:
  BerNull(TagCode tag, bool kept);
  ~BerNull() override;

  bool kept() const { return ownsTarget(); }

  std::unique_ptr<BerValue> clone() const override;  // a kept null
  TagCode tag(bool legacy) const override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  // What write() writes, without an object.
  static void encode(net::ByteOutput& stream, TagCode tag);

 private:
  TagCode tag_;
};

// ENUMERATED over a signed 32-bit field, tag always BE_ENUMERATED, at most
// 4 content octets, no range test. 0 has no content octets; negative values
// take four.
class BerEnumerated : public BerShortValue {
 public:
  ~BerEnumerated() override;

  int32_t value() const { return *target_; }
  void set_value(int32_t value) { *target_ = value; }

  TagCode tag(bool legacy) const override;
  void readDone() override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  // What write() writes for `value`, without an object.
  static void encode(net::ByteOutput& stream, int32_t value);

 protected:
  explicit BerEnumerated(int32_t& target);  // bound
  BerEnumerated();                          // owning, 0

 private:
  std::unique_ptr<int32_t> owned_;
  int32_t* target_;
};

// The enumeration types of the messages; they differ only in their name.
#define TALVIX_ENUMERATION_CLASS(NAME)                        \
  class NAME : public BerEnumerated {                         \
   public:                                                    \
    explicit NAME(int32_t& target) : BerEnumerated(target) {} \
    NAME() = default;                                         \
    std::unique_ptr<BerValue> clone() const override;         \
  };
TALVIX_ENUMERATION_CLASS(CheckType)
TALVIX_ENUMERATION_CLASS(CheckStatus)
TALVIX_ENUMERATION_CLASS(Decision)
TALVIX_ENUMERATION_CLASS(SeparatorInclusion)
TALVIX_ENUMERATION_CLASS(RelOperator)
TALVIX_ENUMERATION_CLASS(Severity)
#undef TALVIX_ENUMERATION_CLASS

// OCTET STRING / IA5String (the tag is chosen by the message from the
// encoding). Longer than the maximum fails on write and in readStart with
// EBer "String exceeds allowed length <n> > <max>". Content is appended to
// the target as it arrives (readStart clears it first). == compares
// contents.
class BerString : public BerPrimitive {
 public:
  BerString(std::string& target, size_t maxLength, TagCode tag);  // bound
  BerString(size_t maxLength, TagCode tag);                        // owning, empty
  BerString(const BerString& other);                               // owning copy
  BerString& operator=(const BerString&) = delete;
  ~BerString() override;

  const std::string& value() const { return *target_; }
  void set_value(std::string value) { *target_ = std::move(value); }
  size_t maxLength() const { return maxLength_; }
  bool ownsTarget() const { return owned_ != nullptr; }

  std::unique_ptr<BerValue> clone() const override;
  TagCode tag(bool legacy) const override;
  bool operator==(const BerValue& other) const override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  // What write() writes for `value`, without an object; throws as write()
  // when it is longer than `maxLength`.
  static void encode(net::ByteOutput& stream, std::string_view value, size_t maxLength,
                     TagCode tag);
  void readStart(size_t length) override;
  void readData(const uint8_t* bytes, size_t count) override;

 private:
  std::unique_ptr<std::string> owned_;
  std::string* target_;
  size_t maxLength_;
  TagCode tag_;
};

// Reads a primitive value of any tag and length and drops its content.
// Writing one is a programming error (assertion).
class BerPrimitiveSkipper : public BerPrimitive {
 public:
  explicit BerPrimitiveSkipper(TagCode tag) : tag_(tag) {}

  std::unique_ptr<BerValue> clone() const override;
  TagCode tag(bool legacy) const override;
  bool operator==(const BerValue& other) const override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  void readStart(size_t length) override;
  void readData(const uint8_t* bytes, size_t count) override;

 private:
  TagCode tag_;
};

// Reads a constructed value of any tag: requires no children and answers
// every child with makeSkipper. Writing one is a programming error
// (assertion).
class BerConstructedSkipper : public BerConstructed {
 public:
  explicit BerConstructedSkipper(TagCode tag) : tag_(tag) {}

  std::unique_ptr<BerValue> clone() const override;
  TagCode tag(bool legacy) const override;
  bool operator==(const BerValue& other) const override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  ChildSlot newChild(uint32_t index, TagCode tag, const Decoding& decoding) override;
  uint32_t requiredFields() const override { return 0; }

 private:
  TagCode tag_;
};

// A skipper for a value of `tag`: constructed when bit 0 is set, else
// primitive. Message classes return it, owned by the reader
// (ChildSlot::owned_by_reader), for children they do not know.
std::unique_ptr<BerValue> makeSkipper(TagCode tag);

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_BER_PRIMITIVES_H_
