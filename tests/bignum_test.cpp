#include "util/bignum.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "util/error.h"

// Reaches the private growth routine and the count word in front of the limbs.
class BigNumTestPeer {
 public:
  static void grow(BigNum& v, uint64_t n) { v.grow(n); }
  static void set_count(BigNum& v, uint32_t count) { v.limbs_[-1] = count; }
  static const uint32_t* limbs(const BigNum& v) { return v.limbs_; }
};

namespace {

using Bytes = std::vector<uint8_t>;

BigNum from_bytes(const Bytes& bytes) {
  BigNum v;
  bn_set_data(v, bytes.data(), bytes.size());
  return v;
}

// Decimal text parsed through the public arithmetic.
BigNum from_decimal(const std::string& text) {
  BigNum v;
  for (char c : text) v = v * BigNum(10) + BigNum(static_cast<uint32_t>(c - '0'));
  return v;
}

BigNum pow2(int exponent) {
  BigNum v(1);
  for (int i = 0; i < exponent; ++i) v = v * BigNum(2);
  return v;
}

TEST(BigNumTest, ZeroHasNoLimbsButOneOfCapacity) {
  BigNum zero;
  EXPECT_EQ(zero.size(), 0u);
  EXPECT_EQ(zero.capacity(), 1u);
  EXPECT_EQ(zero.share_count(), 1u);
  EXPECT_EQ(bn_to_string(zero), "0");
  EXPECT_EQ(BigNum(0u).size(), 0u);
  EXPECT_EQ(BigNum(0u), zero);
  EXPECT_EQ(BigNum(7).size(), 1u);
  EXPECT_EQ(BigNum(7).limb(0), 7u);
}

struct SetDataCase {
  Bytes bytes;
  uint64_t size;
  const char* decimal;
};
void PrintTo(const SetDataCase& c, std::ostream* os) { *os << c.decimal; }

class SetDataTest : public testing::TestWithParam<SetDataCase> {};

TEST_P(SetDataTest, BigEndianBytes) {
  BigNum v = from_bytes(GetParam().bytes);
  EXPECT_EQ(v.size(), GetParam().size);
  EXPECT_EQ(bn_to_string(v), GetParam().decimal);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SetDataTest,
    testing::Values(SetDataCase{{0, 0, 1}, 1, "1"}, SetDataCase{{1, 0, 0, 0, 0}, 2, "4294967296"},
                    SetDataCase{{}, 0, "0"}, SetDataCase{{0, 0, 0, 0, 0}, 0, "0"},
                    SetDataCase{{0xFF, 0xFF, 0xFF, 0xFF}, 1, "4294967295"},
                    SetDataCase{{1, 2, 3, 4, 5, 6, 7, 8, 9}, 3, "18591708106338011145"},
                    SetDataCase{{0x12, 0x34}, 1, "4660"}));

TEST(SetDataTest, TwoToThe32HasLimbsZeroAndOne) {
  BigNum v = from_bytes({1, 0, 0, 0, 0});
  EXPECT_EQ(v.limb(0), 0u);
  EXPECT_EQ(v.limb(1), 1u);
}

TEST(SetDataTest, ReplacesAnyEarlierValue) {
  BigNum v = from_bytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  bn_set_data(v, Bytes{0x01}.data(), 1);
  EXPECT_EQ(v, BigNum(1));
  BigNum w(0xFFFFFFFFu);
  bn_set_data(w, Bytes{0, 0, 0, 1, 2}.data(), 5);
  EXPECT_EQ(w, BigNum(258));
}

struct GetDataCase {
  BigNum value;
  size_t bufferSize;
  Bytes buffer;  // the whole buffer afterwards
  size_t length;
};
void PrintTo(const GetDataCase& c, std::ostream* os) {
  *os << bn_to_string(c.value) << " into " << c.bufferSize << " bytes";
}

class GetDataTest : public testing::TestWithParam<GetDataCase> {};

TEST_P(GetDataTest, SignificantBytesFirstRestZeroed) {
  const GetDataCase& c = GetParam();
  Bytes buffer(c.bufferSize, 0xAA);
  size_t length = buffer.size();
  bn_get_data(c.value, buffer.data(), length);
  EXPECT_EQ(length, c.length);
  EXPECT_EQ(buffer, c.buffer);
}

INSTANTIATE_TEST_SUITE_P(
    Table, GetDataTest,
    testing::Values(GetDataCase{BigNum(), 4, {0, 0, 0, 0}, 0}, GetDataCase{BigNum(), 0, {}, 0},
                    GetDataCase{from_bytes({1, 0, 0, 0, 0}), 8, {1, 0, 0, 0, 0, 0, 0, 0}, 5},
                    GetDataCase{BigNum(0x01020304u), 6, {1, 2, 3, 4, 0, 0}, 4},
                    GetDataCase{BigNum(0x80u), 4, {0x80, 0, 0, 0}, 1},
                    GetDataCase{BigNum(0xFFFFFFFFu), 4, {0xFF, 0xFF, 0xFF, 0xFF}, 4}));

TEST(GetDataTest, RoundTripsThroughSetData) {
  Bytes bytes;
  for (int i = 1; i <= 37; ++i) bytes.push_back(static_cast<uint8_t>(i * 41));
  BigNum v = from_bytes(bytes);
  Bytes out(40);
  size_t length = out.size();
  bn_get_data(v, out.data(), length);
  ASSERT_EQ(length, bytes.size());
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), out.begin()));
}

