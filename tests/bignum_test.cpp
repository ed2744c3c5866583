#include "util/bignum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "support/scripted_peer.h"
#include "util/error.h"

// Reaches the private growth routine and the count word in front of the limbs.
class BigNumTestPeer {
 public:
  static void grow(util::BigNum& v, uint64_t n) { v.grow(n); }
  static void set_count(util::BigNum& v, uint32_t count) { v.limbs_[-1] = count; }
  static const uint32_t* limbs(const util::BigNum& v) { return v.limbs_; }
};

namespace {

using Bytes = std::vector<uint8_t>;

util::BigNum from_bytes(const Bytes& bytes) {
  util::BigNum v;
  util::bn_set_data(v, bytes.data(), bytes.size());
  return v;
}

// Decimal text parsed through the public arithmetic.
util::BigNum from_decimal(const std::string& text) {
  util::BigNum v;
  for (char c : text) v = v * util::BigNum(10) + util::BigNum(static_cast<uint32_t>(c - '0'));
  return v;
}

util::BigNum pow2(int exponent) {
  util::BigNum v(1);
  for (int i = 0; i < exponent; ++i) v = v * util::BigNum(2);
  return v;
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
               {pow2(32), 8, {1, 0, 0, 0, 0, 0, 0, 0}, 5}};
  for (const auto& c : cases) {
    Bytes buffer(c.bufferSize, 0xAA);
    size_t length = buffer.size();
    util::bn_get_data(c.value, buffer.data(), length);
    EXPECT_EQ(length, c.length) << util::bn_to_string(c.value);
    EXPECT_EQ(buffer, c.buffer) << util::bn_to_string(c.value);
  }
}

TEST(BigNumDeathTest, BrokenInvariantsAbort) {
  util::BigNum v = from_bytes({1, 0, 0, 0, 0});
  uint8_t buffer[7];
  size_t length = sizeof buffer;
  EXPECT_DEATH(util::bn_get_data(v, buffer, length),
               "^Assertion failed: Buffer given to bn_get_data is too small \\(wanted 8\\)\n");
  EXPECT_DEATH(BigNumTestPeer::grow(v, 1), "^Assertion failed: Bad reallocation in BigNum\n");
  for (uint32_t bad : {0u, 1001u}) {
    EXPECT_DEATH(
        {
          util::BigNum w(5);
          BigNumTestPeer::set_count(w, bad);
          util::BigNum copy(w);
        },
        "");
  }
}

TEST(BigNumTest, ToUint64UpToSixtyFourBitsThenNamesTheBitCount) {
  EXPECT_EQ(util::bn_to_uint64(util::BigNum()), 0u);
  EXPECT_EQ(util::bn_to_uint64(pow2(32)), 0x100000000ull);
  EXPECT_EQ(util::bn_to_uint64(from_decimal("18446744073709551615")), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ(peer::errorText<util::ERange>([] { util::bn_to_uint64(pow2(64)); }),
            "Cannot fit 65 bits in uint64_t");
}

// Sums and products both ways round, in decimal, across limb carries.
TEST(ArithmeticTest, SumAndProduct) {
  const char* const cases[][4] = {
      {"0", "0", "0", "0"}, {"0", "12345", "12345", "0"},
      {"4294967295", "1", "4294967296", "4294967295"},
      {"4294967296", "4294967296", "8589934592", "18446744073709551616"},
      {"18446744073709551615", "18446744073709551615", "36893488147419103230",
       "340282366920938463426481119284349108225"},
      {"1", "340282366920938463463374607431768211456", "340282366920938463463374607431768211457",
       "340282366920938463463374607431768211456"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c[0]) + " and " + c[1]);
    const util::BigNum a = from_decimal(c[0]);
    const util::BigNum b = from_decimal(c[1]);
    EXPECT_EQ(util::bn_to_string(a + b), c[2]);
    EXPECT_EQ(util::bn_to_string(b + a), c[2]);
    EXPECT_EQ(util::bn_to_string(a * b), c[3]);
    EXPECT_EQ(util::bn_to_string(b * a), c[3]);
  }
}

TEST(CompareTest, EqualOnlyToItself) {
  const std::vector<util::BigNum> ascending = {util::BigNum(),
                                               util::BigNum(1),
                                               util::BigNum(0xFFFFFFFFu),
                                               pow2(32),
                                               pow2(32) + util::BigNum(1),
                                               pow2(33),
                                               pow2(63) + pow2(31),
                                               pow2(64)};
  for (size_t i = 0; i < ascending.size(); ++i) {
    for (size_t j = 0; j < ascending.size(); ++j) {
      const util::BigNum &a = ascending[i], &b = ascending[j];
      EXPECT_EQ((std::vector<bool>{a == b, a != b}), (std::vector<bool>{i == j, i != j}))
          << i << " " << j;
    }
  }
}

// Copies share one array; arithmetic, printing and self-assignment leave it
// alone, and a change gives the changed value an array of its own.
TEST(CopyTest, CopiesShareUntilOneChanges) {
  const std::string text = "123456789012345678901234567890";
  util::BigNum original = from_decimal(text);
  util::BigNum copy(original);
  EXPECT_EQ(BigNumTestPeer::limbs(copy), BigNumTestPeer::limbs(original));
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

// Records every array handed back to the allocator: its capacity, and
// whether all its limbs were zero.
using Freed = std::vector<std::pair<uint64_t, bool>>;
Freed* g_freed = nullptr;

class WipeTest : public testing::Test {
 protected:
  void SetUp() override {
    g_freed = &freed_;
    util::BigNum::set_free_observer_for_testing([](const uint32_t* limbs, uint64_t capacity) {
      g_freed->emplace_back(capacity, std::all_of(limbs, limbs + capacity, [](uint32_t l) { return l == 0; }));
    });
  }
  void TearDown() override { util::BigNum::set_free_observer_for_testing(nullptr); }
  Freed freed_;
};

// Every capacity limb is wiped, also those beyond the size; a shared array is
// freed once, by its last holder; growth wipes the array it replaces; so
// does every step of a computation.
TEST_F(WipeTest, ReleasedArraysAreWiped) {
  {
    util::BigNum v = from_bytes(Bytes(12, 0xEE));
    util::bn_set_data(v, Bytes{0xDD}.data(), 1);  // limbs 1 and 2 beyond size still hold bytes
    freed_.clear();
  }
  EXPECT_EQ(freed_, (Freed{{3, true}}));
  auto a = std::make_unique<util::BigNum>(0xABCDu);
  auto b = std::make_unique<util::BigNum>(*a);
  freed_.clear();
  a.reset();
  EXPECT_TRUE(freed_.empty());
  EXPECT_EQ(b->limb(0), 0xABCDu);
  BigNumTestPeer::grow(*b, 4);
  EXPECT_EQ(freed_, (Freed{{1, true}}));
  EXPECT_EQ(b->limb(0), 0xABCDu);
  freed_.clear();
  {  // every array of a computation
    util::BigNum v = from_decimal("98765432109876543210987654321098765432109876543210");
    EXPECT_EQ(util::bn_to_string(v * v + v),
              "97546105798506325258725803993760097546164761469294388050602551287913466377076667"
              "76253619888873647310");
  }
  ASSERT_FALSE(freed_.empty());
  for (const auto& f : freed_) EXPECT_TRUE(f.second);
}

}  // namespace
