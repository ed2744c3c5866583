// Property values: the wire form of a property, and tql::encode/decode with
// their type checks, null texts and assertions.

#include "protocol/property_codec.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "protocol/messages.h"
#include "support/ber_streams.h"
#include "support/message_io.h"

namespace {

using protocol::Property;
using testing_support::decode_as;
using testing_support::encode_message;
using testing_support::from_hex;
using testing_support::to_hex;

TEST(PropertyWire, StringPropertyInBothEncodings) {
  Property p;
  tql::encode(p, "siblingName", 6, "abc");
  const std::string current =
      "30 80 04 0B 73 69 62 6C 69 6E 67 4E 61 6D 65 02 01 06 A0 80 04 03 61 62 63 00 00 00 00";
  const std::string legacy =
      "20 80 16 0B 73 69 62 6C 69 6E 67 4E 61 6D 65 02 01 06 60 80 16 03 61 62 63 00 00 00 00";
  EXPECT_EQ(current, to_hex(encode_message(p, false)));
  EXPECT_EQ(legacy, to_hex(encode_message(p, true)));
  for (bool isLegacy : {false, true}) {
    auto received = decode_as<Property>(from_hex(isLegacy ? legacy : current), isLegacy);
    ASSERT_NE(nullptr, received);
    std::string value;
    tql::decode(*received, 6, value);
    EXPECT_EQ("abc", value);
    EXPECT_EQ("siblingName", received->name);
  }
}

// `value` stored under `type` (by tql::encode, or as a value object of the
// class a peer may send) and decoded again as `type`.
template <class T>
T stored_and_decoded(uint32_t type, const T& value) {
  Property p;
  tql::encode(p, "p", type, value);
  T out{};
  tql::decode(p, type, out);
  return out;
}

template <class T, class Prop, class V>
T decoded_from(uint32_t type, V value) {
  Property p;
  p.type = type;
  auto data = std::make_unique<Prop>();
  data->value = std::move(value);
  p.data = std::move(data);
  T out{};
  tql::decode(p, type, out);
  return out;
}

TEST(Decode, EveryVariantReturnsTheStoredValue) {
  using Strings = std::vector<std::string>;
  using Octets = std::vector<uint8_t>;
  EXPECT_TRUE(stored_and_decoded(1, true));
  EXPECT_EQ(-42, stored_and_decoded(3, int32_t{-42}));
  for (uint32_t type : {2u, 10u, 13u, 0x10007u}) {
    EXPECT_EQ(0xFFFFFFFFu, stored_and_decoded(type, uint32_t{0xFFFFFFFF})) << type;
  }
  for (uint32_t type : {6u, 7u, 15u}) EXPECT_EQ("text", stored_and_decoded(type, std::string("text")));
  for (uint32_t type : {8u, 11u}) {
    EXPECT_EQ((Strings{"x", "", "y"}), stored_and_decoded(type, Strings{"x", "", "y"})) << type;
  }
  const BigNum big = BigNum(0xFFFFFFFF) * BigNum(0xFFFFFFFF);
  EXPECT_TRUE(stored_and_decoded(18, big) == big);
  // A time stored as a 32-bit integer widens to 64 bits with its sign.
  Property time;
  tql::encode(time, "date", 5, int32_t{-1});
  int64_t t = 0;
  tql::decode(time, 5, t);
  EXPECT_EQ(-1, t);

  EXPECT_EQ(2.25, (decoded_from<double, protocol::RealProp>(4, 2.25)));
  EXPECT_EQ(-5000000000, (decoded_from<int64_t, protocol::SignedInt64Prop>(17, -5000000000)));
  EXPECT_EQ((Octets{0x00, 0xFF, 0x10}),
            (decoded_from<Octets, protocol::BlobProp>(12, std::string("\x00\xFF\x10", 3))));
  EXPECT_EQ((Octets{'L', 'O', 'B'}), (decoded_from<Octets, protocol::LobProp>(19, std::string("LOB"))));
  EXPECT_EQ((std::vector<uint32_t>{1, 0x80000000u}),
            (decoded_from<std::vector<uint32_t>, protocol::UnsignedIntListProp>(
                14, std::vector<uint32_t>{1, 0x80000000u})));
}

// The text and code of the errors::tql that `decode` throws.
std::string tql_failure(const std::function<void()>& decode) {
  try {
    decode();
  } catch (const errors::tql& e) {
    EXPECT_EQ(9, e.code);
    return e.message();
  }
  return "no failure";
}

struct NullCase {
  uint32_t type;
  std::function<void(const Property&)> decode;
  const char* text;
};

template <class T>
std::function<void(const Property&)> decoding_as(uint32_t wanted) {
  return [wanted](const Property& p) {
    T out{};
    tql::decode(p, wanted, out);
  };
}

TEST(Decode, NullValueNamesTheKindOfProperty) {
  const NullCase cases[] = {
      {1, decoding_as<bool>(1), "Null given for boolean property: prop"},
      {4, decoding_as<double>(4), "Null given for real property: prop"},
      {3, decoding_as<int32_t>(3), "Null given for integer property: prop"},
      {10, decoding_as<uint32_t>(10), "Null given for unsigned property: prop"},
      {7, decoding_as<std::string>(7), "Null given for string property: prop"},
      {5, decoding_as<int64_t>(5), "Null given for time property: prop"},
      {17, decoding_as<int64_t>(17), "Null given for integer property: prop"},
      {18, decoding_as<BigNum>(18), "Null given for bignum property: prop"},
      {11, decoding_as<std::vector<std::string>>(11), "Null given for slist property: prop"},
      {12, decoding_as<std::vector<uint8_t>>(12), "Null given for blob property: prop"},
      {19, decoding_as<std::vector<uint8_t>>(19), "Null given for lob property: prop"},
      {14, decoding_as<std::vector<uint32_t>>(14),
       "Null given for unsigned int list property: prop"},
  };
  for (const NullCase& c : cases) {
    Property p;
    tql::encode(p, "prop", c.type);
    EXPECT_EQ(c.text, tql_failure([&] { c.decode(p); })) << c.type;
  }
  // A value of another class counts as null too.
  Property p;
  tql::encode(p, "prop", 6, "oops");
  p.type = 3;
  EXPECT_EQ("Null given for integer property: prop",
            tql_failure([&] { decoding_as<int32_t>(3)(p); }));
}

TEST(Decode, TypeMismatchNamesBothCodes) {
  const struct {
    uint32_t type;
    std::function<void(const Property&)> decode;
    const char* text;
  } cases[] = {
      {6, decoding_as<int32_t>(3), "Type mismatch for property: p, wanted 3 got 6"},
      {5, decoding_as<int64_t>(17), "Type mismatch for property: p, wanted 17 got 5"},
      {3, decoding_as<bool>(1), "Type mismatch for property: p"},
      // An enumeration must match in number and flag.
      {0x10003, decoding_as<uint32_t>(0x10004), "Type mismatch for property: p, wanted 65540 got 65539"},
      {0x10003, decoding_as<uint32_t>(2), "Type mismatch for property: p, wanted 2 got 65539"},
  };
  for (const auto& c : cases) {
    Property p;
    tql::encode(p, "p", c.type);  // the type words differ before the null is looked at
    EXPECT_EQ(c.text, tql_failure([&] { c.decode(p); })) << c.type;
  }
}

TEST(Decode, ConstantAndComputedFlagsAreIgnored) {
  Property p;
  tql::encode(p, "size", 3 | protocol::kPropConstant | protocol::kPropComputed, int32_t{12});
  int32_t v = 0;
  tql::decode(p, 3, v);
  EXPECT_EQ(12, v);
  tql::encode(p, "size", 3, int32_t{13});
  tql::decode(p, 3 | protocol::kPropComputed, v);
  EXPECT_EQ(13, v);
}

TEST(EncodeDeathTest, WrongTypeCodeIsAnAssertion) {
  Property p;
  EXPECT_DEATH(tql::encode(p, "flag", 3, true),
               "Assertion failed: Type mismatch in tql::encode bool: flag");
  EXPECT_DEATH(tql::encode(p, "n", 0x10003, int32_t{1}),
               "Assertion failed: Type mismatch in tql::encode int: n");
  EXPECT_DEATH(tql::encode(p, "u", 3, uint32_t{1}),
               "Assertion failed: Type mismatch in tql::encode unsigned int: u");
  EXPECT_DEATH(tql::encode(p, "s", 8, "x"),
               "Assertion failed: Type mismatch in tql::encode string: s");
  EXPECT_DEATH(tql::encode(p, "l", 6, std::vector<std::string>{}),
               "Assertion failed: Type mismatch in tql::encode list<string>: l");
  EXPECT_DEATH(tql::encode(p, "big", 2, BigNum(1)),
               "Assertion failed: Type mismatch in tql::encode bignum: big");
}

TEST(DecodeDeathTest, WrongWantedTypeIsAnAssertion) {
  Property p;
  tql::encode(p, "x", 6, "abc");
  EXPECT_DEATH(decoding_as<bool>(2)(p), "Assertion failed: Type mismatch in tql::decode bool");
  EXPECT_DEATH(decoding_as<double>(3)(p), "Assertion failed: Type mismatch in tql::decode real");
  EXPECT_DEATH(decoding_as<int32_t>(5)(p), "Type mismatch in tql::decode int :x");
  EXPECT_DEATH(decoding_as<uint32_t>(3)(p), "Type mismatch in tql::decode uint/enum/index");
  EXPECT_DEATH(decoding_as<std::string>(8)(p), "Type mismatch in tql::decode string/object");
  EXPECT_DEATH(decoding_as<int64_t>(3)(p), "Type mismatch in tql::decode int64 :x");
  EXPECT_DEATH(decoding_as<BigNum>(17)(p), "Type mismatch in tql::decode bignum: x");
  EXPECT_DEATH(decoding_as<std::vector<std::string>>(6)(p),
               "Type mismatch in tql::decode objectset");
  EXPECT_DEATH(decoding_as<std::vector<uint8_t>>(18)(p),
               "Type mismatch in tql::decode vector<uint8_t>");
  EXPECT_DEATH(decoding_as<std::vector<uint32_t>>(13)(p),
               "Type mismatch in tql::decode list<uint32_t>");
}

}  // namespace