TEST(BigNumDeathTest, GetDataBufferTooSmallNamesNeededBytes) {
  BigNum v = from_bytes({1, 0, 0, 0, 0});
  uint8_t buffer[7];
  size_t length = sizeof buffer;
  EXPECT_DEATH(bn_get_data(v, buffer, length),
               "^Assertion failed: Buffer given to bn_get_data is too small \\(wanted 8\\)\n");
}

TEST(BigNumDeathTest, ShrinkingGrowthIsBadReallocation) {
  BigNum v = from_bytes({1, 0, 0, 0, 0});
  EXPECT_DEATH(BigNumTestPeer::grow(v, 1), "^Assertion failed: Bad reallocation in BigNum\n");
}

TEST(BigNumDeathTest, CorruptedCountAbortsOnCopy) {
  for (uint32_t bad : {0u, 1001u}) {
    EXPECT_DEATH(
        {
          BigNum v(5);
          BigNumTestPeer::set_count(v, bad);
          BigNum copy(v);
        },
        "");
  }
}

struct DecimalCase {
  BigNum value;
  const char* text;
};
void PrintTo(const DecimalCase& c, std::ostream* os) { *os << c.text; }

class DecimalTest : public testing::TestWithParam<DecimalCase> {};

TEST_P(DecimalTest, Text) { EXPECT_EQ(bn_to_string(GetParam().value), GetParam().text); }

INSTANTIATE_TEST_SUITE_P(
    Table, DecimalTest,
    testing::Values(DecimalCase{BigNum(), "0"}, DecimalCase{BigNum(1), "1"},
                    DecimalCase{BigNum(10), "10"},
                    DecimalCase{BigNum(4294967295u), "4294967295"},
                    DecimalCase{pow2(32), "4294967296"},
                    DecimalCase{pow2(64), "18446744073709551616"},
                    DecimalCase{pow2(128), "340282366920938463463374607431768211456"},
                    DecimalCase{from_decimal("1000000000000000000000000000000"),
                                "1000000000000000000000000000000"}));

TEST(ToUint64Test, LimitsAndBitCountInMessage) {
  EXPECT_EQ(bn_to_uint64(BigNum()), 0u);
  EXPECT_EQ(bn_to_uint64(BigNum(0xFFFFFFFFu)), 0xFFFFFFFFu);
  EXPECT_EQ(bn_to_uint64(pow2(32)), 0x100000000ull);
  EXPECT_EQ(bn_to_uint64(from_decimal("18446744073709551615")), 0xFFFFFFFFFFFFFFFFull);
  struct Case {
    BigNum value;
    const char* text;
  } cases[] = {{pow2(64), "Cannot fit 65 bits in uint64_t"},
               {pow2(96), "Cannot fit 97 bits in uint64_t"},
               {pow2(95), "Cannot fit 96 bits in uint64_t"}};
  for (const Case& c : cases) {
    try {
      bn_to_uint64(c.value);
      ADD_FAILURE() << "no exception for " << c.text;
    } catch (const error::ERange& e) {
      EXPECT_EQ(e.text(), c.text);
    }
  }
}

struct ArithmeticCase {
  const char* a;
  const char* b;
  const char* sum;
  const char* product;
};
void PrintTo(const ArithmeticCase& c, std::ostream* os) { *os << c.a << " and " << c.b; }

class ArithmeticTest : public testing::TestWithParam<ArithmeticCase> {};

TEST_P(ArithmeticTest, SumAndProductBothWays) {
  BigNum a = from_decimal(GetParam().a);
  BigNum b = from_decimal(GetParam().b);
  EXPECT_EQ(bn_to_string(a + b), GetParam().sum);
  EXPECT_EQ(bn_to_string(b + a), GetParam().sum);
  EXPECT_EQ(bn_to_string(a * b), GetParam().product);
  EXPECT_EQ(bn_to_string(b * a), GetParam().product);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ArithmeticTest,
    testing::Values(
        ArithmeticCase{"0", "0", "0", "0"}, ArithmeticCase{"0", "12345", "12345", "0"},
        ArithmeticCase{"4294967295", "1", "4294967296", "4294967295"},
        ArithmeticCase{"4294967296", "4294967296", "8589934592", "18446744073709551616"},
        ArithmeticCase{"18446744073709551615", "18446744073709551615", "36893488147419103230",
                       "340282366920938463426481119284349108225"},
        ArithmeticCase{"12345678901234567890", "98765432109876543210", "111111111011111111100",
                       "1219326311370217952237463801111263526900"}));

