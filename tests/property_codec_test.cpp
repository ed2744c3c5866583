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

TEST(Encode, StoresNameTypeWordAndValue) {
  Property p;
  tql::encode(p, "flag", 1 | protocol::kPropConstant, true);
  EXPECT_EQ("flag", p.name);
  EXPECT_EQ(1u | protocol::kPropConstant, p.type);
  ASSERT_NE(nullptr, dynamic_cast<protocol::BooleanProp*>(p.data.get()));

  tql::encode(p, "when", 5, int32_t{-7});
  EXPECT_EQ(-7, dynamic_cast<protocol::SignedIntProp&>(*p.data).value);
  tql::encode(p, "state", 0x10004, uint32_t{2});
  EXPECT_EQ(2u, dynamic_cast<protocol::UnsignedIntProp&>(*p.data).value);
  tql::encode(p, "members", 8, std::vector<std::string>{"a", "b"});
  EXPECT_EQ((std::vector<std::string>{"a", "b"}),
            dynamic_cast<protocol::StringListProp&>(*p.data).value);
  tql::encode(p, "count", 18, BigNum(77));
  EXPECT_TRUE(dynamic_cast<protocol::BigNumProp&>(*p.data).value == BigNum(77));
  tql::encode(p, "oid", 15, std::string("1.3.6"));
  EXPECT_EQ("1.3.6", dynamic_cast<protocol::StringProp&>(*p.data).value);
}

TEST(Encode, WithoutValueMakesNullForAnyType) {
  for (uint32_t type : {1u, 3u, 6u, 9u, 18u, 0x10005u, 0xA0013u}) {
    Property p;
    p.data = std::make_unique<protocol::StringProp>();  // replaced by the null
    tql::encode(p, "empty", type);
    EXPECT_EQ(type, p.type);
    EXPECT_NE(nullptr, dynamic_cast<protocol::NullProp*>(p.data.get())) << type;
  }
}

// Each variant decodes what the matching encoding (or value class) holds.
TEST(Decode, EveryVariantReturnsTheStoredValue) {
  Property p;
  tql::encode(p, "b", 1, true);
  bool b = false;
  tql::decode(p, 1, b);
  EXPECT_TRUE(b);

  p.type = 4;
  auto real = std::make_unique<protocol::RealProp>();
  real->value = 2.25;
  p.data = std::move(real);
  double d = 0;
  tql::decode(p, 4, d);
  EXPECT_EQ(2.25, d);

  tql::encode(p, "i", 3, int32_t{-42});
  int32_t i = 0;
  tql::decode(p, 3, i);
  EXPECT_EQ(-42, i);

  for (uint32_t type : {2u, 10u, 13u, 0x10007u}) {
    tql::encode(p, "u", type, uint32_t{0xFFFFFFFF});
    uint32_t u = 0;
    tql::decode(p, type, u);
    EXPECT_EQ(0xFFFFFFFFu, u) << type;
  }

  for (uint32_t type : {6u, 7u, 15u}) {
    tql::encode(p, "s", type, "text");
    std::string s;
    tql::decode(p, type, s);
    EXPECT_EQ("text", s) << type;
  }

  tql::encode(p, "date", 5, int32_t{-1});
  int64_t t = 0;
  tql::decode(p, 5, t);
  EXPECT_EQ(-1, t);

  p.type = 17;
  auto wide = std::make_unique<protocol::SignedInt64Prop>();
  wide->value = -5000000000;
  p.data = std::move(wide);
  tql::decode(p, 17, t);
  EXPECT_EQ(-5000000000, t);

  tql::encode(p, "n", 18, BigNum(0xFFFFFFFF) * BigNum(0xFFFFFFFF));
  BigNum n;
  tql::decode(p, 18, n);
  EXPECT_TRUE(n == BigNum(0xFFFFFFFF) * BigNum(0xFFFFFFFF));

  for (uint32_t type : {8u, 11u}) {
    tql::encode(p, "list", type, std::vector<std::string>{"x", "", "y"});
    std::vector<std::string> list;
    tql::decode(p, type, list);
    EXPECT_EQ((std::vector<std::string>{"x", "", "y"}), list);
  }

  p.type = 12;
  auto blob = std::make_unique<protocol::BlobProp>();
  blob->value = std::string("\x00\xFF\x10", 3);
  p.data = std::move(blob);
  std::vector<uint8_t> bytes;
  tql::decode(p, 12, bytes);
  EXPECT_EQ((std::vector<uint8_t>{0x00, 0xFF, 0x10}), bytes);

  p.type = 19;
  auto lob = std::make_unique<protocol::LobProp>();
  lob->value = "LOB";
  p.data = std::move(lob);
  tql::decode(p, 19, bytes);
  EXPECT_EQ((std::vector<uint8_t>{'L', 'O', 'B'}), bytes);

  p.type = 14;
  auto gids = std::make_unique<protocol::UnsignedIntListProp>();
  gids->value = {1, 0x80000000u};
  p.data = std::move(gids);
  std::vector<uint32_t> list;
  tql::decode(p, 14, list);
  EXPECT_EQ((std::vector<uint32_t>{1, 0x80000000u}), list);
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
  Property p;
  tql::encode(p, "name", 6, "abc");
  EXPECT_EQ("Type mismatch for property: name, wanted 3 got 6",
            tql_failure([&] { decoding_as<int32_t>(3)(p); }));
  tql::encode(p, "when", 5, int32_t{0});
  EXPECT_EQ("Type mismatch for property: when, wanted 17 got 5",
            tql_failure([&] { decoding_as<int64_t>(17)(p); }));
  tql::encode(p, "up", 3, int32_t{1});
  EXPECT_EQ("Type mismatch for property: up", tql_failure([&] { decoding_as<bool>(1)(p); }));
}

TEST(Decode, EnumerationMustMatchNumberAndFlag) {
  Property p;
  tql::encode(p, "status", 0x10003, uint32_t{4});
  uint32_t v = 0;
  tql::decode(p, 0x10003, v);
  EXPECT_EQ(4u, v);
  EXPECT_EQ("Type mismatch for property: status, wanted 65540 got 65539",
            tql_failure([&] { decoding_as<uint32_t>(0x10004)(p); }));
  EXPECT_EQ("Type mismatch for property: status, wanted 2 got 65539",
            tql_failure([&] { decoding_as<uint32_t>(2)(p); }));
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
