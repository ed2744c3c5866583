#include "util/bignum.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using Bytes = std::vector<uint8_t>;

util::BigNum from_bytes(const Bytes& bytes) {
  util::BigNum v;
  util::bn_set_data(v, bytes.data(), bytes.size());
  return v;
}

// A value written in hexadecimal digits, most significant first.
util::BigNum from_hex(std::string hex) {
  if (hex.size() % 2 != 0) hex.insert(0, "0");
  Bytes bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return from_bytes(bytes);
}

TEST(BigNumTest, SetDataTakesBigEndianBytesWithoutLeadingZeros) {
  const struct { Bytes bytes; uint64_t size; const char* decimal; } cases[] = {
      {{}, 0, "0"}, {{0, 0, 0, 0, 0}, 0, "0"}, {{0xFF, 0xFF, 0xFF, 0xFF}, 1, "4294967295"},
      {{1, 0, 0, 0, 0}, 2, "4294967296"}};
  for (const auto& c : cases) {
    util::BigNum v = from_bytes(c.bytes);
    EXPECT_EQ(v.size(), c.size) << c.decimal;
    EXPECT_EQ(util::bn_to_string(v), c.decimal);
  }
  // A shorter value replaces a longer one entirely.
  util::BigNum v = from_bytes(Bytes(9, 0xFF));
  util::bn_set_data(v, Bytes{0, 0, 0, 1, 2}.data(), 5);
  EXPECT_EQ(v, util::BigNum(258));
}

TEST(BigNumTest, GetDataWritesSignificantBytesFirstAndZeroesTheRest) {
  // The buffer size, the whole buffer afterwards and the length reported.
  const struct {
    util::BigNum value;
    size_t bufferSize;
    Bytes buffer;
    size_t length;
  } cases[] = {{util::BigNum(), 4, {0, 0, 0, 0}, 0},
               {util::BigNum(), 0, {}, 0},
               {util::BigNum(0xFFFFFFFFu), 4, {0xFF, 0xFF, 0xFF, 0xFF}, 4},
               {from_hex("100000000"), 8, {1, 0, 0, 0, 0, 0, 0, 0}, 5}};
  for (const auto& c : cases) {
    Bytes buffer(c.bufferSize, 0xAA);
    size_t length = buffer.size();
    util::bn_get_data(c.value, buffer.data(), length);
    EXPECT_EQ(length, c.length) << util::bn_to_string(c.value);
    EXPECT_EQ(buffer, c.buffer) << util::bn_to_string(c.value);
  }
}

TEST(BigNumDeathTest, BufferTooSmallForGetDataAborts) {
  util::BigNum v = from_bytes({1, 0, 0, 0, 0});
  uint8_t buffer[7];
  size_t length = sizeof buffer;
  EXPECT_DEATH(util::bn_get_data(v, buffer, length),
               "^Assertion failed: Buffer given to bn_get_data is too small \\(wanted 8\\)\n");
}

TEST(BigNumTest, ToUint64UpToSixtyFourBitsThenNamesTheBitCount) {
  EXPECT_EQ(util::bn_to_uint64(util::BigNum()), 0u);
  EXPECT_EQ(util::bn_to_uint64(from_hex("100000000")), 0x100000000ull);
  EXPECT_EQ(util::bn_to_uint64(from_hex("ffffffffffffffff")), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ(support::errorText<util::ERange>([] { util::bn_to_uint64(from_hex("10000000000000000")); }),
            "Cannot fit 65 bits in uint64_t");
}

// Sums and products both ways round, in decimal, across limb carries.
TEST(ArithmeticTest, SumAndProduct) {
  const char* const cases[][4] = {
      {"", "", "0", "0"}, {"0", "3039", "12345", "0"},
      {"ffffffff", "1", "4294967296", "4294967295"},
      {"100000000", "100000000", "8589934592", "18446744073709551616"},
      {"ffffffffffffffff", "ffffffffffffffff", "36893488147419103230",
       "340282366920938463426481119284349108225"},
      {"1", "100000000000000000000000000000000", "340282366920938463463374607431768211457",
       "340282366920938463463374607431768211456"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c[0]) + " and " + c[1]);
    const util::BigNum a = from_hex(c[0]);
    const util::BigNum b = from_hex(c[1]);
    EXPECT_EQ(util::bn_to_string(a + b), c[2]);
    EXPECT_EQ(util::bn_to_string(b + a), c[2]);
    EXPECT_EQ(util::bn_to_string(a * b), c[3]);
    EXPECT_EQ(util::bn_to_string(b * a), c[3]);
  }
}

TEST(CompareTest, EqualOnlyToItself) {
  const std::vector<util::BigNum> distinct = {
      util::BigNum(),          util::BigNum(1),         util::BigNum(0xFFFFFFFFu),
      from_hex("100000000"),   from_hex("100000001"),   from_hex("200000000"),
      from_hex("8000000080000000"), from_hex("10000000000000000")};
  for (size_t i = 0; i < distinct.size(); ++i) {
    for (size_t j = 0; j < distinct.size(); ++j) {
      const util::BigNum &a = distinct[i], &b = distinct[j];
      EXPECT_EQ((std::vector<bool>{a == b, a != b}), (std::vector<bool>{i == j, i != j}))
          << i << " " << j;
    }
  }
}

// Copies share one array; arithmetic, printing and self-assignment leave it
// alone, and a change gives the changed value an array of its own.
TEST(CopyTest, CopiesShareUntilOneChanges) {
  const std::string text = "123456789012345678901234567890";
  util::BigNum original = from_hex("18ee90ff6c373e0ee4e3f0ad2");
  util::BigNum copy(original);
  EXPECT_EQ(original.share_count(), 2u);
  EXPECT_EQ(util::bn_to_string(copy * copy + copy),
            "15241578753238836750495351562659655576514250878776253619990");
  util::BigNum target(3);
  target = original;
  EXPECT_EQ(util::bn_to_string(target), text);
  EXPECT_EQ(util::bn_to_string(target), text);  // printing divided a private copy
  util::BigNum& alias = target;
  target = alias;
  EXPECT_EQ(original.share_count(), 3u);
  util::bn_set_data(copy, Bytes{9}.data(), 1);
  target = util::BigNum(4);
  EXPECT_EQ(copy, util::BigNum(9));
  EXPECT_EQ(util::bn_to_string(original), text);
  EXPECT_EQ(original.share_count(), 1u);
}

TEST(CopyTest, ThousandSharersAtMostThenPrivateCopies) {
  util::BigNum original(42);
  std::vector<util::BigNum> copies(999, original);
  EXPECT_EQ(original.share_count(), 1000u);
  util::BigNum extra(original);
  EXPECT_EQ(extra.share_count(), 1u);
  EXPECT_EQ(extra, util::BigNum(42));
  copies.clear();
  EXPECT_EQ(original.share_count(), 1u);
}

}  // namespace