TEST(ArithmeticTest, SizesAfterCarry) {
  BigNum sum = BigNum(0xFFFFFFFFu) + BigNum(1);
  EXPECT_EQ(sum.size(), 2u);
  EXPECT_EQ(sum.limb(0), 0u);
  EXPECT_EQ(sum.limb(1), 1u);
  BigNum product = pow2(32) * pow2(32);
  EXPECT_EQ(product.size(), 3u);
  EXPECT_EQ(product.limb(2), 1u);
  EXPECT_EQ(product, pow2(64));
}

// The sum gets one limb more than the longer operand only where a carry out of
// the top limb is possible.
TEST(ArithmeticTest, SumCapacity) {
  EXPECT_EQ((BigNum(1) + BigNum(1)).capacity(), 1u);
  EXPECT_EQ((BigNum(0x80000000u) + BigNum(1)).capacity(), 2u);
  EXPECT_EQ((BigNum(1) + BigNum(0x80000000u)).capacity(), 2u);
  EXPECT_EQ((pow2(32) + BigNum(0xFFFFFFFFu)).capacity(), 2u);
  EXPECT_EQ((pow2(63) + BigNum(1)).capacity(), 3u);
  EXPECT_EQ((BigNum() + BigNum()).capacity(), 1u);
  EXPECT_EQ((BigNum() + BigNum()).size(), 0u);
  EXPECT_EQ((BigNum(0x80000000u) + BigNum(0x80000000u)).size(), 2u);
}

TEST(CompareTest, OrderByLimbCountThenFromTop) {
  std::vector<BigNum> ascending = {BigNum(),    BigNum(1),           BigNum(0xFFFFFFFFu),
                                   pow2(32),    pow2(32) + BigNum(1), pow2(33),
                                   pow2(63) + pow2(31), pow2(64)};
  for (size_t i = 0; i < ascending.size(); ++i) {
    for (size_t j = 0; j < ascending.size(); ++j) {
      const BigNum& a = ascending[i];
      const BigNum& b = ascending[j];
      EXPECT_EQ(a == b, i == j) << i << " " << j;
      EXPECT_EQ(a != b, i != j) << i << " " << j;
      EXPECT_EQ(a < b, i < j) << i << " " << j;
      EXPECT_EQ(a > b, i > j) << i << " " << j;
    }
  }
}

TEST(CopyTest, CopiesShareUntilOneChanges) {
  BigNum original = from_decimal("123456789012345678901234567890");
  BigNum copy(original);
  EXPECT_EQ(original.share_count(), 2u);
  EXPECT_EQ(BigNumTestPeer::limbs(copy), BigNumTestPeer::limbs(original));

  bn_set_data(copy, Bytes{9}.data(), 1);
  EXPECT_EQ(copy, BigNum(9));
  EXPECT_EQ(bn_to_string(original), "123456789012345678901234567890");
  EXPECT_EQ(original.share_count(), 1u);
  EXPECT_EQ(copy.share_count(), 1u);
}

TEST(CopyTest, AssignmentAndPrintingLeaveTheSourceAlone) {
  BigNum original = pow2(70);
  BigNum target(3);
  target = original;
  EXPECT_EQ(original.share_count(), 2u);
  EXPECT_EQ(bn_to_string(target), "1180591620717411303424");
  EXPECT_EQ(target, pow2(70));  // printing divided a private copy
  EXPECT_EQ(original.share_count(), 2u);
  BigNum& alias = target;
  target = alias;  // self-assignment keeps the value
  EXPECT_EQ(target, pow2(70));
  target = BigNum(4);
  EXPECT_EQ(original, pow2(70));
  EXPECT_EQ(original.share_count(), 1u);
}

TEST(CopyTest, ArithmeticDoesNotChangeOperands) {
  BigNum a(0xFFFFFFFFu);
  BigNum b(a);
  BigNum c = a + b;
  BigNum d = a * b;
  EXPECT_EQ(a, BigNum(0xFFFFFFFFu));
  EXPECT_EQ(b, BigNum(0xFFFFFFFFu));
  EXPECT_EQ(bn_to_string(c), "8589934590");
  EXPECT_EQ(bn_to_string(d), "18446744065119617025");
}

