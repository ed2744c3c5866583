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
using Octets = std::vector<uint8_t>;

TEST(PropertyWire, StringPropertyInBothEncodings) {
  Property p;
  protocol::encode_property(p, "siblingName", 6, "abc");
  EXPECT_EQ(support::to_hex(support::encode_message(p, false)),
            "30 80 04 0B 73 69 62 6C 69 6E 67 4E 61 6D 65 02 01 06 A0 80 04 03 61 62 63 00 00 00 00");
  EXPECT_EQ(support::to_hex(support::encode_message(p, true)),
            "20 80 16 0B 73 69 62 6C 69 6E 67 4E 61 6D 65 02 01 06 60 80 16 03 61 62 63 00 00 00 00");
}

// `value` stored under `type` by tql::encode and decoded again as `wanted`
// (by default `type`).
template <class V, class T = V>
T stored_and_decoded(uint32_t type, const V& value, uint32_t wanted = 0) {
  Property p;
  protocol::encode_property(p, "p", type, value);
  T out{};
  protocol::decode_property(p, wanted ? wanted : type, out);
  return out;
}

// `value` in a value object of class Prop, as a peer may send it, decoded as `type`.
template <class T, class Prop, class V>
T decoded_from(uint32_t type, V value) {
  Property p;
  p.type = type;
  auto data = std::make_unique<Prop>();
  data->value = std::move(value);
  p.data = std::move(data);
  T out{};
  protocol::decode_property(p, type, out);
  return out;
}

TEST(Decode, EveryVariantReturnsTheStoredValue) {
  using Strings = std::vector<std::string>;
  EXPECT_TRUE(stored_and_decoded(1, true));
  EXPECT_EQ(-42, stored_and_decoded(3, int32_t{-42}));
  // The constant and computed flags are ignored on both sides.
  EXPECT_EQ(12, stored_and_decoded(3 | protocol::kPropConstant | protocol::kPropComputed, 12, 3));
  EXPECT_EQ(13, stored_and_decoded(3, 13, 3 | protocol::kPropComputed));
  for (uint32_t type : {2u, 10u, 13u, 0x10007u}) {
    EXPECT_EQ(0xFFFFFFFFu, stored_and_decoded(type, 0xFFFFFFFFu)) << type;
  }
  for (uint32_t type : {6u, 7u, 15u}) {
    EXPECT_EQ("text", stored_and_decoded(type, std::string("text"))) << type;
  }
  for (uint32_t type : {8u, 11u}) {
    EXPECT_EQ((Strings{"x", "", "y"}), stored_and_decoded(type, Strings{"x", "", "y"})) << type;
  }
  const util::BigNum big = util::BigNum(0xFFFFFFFF) * util::BigNum(0xFFFFFFFF);
  EXPECT_TRUE(stored_and_decoded(18, big) == big);
  // A time stored as a 32-bit integer widens to 64 bits with its sign.
  EXPECT_EQ(-1, (stored_and_decoded<int32_t, int64_t>(5, -1)));
  EXPECT_EQ(2.25, (decoded_from<double, protocol::RealProp>(4, 2.25)));
  EXPECT_EQ(-5000000000, (decoded_from<int64_t, protocol::SignedInt64Prop>(17, -5000000000)));
  EXPECT_EQ((Octets{0x00, 0xFF, 0x10}),
            (decoded_from<Octets, protocol::BlobProp>(12, std::string("\x00\xFF\x10", 3))));
  EXPECT_EQ((Octets{'L', 'O', 'B'}),
            (decoded_from<Octets, protocol::LobProp>(19, std::string("LOB"))));
  const std::vector<uint32_t> list{1, 0x80000000u};
  EXPECT_EQ(list, (decoded_from<std::vector<uint32_t>, protocol::UnsignedIntListProp>(14, list)));
}

// The text of the util::ETqlError (always code 9) from decoding as T with the
// type word `wanted` a property stored with `stored` and no value (or with a
// string value).
template <class T>
std::string failure(uint32_t stored, uint32_t wanted, bool stringValue = false) {
  Property p;
  protocol::encode_property(p, "p", stored);
  if (stringValue) p.data = std::make_unique<protocol::StringProp>();
  T out{};
  try {
    protocol::decode_property(p, wanted, out);
  } catch (const util::ETqlError& e) {
    EXPECT_EQ(9, e.code);
    return e.message();
  }
  return "no failure";
}

