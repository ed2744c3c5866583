// The primitive values, tags and lengths: literal encodings, what arriving
// content octets decode to, and the failure texts of both directions.
#include "protocol/ber_primitives.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "protocol/tags.h"
#include "support/ber_streams.h"
#include "util/bignum.h"

namespace protocol {
namespace {

using support::ByteSink;
using support::Bytes;
using support::from_hex;
using support::to_hex;

constexpr double kInf = std::numeric_limits<double>::infinity();

// `octet` (hex) `count` times.
std::string repeated(const std::string& octet, int count) {
  std::string hex = octet;
  for (int i = 1; i < count; ++i) hex += " " + octet;
  return hex;
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

// The encoding of `value` in hex, or the EBer text when writing fails (and
// then nothing may have reached the stream).
std::string encode(const BerValue& value, bool legacy = false) {
  ByteSink sink;
  const std::string error = ber_error([&] { value.write(sink, legacy); });
  if (error != "no EBer") return sink.bytes.empty() ? error : "partly written: " + error;
  return to_hex(sink.bytes);
}

// Feeds `content` (hex) the way the reader does, one octet per readData.
void decode(BerPrimitive& value, const std::string& content) {
  const Bytes bytes = from_hex(content);
  value.readStart(bytes.size());
  for (uint8_t b : bytes) value.readData(&b, 1);
  value.readDone();
}

template <class T>
std::string show(const T& v) {
  if constexpr (std::is_same_v<T, util::BigNum>) {
    return util::bn_to_string(v);
  } else {
    std::ostringstream out;
    out << std::boolalpha << v;
    return out.str();
  }
}

// What `content` decodes to through a V bound to a T (which starts out
// non-zero where it can), or the EBer text.
template <class V, class T, class... Args>
std::string read(const std::string& content, Args... args) {
  T target{};
  if constexpr (std::is_arithmetic_v<T> || std::is_same_v<T, util::BigNum>) target = T(5);
  V value(target, args...);
  const std::string error = ber_error([&] { decode(value, content); });
  return error == "no EBer" ? show(target) : error;
}

template <class T>
std::string read_int(const std::string& content, T min = std::numeric_limits<T>::min(),
                     T max = std::numeric_limits<T>::max()) {
  return read<BerIntegerTemplate<T>, T>(content, min, max, BE_INTEGER);
}

template <class V, class T, class... Args>
std::string write(T field, Args... args) {
  return encode(V(field, args...));
}

// ---- integers: minimal encodings in every width, both ways ------------------

template <class T>
void round_trip(const std::vector<std::pair<T, const char*>>& cases) {
  for (const auto& [value, encoded] : cases) {
    SCOPED_TRACE(encoded);
    EXPECT_EQ(write<BerIntegerTemplate<T>>(value, std::numeric_limits<T>::min(),
                                           std::numeric_limits<T>::max(), BE_INTEGER),
              encoded);
    EXPECT_EQ(read_int<T>(std::string(encoded).substr(6)), show(value));
  }
}

TEST(BerIntegerTest, EncodesMinimallyAndDecodesBackInAllWidths) {
  round_trip<int32_t>({{0, "02 01 00"}, {127, "02 01 7F"}, {128, "02 02 00 80"}, {-128, "02 01 80"},
                       {-129, "02 02 FF 7F"}, {INT32_MIN, "02 04 80 00 00 00"}});
  round_trip<uint32_t>({{0xFFFFFFFFu, "02 05 00 FF FF FF FF"}});
  round_trip<int64_t>({{INT64_MIN, "02 08 80 00 00 00 00 00 00 00"}});
  round_trip<uint64_t>({{UINT64_MAX, "02 09 00 FF FF FF FF FF FF FF FF"}});
}

// ---- every primitive: literal encodings and write failures ------------------

TEST(BerPrimitiveTest, Encodings) {
  auto real = [](double v) { return write<BerReal>(v, BE_REAL); };
  std::string text = "abcd";
  BerString large(1000, BE_STRING_CURRENT);
  large.set_value(std::string(300, 'x'));
  const struct {
    std::string got;
    const char* want;
  } cases[] = {
      {write<BerUInt32>(0u, 1u, 65535u, BE_INTEGER),
       "data out of range in BerIntegerTemplate<unsigned int>::write 1 <= 0 <= 65535"},
      // Enumerations: zero has no content, negatives take four octets.
      {write<Severity>(0), "0A 00"},
      {write<Severity>(128), "0A 02 00 80"},
      {write<Severity>(0x8000), "0A 03 00 80 00"},
      {write<Severity>(INT32_MAX), "0A 04 7F FF FF FF"},
      {write<Severity>(-128), "0A 04 FF FF FF 80"},
      // Reals: zero empty, special values one octet, others as text.
      {real(0.0), "09 00"},
      {real(-0.0), "09 00"},
      {real(std::nan("")), "09 01 60"},
      {real(kInf), "09 01 40"},
      {real(-kInf), "09 01 41"},
      {real(-0.002), "09 0E 00 2D 32 2E 30 30 30 30 30 30 65 2D 30 33"},
      {write<BerBoolean>(true, BE_BOOLEAN), "01 01 01"},
      {encode(BerNull(BE_NULL, true)), "05 00"},
      {write<BerString>(std::string("abcd"), 4, BE_STRING_CURRENT), "04 04 61 62 63 64"},
      {encode(BerString(text, 4, BE_STRING_LEGACY), true), "16 04 61 62 63 64"},
      {write<BerString>(std::string("abcde"), 4, BE_STRING_CURRENT),
       "String exceeds allowed length 5 > 4"},
      {encode(large).substr(0, 14), "04 82 01 2C 78"},
      // Big numbers: the magnitude without leading zeros.
      {write<BerBigNum>(util::BigNum(), BE_INTEGER), "02 00"},
      {write<BerBigNum>(util::BigNum(0xFFFFFFFF) + util::BigNum(1), BE_INTEGER),
       "02 05 01 00 00 00 00"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.want);
}

// ---- every primitive: decoding and read failures ----------------------------

TEST(BerPrimitiveTest, Decoding) {
  auto real = [](const std::string& hex) { return read<BerReal, double>(hex, BE_REAL); };
  auto boolean = [](const std::string& hex) { return read<BerBoolean, bool>(hex, BE_BOOLEAN); };
  auto big = [](const std::string& hex) { return read<BerBigNum, util::BigNum>(hex, BE_INTEGER); };
  const struct {
    std::string got;
    const char* want;
  } cases[] = {
      // No content is zero; signedness decides how FF reads.
      {read_int<int32_t>(""), "0"}, {read_int<int32_t>("FF"), "-1"},
      {read_int<uint32_t>("FF"), "255"},
      {read_int<uint64_t>("00 80 00 00 00 00 00 00 01"), "9223372036854775809"},
      {read_int<int32_t>("00 00 00 00 01"), "Data value exceeds maximum allowed length 5 > 4"},
      {read_int<uint32_t>("00 00 00 00 00 01"), "Data value exceeds maximum allowed length 6 > 5"},
      {read_int<uint32_t>("01 00 00 00 00"), "data out of range in BerIntegerTemplate"},
      {read_int<uint64_t>("80 00 00 00 00 00 00 00 00"), "data out of range in BerIntegerTemplate"},
      {read_int<int32_t>("01 00 00", 0, 65535),
       "data out of range in BerIntegerTemplate<int>::readDone 0 <= 65536 <= 65535"},
      {read_int<int64_t>("00", -5, -1),
       "data out of range in BerIntegerTemplate<__int64>::readDone -5 <= 0 <= -1"},
      {read_int<uint64_t>("0B", 0, 10),
       "data out of range in BerIntegerTemplate<unsigned __int64>::readDone 0 <= 11 <= 10"},
      {read<RelOperator, int32_t>("FF"), "-1"}, {read<CheckStatus, int32_t>(""), "0"},
      {read<RelOperator, int32_t>("00 00 00 00 01"), "Data value exceeds maximum allowed length 5 > 4"},
      {real("60"), "0"}, {real("40"), "inf"}, {real("41"), "-inf"}, {real(""), "0"},
      {real("00 31 2E 35 30 30 30 30 30 65 2B 30 30"), "1.5"}, {real("00 2D 69 6E 66"), "-inf"},
      {real("00 31 78"), "Parse error in real number"},
      {real("00 31 00 32"), "Parse error in real number"},
      {real("03 31"), "Unsupported real number format revceived"},
      {real(repeated("31", 61)), "Data value exceeds maximum allowed length 61 > 60"},
      {boolean("02"), "true"}, {boolean(""), "false"},
      {boolean("01 01"), "Data value exceeds maximum allowed length 2 > 1"},
      {read<BerString, std::string>("77 78 79 7A", 4, BE_STRING_CURRENT), "wxyz"},
      {read<BerString, std::string>("77 78 79 7A 7B", 4, BE_STRING_CURRENT),
       "String exceeds allowed length 5 > 4"},
      {big("00 00 01"), "1"}, {big(""), "0"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.want);
  BerNull null(BE_NULL, true);
  EXPECT_EQ(ber_error([&] { decode(null, "00"); }), "Data value exceeds maximum allowed length 1 > 0");
}

TEST(BerPrimitiveTest, LongestAcceptedValuesGoOutAgainUnchanged) {
  BerReal real(BE_REAL);
  real.set_value(-6.25e-300);
  double back = 0;
  BerReal reader(back, BE_REAL);
  decode(reader, encode(real).substr(6));
  EXPECT_EQ(back, -6.25e-300);

  util::BigNum field;
  BerBigNum value(field, BE_INTEGER);
  EXPECT_EQ(ber_error([&] { value.readStart(1041); }),
            "Data value exceeds maximum allowed length 1041 > 1040");
  const std::string hex = repeated("A5", 1040);
  decode(value, hex);
  EXPECT_EQ(encode(value), "02 82 04 10 " + hex);
}

// ---- tags and lengths -------------------------------------------------------

template <class F>
std::string written(F&& write) {
  ByteSink sink;
  write(sink);
  return to_hex(sink.bytes);
}

TEST(BerTagTest, IdentifierAndLengthOctets) {
  auto tag = [](TagCode t) { return written([&](ByteSink& s) { write_tag(s, t); }); };
  auto length = [](size_t n) { return written([&](ByteSink& s) { write_length(s, n); }); };
  const struct {
    std::string got;
    const char* want;
  } cases[] = {
      {tag(BE_STRING_LEGACY), "16"}, {tag(BE_SEQ_CURRENT), "30"}, {tag(BE_SET_LEGACY), "21"},
      {tag(choice_tag(5, false)), "A5"}, {tag(choice_tag(5, true)), "65"}, {tag(243), "7E"},
      {tag(251), "7F 1F"}, {tag((1000 << 3) | 3), "7F 87 68"}, {length(127), "7F"},
      {length(128), "81 80"}, {length(256), "82 01 00"},
      {length(65536), "83 01 00 00"}, {length(0x1000000), "84 01 00 00 00"},
      {length(0xFFFFFFFFu), "84 FF FF FF FF"},
      {written([](ByteSink& s) { write_indefinite(s), write_end_of_contents(s); }), "80 00 00"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.want);
}

// ---- equality, skippers ----------------------------------------------------

TEST(BerValueTest, EqualityComparesReceivedOctetsOfTheSameClass) {
  int32_t x = 0, y = 0;
  BerInt32 a(x, INT32_MIN, INT32_MAX, BE_INTEGER), b(y, INT32_MIN, INT32_MAX, BE_INTEGER);
  decode(a, "05");
  decode(b, "05 00");  // the same first octet, one more
  std::string s = "a";
  const BerString string(s, 10, BE_STRING_CURRENT);
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(static_cast<const BerValue&>(string) == a);
  EXPECT_FALSE(static_cast<const BerValue&>(a) == string);
}

TEST(BerSkipperDeathTest, WritingIsAProgrammingError) {
  BerPrimitiveSkipper p(BE_INTEGER);
  BerConstructedSkipper c(BE_SEQ_CURRENT);
  ByteSink sink;
  EXPECT_DEATH(p.write(sink, false), "Assertion failed: BerPrimitiveSkipper::write invoked");
  EXPECT_DEATH(c.write(sink, false), "Assertion failed: BerConstructedSkipper::write invoked");
}

}  // namespace
}  // namespace protocol
