#include "protocol/ber_primitives.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "protocol/tags.h"
#include "support/ber_streams.h"
#include "util/bignum.h"

namespace protocol {
namespace {

using testing_support::ByteSink;
using testing_support::Bytes;
using testing_support::from_hex;
using testing_support::to_hex;

std::string encode(const BerValue& value, bool legacy = false) {
  ByteSink sink;
  value.write(sink, legacy);
  return to_hex(sink.bytes);
}

// Feeds `content` (hex) the way the reader does, one octet per readData.
void decode(BerPrimitive& value, const std::string& content) {
  const Bytes bytes = from_hex(content);
  value.readStart(bytes.size());
  for (uint8_t b : bytes) value.readData(&b, 1);
  value.readDone();
}

// The content octets of a short encoding "TT LL CC ..." (one-octet tag and length).
std::string content_of(const std::string& encoded) {
  return encoded.size() > 6 ? encoded.substr(6) : std::string();
}

template <class F>
std::string ber_error(F&& action) {
  try {
    action();
  } catch (const EBer& e) {
    return e.text();
  }
  return "no EBer";
}

// ---- integers ---------------------------------------------------------------

template <class T>
struct IntCase {
  T value;
  const char* encoded;
};

template <class T>
void check_integers(const std::vector<IntCase<T>>& cases) {
  for (const auto& c : cases) {
    T field = c.value;
    BerIntegerTemplate<T> bound(field, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(),
                                BE_INTEGER);
    EXPECT_EQ(encode(bound), c.encoded) << c.value;
    T decoded = 0;
    BerIntegerTemplate<T> reader(decoded, std::numeric_limits<T>::min(),
                                 std::numeric_limits<T>::max(), BE_INTEGER);
    decode(reader, content_of(c.encoded));
    EXPECT_EQ(decoded, c.value) << c.encoded;
  }
}

TEST(BerIntegerTest, EncodesMinimallyAndDecodesBackInAllWidths) {
  check_integers<int32_t>({{0, "02 01 00"},
                           {-1, "02 01 FF"},
                           {127, "02 01 7F"},
                           {128, "02 02 00 80"},
                           {-128, "02 01 80"},
                           {-129, "02 02 FF 7F"},
                           {256, "02 02 01 00"},
                           {0x800000, "02 04 00 80 00 00"},
                           {INT32_MAX, "02 04 7F FF FF FF"},
                           {INT32_MIN, "02 04 80 00 00 00"}});
  check_integers<uint32_t>({{0, "02 01 00"},
                            {128, "02 02 00 80"},
                            {255, "02 02 00 FF"},
                            {0x7FFFFFFF, "02 04 7F FF FF FF"},
                            {0x80000000u, "02 05 00 80 00 00 00"},
                            {0xFFFFFFFFu, "02 05 00 FF FF FF FF"}});
  check_integers<int64_t>({{0, "02 01 00"},
                           {-1, "02 01 FF"},
                           {0x80000000ll, "02 05 00 80 00 00 00"},
                           {INT64_MIN, "02 08 80 00 00 00 00 00 00 00"},
                           {INT64_MAX, "02 08 7F FF FF FF FF FF FF FF"}});
  check_integers<uint64_t>({{0, "02 01 00"},
                            {0xFFFFFFFFu, "02 05 00 FF FF FF FF"},
                            {1ull << 63, "02 09 00 80 00 00 00 00 00 00 00"},
                            {UINT64_MAX, "02 09 00 FF FF FF FF FF FF FF FF"}});
}

TEST(BerIntegerTest, SignednessDecidesHowAnOctetFFReads) {
  int32_t i32 = 0;
  uint32_t u32 = 0;
  int64_t i64 = 0;
  uint64_t u64 = 0;
  BerInt32 a(i32, INT32_MIN, INT32_MAX, BE_INTEGER);
  BerUInt32 b(u32, 0, UINT32_MAX, BE_INTEGER);
  BerInt64 c(i64, INT64_MIN, INT64_MAX, BE_INTEGER);
  BerUInt64 d(u64, 0, UINT64_MAX, BE_INTEGER);
  decode(a, "FF");
  decode(b, "FF");
  decode(c, "FF");
  decode(d, "FF");
  EXPECT_EQ(i32, -1);
  EXPECT_EQ(u32, 255u);
  EXPECT_EQ(i64, -1);
  EXPECT_EQ(u64, 255u);
  // No content at all is zero.
  i32 = 5;
  decode(a, "");
  EXPECT_EQ(i32, 0);
}

TEST(BerIntegerTest, RejectsOverlongAndOutOfRangeContent) {
  int32_t i32 = 0;
  uint32_t u32 = 0;
  int64_t i64 = 0;
  uint64_t u64 = 0;
  BerInt32 a(i32, INT32_MIN, INT32_MAX, BE_INTEGER);
  BerUInt32 b(u32, 0, UINT32_MAX, BE_INTEGER);
  BerInt64 c(i64, INT64_MIN, INT64_MAX, BE_INTEGER);
  BerUInt64 d(u64, 0, UINT64_MAX, BE_INTEGER);
  EXPECT_EQ(ber_error([&] { decode(a, "00 00 00 01"); }), "no EBer");
  EXPECT_EQ(ber_error([&] { decode(a, "00 00 00 00 01"); }),
            "Data value exceeds maximum allowed length 5 > 4");
  EXPECT_EQ(ber_error([&] { decode(b, "00 00 00 00 00 01"); }),
            "Data value exceeds maximum allowed length 6 > 5");
  EXPECT_EQ(ber_error([&] { decode(c, "00 00 00 00 00 00 00 00 01"); }),
            "Data value exceeds maximum allowed length 9 > 8");
  EXPECT_EQ(ber_error([&] { decode(b, "01 00 00 00 00"); }),
            "data out of range in BerIntegerTemplate");
  EXPECT_EQ(ber_error([&] { decode(d, "80 00 00 00 00 00 00 00 00"); }),
            "data out of range in BerIntegerTemplate");
  decode(d, "00 80 00 00 00 00 00 00 01");
  EXPECT_EQ(u64, (1ull << 63) + 1);
}

TEST(BerIntegerTest, RangeFailuresNameTypeBoundsAndValue) {
  int32_t i32 = -1;
  BerInt32 a(i32, 0, 65535, BE_INTEGER);
  ByteSink sink;
  EXPECT_EQ(ber_error([&] { a.write(sink, false); }),
            "data out of range in BerIntegerTemplate<int>::write 0 <= -1 <= 65535");
  EXPECT_TRUE(sink.bytes.empty());
  EXPECT_EQ(ber_error([&] { decode(a, "01 00 00"); }),
            "data out of range in BerIntegerTemplate<int>::readDone 0 <= 65536 <= 65535");

  uint32_t u32 = 0;
  BerUInt32 b(u32, 1, 65535, BE_INTEGER);
  EXPECT_EQ(ber_error([&] { b.write(sink, false); }),
            "data out of range in BerIntegerTemplate<unsigned int>::write 1 <= 0 <= 65535");
  int64_t i64 = 0;
  BerInt64 c(i64, -5, -1, BE_INTEGER);
  EXPECT_EQ(ber_error([&] { decode(c, "00"); }),
            "data out of range in BerIntegerTemplate<__int64>::readDone -5 <= 0 <= -1");
  uint64_t u64 = 0;
  BerUInt64 d(u64, 0, 10, BE_INTEGER);
  EXPECT_EQ(ber_error([&] { decode(d, "0B"); }),
            "data out of range in BerIntegerTemplate<unsigned __int64>::readDone 0 <= 11 <= 10");
  EXPECT_TRUE(sink.bytes.empty());
}

// ---- enumerations ----------------------------------------------------------

TEST(BerEnumeratedTest, ZeroHasNoContentAndNegativesTakeFourOctets) {
  const struct {
    int32_t value;
    const char* encoded;
  } cases[] = {{0, "0A 00"},
               {1, "0A 01 01"},
               {127, "0A 01 7F"},
               {128, "0A 02 00 80"},
               {0x8000, "0A 03 00 80 00"},
               {0x800000, "0A 04 00 80 00 00"},
               {INT32_MAX, "0A 04 7F FF FF FF"},
               {-1, "0A 04 FF FF FF FF"},
               {-128, "0A 04 FF FF FF 80"},
               {INT32_MIN, "0A 04 80 00 00 00"}};
  for (const auto& c : cases) {
    int32_t field = c.value;
    EXPECT_EQ(encode(Severity(field)), c.encoded) << c.value;
    int32_t decoded = 12345;
    CheckStatus reader(decoded);
    decode(reader, content_of(c.encoded));
    EXPECT_EQ(decoded, c.value) << c.encoded;
  }
  int32_t field = 0;
  RelOperator op(field);
  decode(op, "FF");
  EXPECT_EQ(field, -1);
  EXPECT_EQ(ber_error([&] { decode(op, "00 00 00 00 01"); }),
            "Data value exceeds maximum allowed length 5 > 4");
}

// ---- tags and lengths ------------------------------------------------------

TEST(BerTagTest, IdentifierOctetsOfShortAndLongTags) {
  const struct {
    TagCode tag;
    const char* encoded;
  } cases[] = {{BE_BOOLEAN, "01"},        {BE_STRING_LEGACY, "16"},   {BE_SEQ_CURRENT, "30"},
               {BE_SEQ_LEGACY, "20"},     {BE_SET_LEGACY, "21"},      {163, "74"},
               {choice_tag(5, false), "A5"}, {choice_tag(5, true), "65"}, {243, "7E"},
               {251, "7F 1F"},            {259, "7F 20"},             {(1000 << 3) | 3, "7F 87 68"}};
  for (const auto& c : cases) {
    ByteSink sink;
    write_tag(sink, c.tag);
    EXPECT_EQ(to_hex(sink.bytes), c.encoded) << c.tag;
  }
}

TEST(BerTagTest, LengthFormsAndFrame) {
  const struct {
    size_t length;
    const char* encoded;
  } cases[] = {{0, "00"},         {127, "7F"},          {128, "81 80"},
               {255, "81 FF"},    {256, "82 01 00"},    {65536, "83 01 00 00"},
               {0x1000000, "84 01 00 00 00"}, {0xFFFFFFFFu, "84 FF FF FF FF"}};
  for (const auto& c : cases) {
    ByteSink sink;
    write_length(sink, c.length);
    EXPECT_EQ(to_hex(sink.bytes), c.encoded) << c.length;
  }
  ByteSink sink;
  write_indefinite(sink);
  write_end_of_contents(sink);
  EXPECT_EQ(to_hex(sink.bytes), "80 00 00");
}

// ---- reals -----------------------------------------------------------------

TEST(BerRealTest, SpecialValuesAndText) {
  const struct {
    double value;
    const char* encoded;
  } cases[] = {{0.0, "09 00"},
               {-0.0, "09 00"},
               {std::nan(""), "09 01 60"},
               {std::numeric_limits<double>::infinity(), "09 01 40"},
               {-std::numeric_limits<double>::infinity(), "09 01 41"},
               // "1.500000e+00"
               {1.5, "09 0D 00 31 2E 35 30 30 30 30 30 65 2B 30 30"},
               // "-2.000000e-03"
               {-0.002, "09 0E 00 2D 32 2E 30 30 30 30 30 30 65 2D 30 33"}};
  for (const auto& c : cases) {
    double field = c.value;
    EXPECT_EQ(encode(BerReal(field, BE_REAL)), c.encoded) << c.value;
  }
}

TEST(BerRealTest, Decoding) {
  double field = 7.0;
  BerReal real(field, BE_REAL);
  decode(real, "60");
  EXPECT_EQ(field, 0.0);
  decode(real, "40");
  EXPECT_EQ(field, std::numeric_limits<double>::infinity());
  decode(real, "41");
  EXPECT_EQ(field, -std::numeric_limits<double>::infinity());
  decode(real, "00 31 2E 35 30 30 30 30 30 65 2B 30 30");
  EXPECT_EQ(field, 1.5);
  decode(real, "00 2D 69 6E 66");  // "-inf"
  EXPECT_EQ(field, -std::numeric_limits<double>::infinity());
  decode(real, "");
  EXPECT_EQ(field, 0.0);
  EXPECT_EQ(ber_error([&] { decode(real, "00 31 78"); }), "Parse error in real number");
  EXPECT_EQ(ber_error([&] { decode(real, "00 31 00 32"); }), "Parse error in real number");
  EXPECT_EQ(ber_error([&] { decode(real, "03 31"); }), "Unsupported real number format revceived");
  Bytes tooLong(61, '1');
  EXPECT_EQ(ber_error([&] { real.readStart(tooLong.size()); }),
            "Data value exceeds maximum allowed length 61 > 60");
}

TEST(BerRealTest, OwningRealRoundTripsThroughItsText) {
  BerReal owning(BE_REAL);
  owning.set_value(-6.25e-300);
  ByteSink sink;
  owning.write(sink, false);
  ASSERT_GE(sink.bytes.size(), 3u);
  double back = 0;
  BerReal reader(back, BE_REAL);
  reader.readStart(sink.bytes.size() - 2);
  reader.readData(sink.bytes.data() + 2, sink.bytes.size() - 2);
  reader.readDone();
  EXPECT_EQ(back, -6.25e-300);
}

// ---- booleans, nulls, strings, big numbers ---------------------------------

TEST(BerBooleanTest, EncodingAndDecoding) {
  bool field = true;
  BerBoolean value(field, BE_BOOLEAN);
  EXPECT_EQ(encode(value), "01 01 01");
  field = false;
  EXPECT_EQ(encode(value), "01 01 00");
  decode(value, "02");
  EXPECT_TRUE(field);
  decode(value, "");
  EXPECT_FALSE(field);
  EXPECT_EQ(ber_error([&] { decode(value, "01 01"); }),
            "Data value exceeds maximum allowed length 2 > 1");
}

TEST(BerNullTest, HasNoContent) {
  BerNull kept(BE_NULL, true);
  EXPECT_EQ(encode(kept), "05 00");
  EXPECT_TRUE(kept.kept());
  EXPECT_FALSE(BerNull(BE_NULL, false).kept());
  EXPECT_EQ(ber_error([&] { decode(kept, "00"); }),
            "Data value exceeds maximum allowed length 1 > 0");
}

TEST(BerStringTest, MaximumLengthHoldsOnBothSides) {
  std::string field = "abcd";
  BerString bound(field, 4, BE_STRING_CURRENT);
  EXPECT_EQ(encode(bound), "04 04 61 62 63 64");
  EXPECT_EQ(encode(BerString(field, 4, BE_STRING_LEGACY), true), "16 04 61 62 63 64");
  field = "abcde";
  ByteSink sink;
  EXPECT_EQ(ber_error([&] { bound.write(sink, false); }), "String exceeds allowed length 5 > 4");
  EXPECT_TRUE(sink.bytes.empty());

  std::string target;
  BerString reader(target, 4, BE_STRING_CURRENT);
  decode(reader, "77 78 79 7A");
  EXPECT_EQ(target, "wxyz");
  EXPECT_EQ(ber_error([&] { reader.readStart(5); }), "String exceeds allowed length 5 > 4");

  BerString large(1000, BE_STRING_CURRENT);
  large.set_value(std::string(300, 'x'));
  EXPECT_EQ(encode(large).substr(0, 14), "04 82 01 2C 78");
}

TEST(BerBigNumTest, MagnitudeWithoutLeadingZeros) {
  BigNum field;
  BerBigNum value(field, BE_INTEGER);
  EXPECT_EQ(encode(value), "02 00");
  decode(value, "01 00 00 00 00");
  EXPECT_EQ(field.size(), 2u);
  EXPECT_EQ(bn_to_string(field), "4294967296");
  EXPECT_EQ(encode(value), "02 05 01 00 00 00 00");
  decode(value, "00 00 01");
  EXPECT_EQ(bn_to_string(field), "1");
  EXPECT_EQ(encode(value), "02 01 01");
  decode(value, "");
  EXPECT_EQ(field.size(), 0u);
  EXPECT_EQ(ber_error([&] { value.readStart(1041); }),
            "Data value exceeds maximum allowed length 1041 > 1040");
  // The largest magnitude a peer may send goes out again unchanged.
  Bytes big(1040, 0xA5);
  value.readStart(big.size());
  value.readData(big.data(), big.size());
  value.readDone();
  ByteSink sink;
  value.write(sink, false);
  EXPECT_EQ(Bytes(sink.bytes.begin() + 4, sink.bytes.end()), big);
  EXPECT_EQ(to_hex(Bytes(sink.bytes.begin(), sink.bytes.begin() + 4)), "02 82 04 10");
}

// ---- comparisons, clones, skippers -----------------------------------------

TEST(BerValueTest, ComparisonsAndClones) {
  int32_t x = 0, y = 0;
  BerInt32 a(x, INT32_MIN, INT32_MAX, BE_INTEGER), b(y, INT32_MIN, INT32_MAX, BE_INTEGER);
  decode(a, "05");
  decode(b, "05");
  EXPECT_TRUE(a == b);
  decode(b, "01 00");
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(b > a);
  std::string s = "a", t = "\x80";
  BerString sa(s, 10, BE_STRING_CURRENT), st(t, 10, BE_STRING_CURRENT);
  EXPECT_TRUE(sa < st);  // bytes compare unsigned
  const BerValue& asValue = a;
  const BerValue& stringAsValue = sa;
  EXPECT_FALSE(stringAsValue == asValue);
  EXPECT_FALSE(asValue == stringAsValue);
  EXPECT_FALSE(stringAsValue < asValue);

  x = 42;
  std::unique_ptr<BerValue> copy = a.clone();
  x = 43;
  auto* typed = dynamic_cast<BerInt32*>(copy.get());
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(typed->value(), 42);
  std::unique_ptr<BerValue> stringCopy = sa.clone();
  s = "changed";
  EXPECT_EQ(dynamic_cast<BerString&>(*stringCopy).value(), "a");
  int32_t e = 3;
  std::unique_ptr<BerValue> enumCopy = CheckType(e).clone();
  ASSERT_NE(dynamic_cast<CheckType*>(enumCopy.get()), nullptr);
  EXPECT_EQ(encode(*enumCopy), "0A 01 03");
}

TEST(BerSkipperTest, SkippersTakeAnyTag) {
  std::unique_ptr<BerValue> constructed = makeSkipper(choice_tag(3, false));  // A3
  std::unique_ptr<BerValue> primitive = makeSkipper(42 << 3);
  auto* c = dynamic_cast<BerConstructedSkipper*>(constructed.get());
  auto* p = dynamic_cast<BerPrimitiveSkipper*>(primitive.get());
  ASSERT_NE(c, nullptr);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->tag(false), 42u << 3);
  EXPECT_EQ(c->requiredFields(), 0u);
  EXPECT_TRUE(c->disposeAfterRead());
  ChildSlot child = c->newChild(7, BE_SET_CURRENT, false);
  EXPECT_NE(dynamic_cast<BerConstructedSkipper*>(child.transient.get()), nullptr);
  EXPECT_EQ(child.value, child.transient.get());
  p->readStart(1u << 30);
  EXPECT_TRUE(*p == BerPrimitiveSkipper(BE_NULL));
  EXPECT_FALSE(*p == *constructed);
}

TEST(BerSkipperDeathTest, WritingOrOrderingIsAProgrammingError) {
  BerPrimitiveSkipper p(BE_INTEGER);
  BerConstructedSkipper c(BE_SEQ_CURRENT);
  ByteSink sink;
  EXPECT_DEATH(p.write(sink, false), "Assertion failed: BerPrimitiveSkipper::write invoked");
  EXPECT_DEATH(c.write(sink, false), "Assertion failed: BerConstructedSkipper::write invoked");
  EXPECT_DEATH((void)(p < p), "Cannot call operator< for BerPrimitiveSkipper");
  EXPECT_DEATH((void)(p > p), "Cannot call operator> for BerPrimitiveSkipper");
  EXPECT_DEATH((void)(c < c), "Cannot call operator< for BerConstructedSkipper");
  EXPECT_DEATH((void)(c > c), "Cannot call operator> for BerConstructedSkipper");
}

}  // namespace
}  // namespace protocol