TEST(Decode, NullValuesAndTypeMismatches) {
  using Strings = std::vector<std::string>;
  const struct {
    std::string got;
    const char* want;
  } cases[] = {
      // A null names the kind of property.
      {failure<bool>(1, 1), "Null given for boolean property: p"},
      {failure<double>(4, 4), "Null given for real property: p"},
      {failure<int32_t>(3, 3, true), "Null given for integer property: p"},  // another class
      {failure<uint32_t>(10, 10), "Null given for unsigned property: p"},
      {failure<std::string>(7, 7), "Null given for string property: p"},
      {failure<int64_t>(5, 5), "Null given for time property: p"},
      {failure<int64_t>(17, 17), "Null given for integer property: p"},
      {failure<util::BigNum>(18, 18), "Null given for bignum property: p"},
      {failure<Strings>(11, 11), "Null given for slist property: p"},
      {failure<Octets>(12, 12), "Null given for blob property: p"},
      {failure<Octets>(19, 19), "Null given for lob property: p"},
      {failure<std::vector<uint32_t>>(14, 14), "Null given for unsigned int list property: p"},
      // Type words that differ fail before the null is looked at; an
      // enumeration must match in number and flag.
      {failure<int32_t>(6, 3), "Type mismatch for property: p, wanted 3 got 6"},
      {failure<int64_t>(5, 17), "Type mismatch for property: p, wanted 17 got 5"},
      {failure<bool>(3, 1), "Type mismatch for property: p"},
      {failure<uint32_t>(0x10003, 0x10004),
       "Type mismatch for property: p, wanted 65540 got 65539"},
      {failure<uint32_t>(0x10003, 2), "Type mismatch for property: p, wanted 2 got 65539"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, c.got);
}

// Decoding as T with the type word `wanted` a string property "x".
template <class T>
std::function<void()> decoding_as(uint32_t wanted) {
  return [wanted] {
    Property p;
    protocol::encode_property(p, "x", 6, "abc");
    T out{};
    protocol::decode_property(p, wanted, out);
  };
}

TEST(CodecDeathTest, WrongTypeCodeIsAnAssertion) {
  Property p;
  const struct {
    std::function<void()> call;
    const char* text;
  } cases[] = {
      {[&] { protocol::encode_property(p, "flag", 3, true); },
       "Assertion failed: Type mismatch in tql::encode bool: flag"},
      {[&] { protocol::encode_property(p, "n", 0x10003, int32_t{1}); },
       "Assertion failed: Type mismatch in tql::encode int: n"},
      {[&] { protocol::encode_property(p, "u", 3, uint32_t{1}); },
       "Assertion failed: Type mismatch in tql::encode unsigned int: u"},
      {[&] { protocol::encode_property(p, "s", 8, "x"); },
       "Assertion failed: Type mismatch in tql::encode string: s"},
      {[&] { protocol::encode_property(p, "l", 6, std::vector<std::string>{}); },
       "Assertion failed: Type mismatch in tql::encode list<string>: l"},
      {[&] { protocol::encode_property(p, "big", 2, util::BigNum(1)); },
       "Assertion failed: Type mismatch in tql::encode bignum: big"},
      {decoding_as<bool>(2), "Assertion failed: Type mismatch in tql::decode bool"},
      {decoding_as<double>(3), "Assertion failed: Type mismatch in tql::decode real"},
      {decoding_as<int32_t>(5), "Type mismatch in tql::decode int :x"},
      {decoding_as<uint32_t>(3), "Type mismatch in tql::decode uint/enum/index"},
      {decoding_as<std::string>(8), "Type mismatch in tql::decode string/object"},
      {decoding_as<int64_t>(3), "Type mismatch in tql::decode int64 :x"},
      {decoding_as<util::BigNum>(17), "Type mismatch in tql::decode bignum: x"},
      {decoding_as<std::vector<std::string>>(6), "Type mismatch in tql::decode objectset"},
      {decoding_as<Octets>(18), "Type mismatch in tql::decode vector<uint8_t>"},
      {decoding_as<std::vector<uint32_t>>(13), "Type mismatch in tql::decode list<uint32_t>"},
  };
  for (const auto& c : cases) EXPECT_DEATH(c.call(), c.text);
}

}  // namespace
