// Property values: tql::encode/decode with their type checks, null texts and
// assertions.

#include "protocol/property_codec.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/messages.h"
#include "util/error.h"

namespace {

using protocol::Property;
using Octets = std::vector<uint8_t>;

// `value` in a value object of class Prop, stored as `type`, decoded as `wanted`.
template <class T, class Prop, class V>
T decoded_from(uint32_t type, const V& value, uint32_t wanted) {
  Property p;
  p.type = type;
  p.data = std::make_unique<Prop>();
  static_cast<Prop&>(*p.data).value = value;
  T out{};
  protocol::decode_property(p, wanted, out);
  return out;
}

// The exported types are decoded by every export; these are the rest.
TEST(Decode, TypesTheExportLeavesOut) {
  // The constant and computed flags are ignored on the wanted side too.
  EXPECT_EQ(13, (decoded_from<int32_t, protocol::SignedIntProp>(3, 13, 3 | protocol::kPropComputed)));
  EXPECT_EQ(7u, (decoded_from<uint32_t, protocol::UnsignedIntProp>(0x10007, 7u, 0x10007)));
  EXPECT_EQ(-5000000000, (decoded_from<int64_t, protocol::SignedInt64Prop>(17, -5000000000, 17)));
  EXPECT_EQ((Octets{'L', 'O', 'B'}), (decoded_from<Octets, protocol::LobProp>(19, "LOB", 19)));
}

// The text of the util::ETqlError (always code 9) from decoding as T with the
// type word `wanted` a property "p" stored as `stored` with no value (or an
// empty string value).
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
  // A null (or a value of another class) names the kind of property.
  const std::pair<std::string, const char*> nulls[] = {
      {failure<bool>(1, 1), "boolean"}, {failure<double>(4, 4), "real"},
      {failure<int32_t>(3, 3, true), "integer"}, {failure<uint32_t>(10, 10), "unsigned"},
      {failure<std::string>(7, 7), "string"}, {failure<int64_t>(5, 5), "time"},
      {failure<int64_t>(17, 17), "integer"}, {failure<util::BigNum>(18, 18), "bignum"},
      {failure<std::vector<std::string>>(11, 11), "slist"}, {failure<Octets>(12, 12), "blob"},
      {failure<Octets>(19, 19), "lob"}, {failure<std::vector<uint32_t>>(14, 14), "unsigned int list"},
  };
  for (const auto& [got, kind] : nulls) {
    EXPECT_EQ(got, "Null given for " + std::string(kind) + " property: p");
  }
  // Type words that differ fail before the null is looked at; an
  // enumeration must match in number and flag.
  EXPECT_EQ(failure<int32_t>(6, 3), "Type mismatch for property: p, wanted 3 got 6");
  EXPECT_EQ(failure<int64_t>(5, 17), "Type mismatch for property: p, wanted 17 got 5");
  EXPECT_EQ(failure<bool>(3, 1), "Type mismatch for property: p");
  EXPECT_EQ(failure<uint32_t>(0x10003, 0x10004), "Type mismatch for property: p, wanted 65540 got 65539");
  EXPECT_EQ(failure<uint32_t>(0x10003, 2), "Type mismatch for property: p, wanted 2 got 65539");
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
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { protocol::encode_property(p, "x", 3, true); }, "encode bool: x"},
      {[&] { protocol::encode_property(p, "x", 0x10003, int32_t{1}); }, "encode int: x"},
      {[&] { protocol::encode_property(p, "x", 3, uint32_t{1}); }, "encode unsigned int: x"},
      {[&] { protocol::encode_property(p, "x", 8, "x"); }, "encode string: x"},
      {[&] { protocol::encode_property(p, "x", 6, std::vector<std::string>()); },
       "encode list<string>: x"},
      {[&] { protocol::encode_property(p, "x", 2, util::BigNum(1)); }, "encode bignum: x"},
      {decoding_as<bool>(2), "decode bool"}, {decoding_as<double>(3), "decode real"},
      {decoding_as<int32_t>(5), "decode int :x"}, {decoding_as<uint32_t>(3), "decode uint/enum/index"},
      {decoding_as<std::string>(8), "decode string/object"}, {decoding_as<int64_t>(3), "decode int64 :x"},
      {decoding_as<util::BigNum>(17), "decode bignum: x"},
      {decoding_as<std::vector<std::string>>(6), "decode objectset"},
      {decoding_as<Octets>(18), "decode vector<uint8_t>"},
      {decoding_as<std::vector<uint32_t>>(13), "decode list<uint32_t>"},
  };
  for (const auto& [call, text] : cases) {
    EXPECT_DEATH(call(), std::string("Assertion failed: Type mismatch in tql::") + text);
  }
}

}  // namespace
