#include "util/bignum.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// A value written in hexadecimal digits, most significant first.
util::BigNum from_hex(std::string hex) {
  if (hex.size() % 2 != 0) hex.insert(0, "0");
  Bytes bytes;
  for (size_t i = 0; i < hex.size(); i += 2) bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  util::BigNum v;
  util::bn_set_data(v, bytes.data(), bytes.size());
  return v;
}

// Leading zero bytes are dropped; a shorter value replaces a longer one
// entirely. bn_get_data writes the significant bytes first and zeroes the
// rest of the buffer.
TEST(BigNumTest, BytesInAndOut) {
  EXPECT_EQ(from_hex("0000000000"), util::BigNum());
  util::BigNum v = from_hex(std::string(18, 'f'));
  util::bn_set_data(v, Bytes{0, 0, 0, 1, 2}.data(), 5);
  EXPECT_EQ(v, util::BigNum(258));

  const auto get = [](const util::BigNum& value, size_t length) {
    Bytes buffer(length, 0xAA);
    util::bn_get_data(value, buffer.data(), length);
    return std::pair(length, buffer);
  };
  EXPECT_EQ(get(util::BigNum(0xFFFFFFFFu), 4), std::pair(size_t{4}, Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(get(from_hex("100000000"), 8), std::pair(size_t{5}, Bytes{1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(BigNumDeathTest, BufferTooSmallForGetDataAborts) {
  uint8_t buffer[7];
  size_t length = sizeof buffer;
  EXPECT_DEATH(util::bn_get_data(from_hex("100000000"), buffer, length),
               "^Assertion failed: Buffer given to bn_get_data is too small \\(wanted 8\\)\n");
}

// Sums and products both ways round, in decimal, across limb carries; values
// differing in size, in one limb or in one bit are unequal.
TEST(BigNumTest, SumProductAndEquality) {
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
  const std::vector<util::BigNum> distinct = {
      util::BigNum(), util::BigNum(1), from_hex("100000000"), from_hex("100000001"), from_hex("200000000")};
  for (size_t i = 0; i < distinct.size(); ++i) {
    for (size_t j = 0; j < distinct.size(); ++j) {
      EXPECT_EQ(std::pair(distinct[i] == distinct[j], distinct[i] != distinct[j]), std::pair(i == j, i != j));
    }
  }
}

// Copies share one array; arithmetic, printing and self-assignment leave it
// alone, and a change gives the changed value an array of its own. An array
// takes at most a thousand sharers; further copies get private arrays.
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
  target = util::BigNum(4);
  util::bn_set_data(copy, Bytes{9}.data(), 1);  // one of two sharers changes
  EXPECT_EQ(copy, util::BigNum(9));
  EXPECT_EQ(util::bn_to_string(original), text);
  EXPECT_EQ(original.share_count(), 1u);

  std::vector<util::BigNum> copies(999, original);
  EXPECT_EQ(original.share_count(), 1000u);
  util::BigNum extra(original);
  EXPECT_EQ(extra.share_count(), 1u);
  EXPECT_EQ(extra, original);
  copies.clear();
  EXPECT_EQ(original.share_count(), 1u);
}

}  // namespace