TEST(CopyTest, ThousandSharersAtMostThenPrivateCopies) {
  BigNum original(42);
  std::vector<BigNum> copies(999, original);
  EXPECT_EQ(original.share_count(), 1000u);
  BigNum extra(original);
  EXPECT_EQ(extra.share_count(), 1u);
  EXPECT_EQ(extra, BigNum(42));
  EXPECT_EQ(original.share_count(), 1000u);
  copies.clear();
  EXPECT_EQ(original.share_count(), 1u);
}

TEST(GrowTest, SharedArrayIsReplacedByExactlyN) {
  BigNum a(7);
  BigNum b(a);
  BigNumTestPeer::grow(b, 3);
  EXPECT_EQ(b.capacity(), 3u);
  EXPECT_EQ(b.size(), 3u);
  EXPECT_EQ(b.limb(0), 7u);
  EXPECT_EQ(b.limb(1), 0u);
  EXPECT_EQ(b.limb(2), 0u);
  EXPECT_EQ(a.share_count(), 1u);
  EXPECT_EQ(a.size(), 1u);
}

TEST(GrowTest, PrivateArrayWithRoomZeroesTheNewLimbs) {
  BigNum v = pow2(64) + BigNum(0xFFFFFFFFu);  // three limbs
  bn_set_data(v, Bytes{5}.data(), 1);          // one limb in use, capacity 3
  ASSERT_EQ(v.capacity(), 3u);
  const uint32_t* before = BigNumTestPeer::limbs(v);
  BigNumTestPeer::grow(v, 3);
  EXPECT_EQ(BigNumTestPeer::limbs(v), before);
  EXPECT_EQ(v.limb(0), 5u);
  EXPECT_EQ(v.limb(1), 0u);
  EXPECT_EQ(v.limb(2), 0u);
}

// Records every array handed back to the allocator.
struct FreedArray {
  uint64_t capacity;
  bool allZero;
};
std::vector<FreedArray>* g_freed = nullptr;

void record_free(const uint32_t* limbs, uint64_t capacity) {
  bool zero = true;
  for (uint64_t i = 0; i < capacity; ++i) zero = zero && limbs[i] == 0;
  g_freed->push_back({capacity, zero});
}

class WipeTest : public testing::Test {
 protected:
  void SetUp() override {
    g_freed = &freed_;
    BigNum::set_free_observer_for_testing(record_free);
  }
  void TearDown() override {
    BigNum::set_free_observer_for_testing(nullptr);
    g_freed = nullptr;
  }
  std::vector<FreedArray> freed_;
};

TEST_F(WipeTest, ReleaseWipesEveryCapacityLimb) {
  {
    BigNum v = from_bytes(Bytes(12, 0xEE));
    bn_set_data(v, Bytes{0xDD}.data(), 1);  // limbs 1 and 2 beyond size still hold bytes
    freed_.clear();
  }
  ASSERT_EQ(freed_.size(), 1u);
  EXPECT_EQ(freed_[0].capacity, 3u);
  EXPECT_TRUE(freed_[0].allZero);
}

TEST_F(WipeTest, ReplacedArrayIsWipedOnGrowth) {
  BigNum v(0xDEADBEEFu);
  freed_.clear();
  BigNumTestPeer::grow(v, 4);
  ASSERT_EQ(freed_.size(), 1u);
  EXPECT_EQ(freed_[0].capacity, 1u);
  EXPECT_TRUE(freed_[0].allZero);
  EXPECT_EQ(v.limb(0), 0xDEADBEEFu);
  EXPECT_EQ(v.capacity(), 4u);
}

TEST_F(WipeTest, SharedArrayIsFreedOnceByTheLastHolder) {
  auto a = std::make_unique<BigNum>(0xABCDu);
  auto b = std::make_unique<BigNum>(*a);
  freed_.clear();
  a.reset();
  EXPECT_TRUE(freed_.empty());
  EXPECT_EQ(b->limb(0), 0xABCDu);
  EXPECT_EQ(b->share_count(), 1u);
  b.reset();
  ASSERT_EQ(freed_.size(), 1u);
  EXPECT_EQ(freed_[0].capacity, 1u);
  EXPECT_TRUE(freed_[0].allZero);
}

TEST_F(WipeTest, EveryArrayOfAComputationIsWiped) {
  {
    BigNum v = from_decimal("98765432109876543210987654321098765432109876543210");
    EXPECT_EQ(bn_to_string(v * v + v),
              "97546105798506325258725803993760097546164761469294388050602551287913466377076667"
              "76253619888873647310");
  }
  ASSERT_FALSE(freed_.empty());
  for (const FreedArray& f : freed_) EXPECT_TRUE(f.allZero);
}

}  // namespace
