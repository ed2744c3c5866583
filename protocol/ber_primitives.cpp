#include "protocol/ber_primitives.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <type_traits>

#include "util/error.h"
#include "util/format.h"

namespace protocol {

namespace {

// Writes tag, length and the (short) content in one piece, so a stream
// failure never leaves half a header behind a full value.
void write_short(net::ByteOutput& stream, TagCode tag, const uint8_t* content, size_t length) {
  uint8_t octets[6 + 5 + 64];
  if (length > 64) util::assert_failed("Short BER value too long");
  size_t n = encode_tag(tag, octets);
  n += encode_length(length, octets + n);
  if (length > 0) std::memcpy(octets + n, content, length);
  stream.write(octets, n + length);
}

template <class T>
const char* integer_type_name() {
  if constexpr (std::is_same_v<T, int32_t>) {
    return "int";
  } else if constexpr (std::is_same_v<T, uint32_t>) {
    return "unsigned int";
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return "__int64";
  } else {
    static_assert(std::is_same_v<T, uint64_t>);
    return "unsigned __int64";
  }
}

// Content octets of an integer: sizeof(T) for signed, one more for unsigned.
template <class T>
constexpr size_t integer_max_length() {
  return sizeof(T) + (std::is_signed_v<T> ? 0 : 1);
}

template <class T>
std::string range_text(const char* operation, T min, T value, T max) {
  return std::string("data out of range in BerIntegerTemplate<") + integer_type_name<T>() +
         ">::" + operation + " " + std::to_string(min) + " <= " + std::to_string(value) +
         " <= " + std::to_string(max);
}

}  // namespace

// ---- BerShortValue ---------------------------------------------------------

BerShortValue::BerShortValue(size_t maxLength, bool ownsTarget)
    : ownsTarget_(ownsTarget), maxLength_(maxLength) {}

BerShortValue::~BerShortValue() = default;

void BerShortValue::readStart(size_t length) {
  if (length > maxLength_) {
    throw EBer("Data value exceeds maximum allowed length " + std::to_string(length) + " > " +
               std::to_string(maxLength_));
  }
  if (length > sizeof inline_) {
    heap_ = std::make_unique<uint8_t[]>(length);
    buffer_ = heap_.get();
  } else {
    heap_.reset();
    buffer_ = inline_;
  }
  bufferLength_ = length;
  receivedLength_ = 0;
}

void BerShortValue::readData(const uint8_t* bytes, size_t count) {
  if (count > bufferLength_ - receivedLength_) {
    util::assert_failed("More content than announced for BerShortValue");
  }
  std::memcpy(buffer_ + receivedLength_, bytes, count);
  receivedLength_ += count;
}

bool BerShortValue::operator==(const BerValue& other) const {
  const auto* o = dynamic_cast<const BerShortValue*>(&other);
  if (o == nullptr || o->receivedLength_ != receivedLength_) return false;
  return receivedLength_ == 0 ||
         std::memcmp(buffer_, o->buffer_, receivedLength_) == 0;
}

// ---- BerBoolean ------------------------------------------------------------

BerBoolean::BerBoolean(bool& target, TagCode tag)
    : BerShortValue(1, false), target_(&target), tag_(tag) {}

BerBoolean::BerBoolean(TagCode tag)
    : BerShortValue(1, true), owned_(std::make_unique<bool>(false)), target_(owned_.get()),
      tag_(tag) {}

BerBoolean::~BerBoolean() = default;

std::unique_ptr<BerValue> BerBoolean::clone() const {
  auto copy = std::make_unique<BerBoolean>(tag_);
  copy->set_value(value());
  return copy;
}

TagCode BerBoolean::tag(bool) const { return tag_; }

void BerBoolean::readDone() { *target_ = receivedLength() > 0 && received()[0] != 0; }

void BerBoolean::write(net::ByteOutput& stream, bool) const { encode(stream, *target_, tag_); }

void BerBoolean::encode(net::ByteOutput& stream, bool value, TagCode tag) {
  const uint8_t content = value ? 0x01 : 0x00;
  write_short(stream, tag, &content, 1);
}

// ---- BerReal ---------------------------------------------------------------

BerReal::BerReal(double& target, TagCode tag)
    : BerShortValue(60, false), target_(&target), tag_(tag) {}

BerReal::BerReal(TagCode tag)
    : BerShortValue(60, true), owned_(std::make_unique<double>(0.0)), target_(owned_.get()),
      tag_(tag) {}

BerReal::~BerReal() = default;

std::unique_ptr<BerValue> BerReal::clone() const {
  auto copy = std::make_unique<BerReal>(tag_);
  copy->set_value(value());
  return copy;
}

TagCode BerReal::tag(bool) const { return tag_; }

void BerReal::readDone() {
  const size_t n = receivedLength();
  if (n == 0) {
    *target_ = 0.0;
    return;
  }
  const uint8_t* content = received();
  switch (content[0]) {
    case 0x00: {
      // The usual text, a plain decimal number, is read without a copy;
      // anything else (blanks, a plus sign, hexadecimal, out of range) the
      // way strtod reads it.
      const char* first = reinterpret_cast<const char*>(content + 1);
      const char* last = first + (n - 1);
      double value = 0.0;
      const std::from_chars_result fast = std::from_chars(first, last, value);
      if (fast.ec == std::errc() && fast.ptr == last) {
        *target_ = value;
        return;
      }
      const std::string text(first, last);
      try {
        *target_ = util::parse_real(text);
      } catch (const util::EParseError&) {
        throw EBer("Parse error in real number");
      }
      return;
    }
    case 0x40:
      *target_ = std::numeric_limits<double>::infinity();
      return;
    case 0x41:
      *target_ = -std::numeric_limits<double>::infinity();
      return;
    case 0x60:
      *target_ = 0.0;
      return;
    default:
      throw EBer("Unsupported real number format revceived");
  }
}

void BerReal::write(net::ByteOutput& stream, bool) const { encode(stream, *target_, tag_); }

void BerReal::encode(net::ByteOutput& stream, double value, TagCode tag) {
  uint8_t content[60];
  size_t n = 0;
  if (std::isnan(value)) {
    content[n++] = 0x60;
  } else if (std::fabs(value) >= 1.0 && value == value / 2) {
    content[n++] = value > 0 ? 0x40 : 0x41;
  } else if (value != 0.0) {
    content[n++] = 0x00;
    // printf's "%e": six decimals, an exponent of at least two digits.
    char text[64];
    const std::to_chars_result result =
        std::to_chars(text, text + 59, value, std::chars_format::scientific, 6);
    if (result.ec != std::errc()) {
      util::assert_failed("String representation of double larger than buffer");
    }
    const auto length = static_cast<size_t>(result.ptr - text);
    std::memcpy(content + n, text, length);
    n += length;
  }
  write_short(stream, tag, content, n);
}

// ---- BerIntegerTemplate ----------------------------------------------------

template <class T>
BerIntegerTemplate<T>::BerIntegerTemplate(T& target, T min, T max, TagCode tag)
    : BerShortValue(integer_max_length<T>(), false), target_(&target), min_(min), max_(max),
      tag_(tag) {}

template <class T>
BerIntegerTemplate<T>::BerIntegerTemplate(T min, T max, TagCode tag)
    : BerShortValue(integer_max_length<T>(), true), owned_(std::make_unique<T>(0)),
      target_(owned_.get()), min_(min), max_(max), tag_(tag) {}

template <class T>
BerIntegerTemplate<T>::~BerIntegerTemplate() = default;

template <class T>
std::unique_ptr<BerValue> BerIntegerTemplate<T>::clone() const {
  auto copy = std::make_unique<BerIntegerTemplate<T>>(min_, max_, tag_);
  copy->set_value(value());
  return copy;
}

template <class T>
TagCode BerIntegerTemplate<T>::tag(bool) const {
  return tag_;
}

template <class T>
void BerIntegerTemplate<T>::readDone() {
  using U = std::make_unsigned_t<T>;
  const size_t n = receivedLength();
  const uint8_t* content = received();
  U accumulated = 0;
  if constexpr (std::is_signed_v<T>) {
    if (n > 0 && (content[0] & 0x80) != 0) accumulated = static_cast<U>(~U{0});
  } else {
    if (n == integer_max_length<T>() && content[0] != 0x00) {
      throw EBer("data out of range in BerIntegerTemplate");
    }
  }
  // Shifting by 8 drops the octet that a five- (nine-) octet unsigned
  // content starts with, which is 00 by the test above.
  for (size_t i = 0; i < n; ++i) accumulated = static_cast<U>((accumulated << 8) | content[i]);
  const T value = static_cast<T>(accumulated);
  if (value < min_ || value > max_) throw EBer(range_text<T>("readDone", min_, value, max_));
  *target_ = value;
}

template <class T>
void BerIntegerTemplate<T>::write(net::ByteOutput& stream, bool) const {
  encode(stream, *target_, min_, max_, tag_);
}

template <class T>
void BerIntegerTemplate<T>::encode(net::ByteOutput& stream, T value, T min, T max, TagCode tag) {
  if (value < min || value > max) throw EBer(range_text<T>("write", min, value, max));
  uint8_t content[sizeof(T) + 1];
  write_short(stream, tag, content, integer_content<T>(value, content));
}

template class BerIntegerTemplate<int32_t>;
template class BerIntegerTemplate<uint32_t>;
template class BerIntegerTemplate<int64_t>;
template class BerIntegerTemplate<uint64_t>;

// ---- BerBigNum -------------------------------------------------------------

namespace {
constexpr size_t kBigNumMaxLength = 1040;
}  // namespace

BerBigNum::BerBigNum(util::BigNum& target, TagCode tag)
    : BerShortValue(kBigNumMaxLength, false), target_(&target), tag_(tag) {}

BerBigNum::BerBigNum(TagCode tag)
    : BerShortValue(kBigNumMaxLength, true),
      owned_(std::make_unique<util::BigNum>()),
      target_(owned_.get()),
      tag_(tag) {}

BerBigNum::~BerBigNum() = default;

std::unique_ptr<BerValue> BerBigNum::clone() const {
  auto copy = std::make_unique<BerBigNum>(tag_);
  copy->set_value(value());
  return copy;
}

TagCode BerBigNum::tag(bool) const { return tag_; }

void BerBigNum::readDone() {
  util::BigNum fresh;
  if (receivedLength() > 0) util::bn_set_data(fresh, received(), receivedLength());
  *target_ = fresh;
}

void BerBigNum::write(net::ByteOutput& stream, bool) const { encode(stream, *target_, tag_); }

void BerBigNum::encode(net::ByteOutput& stream, const util::BigNum& value, TagCode tag) {
  uint8_t content[kBigNumMaxLength];
  size_t length = sizeof content;
  util::bn_get_data(value, content, length);
  write_tag(stream, tag);
  write_length(stream, length);
  if (length > 0) stream.write(content, length);
}

// ---- BerNull ---------------------------------------------------------------

BerNull::BerNull(TagCode tag, bool kept) : BerShortValue(0, kept), tag_(tag) {}

BerNull::~BerNull() = default;

std::unique_ptr<BerValue> BerNull::clone() const { return std::make_unique<BerNull>(tag_, true); }

TagCode BerNull::tag(bool) const { return tag_; }

void BerNull::write(net::ByteOutput& stream, bool) const { encode(stream, tag_); }

void BerNull::encode(net::ByteOutput& stream, TagCode tag) { write_short(stream, tag, nullptr, 0); }

// ---- BerEnumerated ---------------------------------------------------------

BerEnumerated::BerEnumerated(int32_t& target) : BerShortValue(4, false), target_(&target) {}

BerEnumerated::BerEnumerated()
    : BerShortValue(4, true), owned_(std::make_unique<int32_t>(0)), target_(owned_.get()) {}

BerEnumerated::~BerEnumerated() = default;

TagCode BerEnumerated::tag(bool) const { return BE_ENUMERATED; }

void BerEnumerated::readDone() {
  const size_t n = receivedLength();
  const uint8_t* content = received();
  uint32_t accumulated = (n > 0 && (content[0] & 0x80) != 0) ? ~uint32_t{0} : 0;
  for (size_t i = 0; i < n; ++i) accumulated = (accumulated << 8) | content[i];
  *target_ = static_cast<int32_t>(accumulated);
}

void BerEnumerated::write(net::ByteOutput& stream, bool) const { encode(stream, *target_); }

void BerEnumerated::encode(net::ByteOutput& stream, int32_t v) {
  const uint32_t bits = static_cast<uint32_t>(v);
  uint8_t content[4];
  size_t n = 0;
  if ((bits & 0xFF800000u) != 0) content[n++] = static_cast<uint8_t>(v >> 24);
  if ((bits & 0xFFFF8000u) != 0) content[n++] = static_cast<uint8_t>(v >> 16);
  if ((bits & 0xFFFFFF80u) != 0) content[n++] = static_cast<uint8_t>(v >> 8);
  if (v != 0) content[n++] = static_cast<uint8_t>(v);
  write_short(stream, BE_ENUMERATED, content, n);
}

#define TALVIX_ENUMERATION_CLONE(NAME)                 \
  std::unique_ptr<BerValue> NAME::clone() const {      \
    auto copy = std::make_unique<NAME>();              \
    copy->set_value(value());                          \
    return copy;                                       \
  }
TALVIX_ENUMERATION_CLONE(CheckType)
TALVIX_ENUMERATION_CLONE(CheckStatus)
TALVIX_ENUMERATION_CLONE(Decision)
TALVIX_ENUMERATION_CLONE(SeparatorInclusion)
TALVIX_ENUMERATION_CLONE(RelOperator)
TALVIX_ENUMERATION_CLONE(Severity)
#undef TALVIX_ENUMERATION_CLONE

// ---- BerString -------------------------------------------------------------

BerString::BerString(std::string& target, size_t maxLength, TagCode tag)
    : target_(&target), maxLength_(maxLength), tag_(tag) {}

BerString::BerString(size_t maxLength, TagCode tag)
    : owned_(std::make_unique<std::string>()), target_(owned_.get()), maxLength_(maxLength),
      tag_(tag) {}

BerString::BerString(const BerString& other)
    : BerPrimitive(), owned_(std::make_unique<std::string>(*other.target_)),
      target_(owned_.get()), maxLength_(other.maxLength_), tag_(other.tag_) {}

BerString::~BerString() = default;

std::unique_ptr<BerValue> BerString::clone() const { return std::make_unique<BerString>(*this); }

TagCode BerString::tag(bool) const { return tag_; }

bool BerString::operator==(const BerValue& other) const {
  const auto* o = dynamic_cast<const BerString*>(&other);
  return o != nullptr && (o->target_ == target_ || *o->target_ == *target_);
}

void BerString::write(net::ByteOutput& stream, bool) const {
  encode(stream, *target_, maxLength_, tag_);
}

void BerString::encode(net::ByteOutput& stream, std::string_view value, size_t maxLength,
                       TagCode tag) {
  const size_t length = value.size();
  if (length > maxLength) {
    throw EBer("String exceeds allowed length " + std::to_string(length) + " > " +
               std::to_string(maxLength));
  }
  uint8_t header[6 + 5];
  size_t n = encode_tag(tag, header);
  n += encode_length(length, header + n);
  stream.write(header, n);
  if (length > 0) stream.write(value.data(), length);
}

void BerString::readStart(size_t length) {
  if (length > maxLength_) {
    throw EBer("String exceeds allowed length " + std::to_string(length) + " > " +
               std::to_string(maxLength_));
  }
  target_->clear();
}

void BerString::readData(const uint8_t* bytes, size_t count) {
  target_->append(reinterpret_cast<const char*>(bytes), count);
}

// ---- Skippers --------------------------------------------------------------

std::unique_ptr<BerValue> BerPrimitiveSkipper::clone() const {
  return std::make_unique<BerPrimitiveSkipper>(tag_);
}

TagCode BerPrimitiveSkipper::tag(bool) const { return tag_; }

bool BerPrimitiveSkipper::operator==(const BerValue& other) const {
  return dynamic_cast<const BerPrimitiveSkipper*>(&other) != nullptr;
}

void BerPrimitiveSkipper::write(net::ByteOutput&, bool) const {
  util::assert_failed("BerPrimitiveSkipper::write invoked");
}

void BerPrimitiveSkipper::readStart(size_t) {}

void BerPrimitiveSkipper::readData(const uint8_t*, size_t) {}

std::unique_ptr<BerValue> BerConstructedSkipper::clone() const {
  return std::make_unique<BerConstructedSkipper>(tag_);
}

TagCode BerConstructedSkipper::tag(bool) const { return tag_; }

bool BerConstructedSkipper::operator==(const BerValue& other) const {
  return dynamic_cast<const BerConstructedSkipper*>(&other) != nullptr;
}

void BerConstructedSkipper::write(net::ByteOutput&, bool) const {
  util::assert_failed("BerConstructedSkipper::write invoked");
}

ChildSlot BerConstructedSkipper::newChild(uint32_t, TagCode tag, const Decoding&) {
  return ChildSlot::owned_by_reader(makeSkipper(tag));
}

std::unique_ptr<BerValue> makeSkipper(TagCode tag) {
  if ((tag & 1) != 0) return std::make_unique<BerConstructedSkipper>(tag);
  return std::make_unique<BerPrimitiveSkipper>(tag);
}

}  // namespace protocol
