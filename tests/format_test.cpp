#include "util/format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "util/error.h"

namespace {

struct TextCase {
  std::string actual;
  const char* expected;
};
void PrintTo(const TextCase& c, std::ostream* os) { *os << quote_escape(c.expected); }

class IntegerTextTest : public testing::TestWithParam<TextCase> {};

TEST_P(IntegerTextTest, Matches) { EXPECT_EQ(GetParam().actual, GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    Table, IntegerTextTest,
    testing::Values(TextCase{uint_to_string(7, true), "07"}, TextCase{uint_to_string(7), "7"},
                    TextCase{uint_to_string(0, true), "00"},
                    TextCase{uint_to_string(4294967295u), "4294967295"},
                    TextCase{int_to_string(-7, true), "-7"},
                    TextCase{int_to_string(123, true), "123"},
                    TextCase{int_to_string(5, true), "05"},
                    TextCase{int_to_string(INT32_MIN), "-2147483648"},
                    TextCase{size_to_string(18446744073709551615ull), "18446744073709551615"},
                    TextCase{size_to_string(0), "0"}, TextCase{hex_string(0xAB, 4), "00ab"},
                    TextCase{hex_string(0x12345, 2), "12345"},
                    TextCase{hex_string(0xFFFFFFFFu, 0), "ffffffff"},
                    TextCase{hex_string(0, -1), "0"},
                    TextCase{gid_to_string(0x0A0B0C0D), "0a:0b:0c:0d"},
                    TextCase{gid_to_string(0), "00:00:00:00"},
                    TextCase{gid_to_string(0xFF00A001u), "ff:00:a0:01"}));

class RealTextTest : public testing::TestWithParam<TextCase> {};

TEST_P(RealTextTest, Matches) { EXPECT_EQ(GetParam().actual, GetParam().expected); }

const double kInf = std::numeric_limits<double>::infinity();

INSTANTIATE_TEST_SUITE_P(
    Table, RealTextTest,
    testing::Values(TextCase{real_to_string(0.0), "0.000000"},
                    TextCase{real_to_string(1.5), "1.500000"},
                    TextCase{real_to_string(-2.25), "-2.250000"},
                    TextCase{real_to_string(std::nan("")), "nan"},
                    TextCase{real_to_string(kInf), "inf"},
                    TextCase{real_to_string(-kInf), "-inf"},
                    TextCase{real_to_string(std::numeric_limits<double>::max()).substr(0, 10),
                             "1797693134"},
                    TextCase{real_to_string(1.5, 10), "  1.500000"},
                    TextCase{real_to_string(1.25, -1, 1), "1.2"},
                    TextCase{real_to_string(1.5, 6, 2), "  1.50"},
                    TextCase{real_to_string(3.0, 0, 0), "3"}));

TEST(RealTextTest, HugeValueIsPrintedInFull) {
  // 2^500 is exact in a double and needs more than a 128-byte buffer with "%f".
  EXPECT_EQ(real_to_string(std::ldexp(1.0, 500)),
            "32733906078961418700131896968275991522166420460430647894832913680961337964046745"
            "54883270092325904157150886684127560071009217256545885393053328527589376"
            ".000000");
}

TEST(ParseRealTest, AcceptsNumbersAndSpecialTexts) {
  EXPECT_EQ(parse_real("1e3"), 1000.0);
  EXPECT_EQ(parse_real("-0.5"), -0.5);
  EXPECT_EQ(parse_real(""), 0.0);
  EXPECT_EQ(parse_real("inf"), kInf);
  EXPECT_EQ(parse_real("-inf"), -kInf);
  EXPECT_TRUE(std::isnan(parse_real("nan")));
}

class ParseErrorTest : public testing::TestWithParam<TextCase> {};

TEST_P(ParseErrorTest, MessageIsExact) {
  // The first character of `actual` selects the parser: 'r' real, 'i' int.
  const std::string& input = GetParam().actual;
  try {
    if (input[0] == 'r') {
      parse_real(input.substr(1));
    } else {
      parse_int(input.substr(1));
    }
    FAIL() << "no exception for " << input;
  } catch (const error::EParseError& e) {
    EXPECT_EQ(e.text(), GetParam().expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ParseErrorTest,
    testing::Values(TextCase{"r12x", "Error parsing: \"12x\""},
                    // parse_real shows the text unchanged, even a tab or a quote.
                    TextCase{"r1\t2", "Error parsing: \"1\t2\""},
                    TextCase{"r\"a\"", "Error parsing: \"\"a\"\""},
                    TextCase{"r ", "Error parsing: \" \""},
                    TextCase{"rNaNx", "Error parsing: \"NaNx\""},
                    TextCase{"i12x", "Error parsing: \"12x\""},
                    TextCase{"i1\t2", "Error parsing: \"1\\t2\""},
                    TextCase{"i1.5", "Error parsing: \"1.5\""},
                    TextCase{"i \"", "Error parsing: \" \\\"\""},
                    TextCase{"iabc", "Error parsing: \"abc\""}));

TEST(ParseIntTest, DecimalAndSaturating) {
  EXPECT_EQ(parse_int(""), 0);
  EXPECT_EQ(parse_int("42"), 42);
  EXPECT_EQ(parse_int("-17"), -17);
  EXPECT_EQ(parse_int("+8"), 8);
  EXPECT_EQ(parse_int("010"), 10);  // base 10, not octal
  EXPECT_EQ(parse_int("2147483647"), INT32_MAX);
  EXPECT_EQ(parse_int("2147483648"), INT32_MAX);
  EXPECT_EQ(parse_int("99999999999999999999999"), INT32_MAX);
  EXPECT_EQ(parse_int("-2147483648"), INT32_MIN);
  EXPECT_EQ(parse_int("-2147483649"), INT32_MIN);
}

TEST(ParseIntTest, EmbeddedNulIsLeftOverText) {
  EXPECT_THROW(parse_int(std::string("5\0", 2)), error::EParseError);
  EXPECT_THROW(parse_real(std::string("5\0", 2)), error::EParseError);
}

class QuoteEscapeTest : public testing::TestWithParam<TextCase> {};

TEST_P(QuoteEscapeTest, Matches) {
  EXPECT_EQ(quote_escape(GetParam().actual), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, QuoteEscapeTest,
    testing::Values(TextCase{"", "\"\""}, TextCase{"abc", "\"abc\""},
                    TextCase{"\a\b\t\n\v\f\r", "\"\\a\\b\\t\\n\\v\\f\\r\""},
                    TextCase{"\"'\\", "\"\\\"\\'\\\\\""},
                    TextCase{std::string("\0\x01\x1f", 3), "\"\\000\\001\\037\""},
                    TextCase{"\x1b[", "\"\\033[\""},
                    TextCase{" ~\x7f\x80\xff", "\" ~\x7f\x80\xff\""}));

struct Base64Case {
  std::vector<uint8_t> bytes;
  const char* text;
};
void PrintTo(const Base64Case& c, std::ostream* os) { *os << c.bytes.size() << " bytes"; }

class Base64Test : public testing::TestWithParam<Base64Case> {};

TEST_P(Base64Test, Matches) {
  std::string out = "stale";
  base64_encode(GetParam().bytes, out);
  EXPECT_EQ(out, GetParam().text);
  EXPECT_EQ(base64_encode(GetParam().bytes), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Base64Test,
    testing::Values(Base64Case{{'a', 'b', 'c'}, "YWJj"}, Base64Case{{'a'}, "YQ=="},
                    Base64Case{{}, ""}, Base64Case{{'a', 'b'}, "YWI="},
                    Base64Case{{'f', 'o', 'o', 'b', 'a', 'r'}, "Zm9vYmFy"},
                    Base64Case{{'f', 'o', 'o', 'b', 'a'}, "Zm9vYmE="},
                    Base64Case{{0xFB, 0xFF, 0xBF}, "+/+/"},
                    Base64Case{{0x00, 0x00, 0x00, 0xFF}, "AAAA/w=="}));

struct SplitCase {
  std::string text;
  std::string separators;
  bool keepEmpty;
  std::vector<std::string> pieces;
};
void PrintTo(const SplitCase& c, std::ostream* os) {
  *os << quote_escape(c.text) << (c.keepEmpty ? " keeping empty" : "");
}

class SplitTest : public testing::TestWithParam<SplitCase> {};

TEST_P(SplitTest, Pieces) {
  const SplitCase& c = GetParam();
  std::vector<std::string> out = {"stale"};
  if (c.separators.size() == 1) {
    split(c.text, c.separators[0], c.keepEmpty, out);
    EXPECT_EQ(out, c.pieces);
  }
  out = {"stale"};
  split_any(c.text, c.separators, c.keepEmpty, out);
  EXPECT_EQ(out, c.pieces);
}

using Pieces = std::vector<std::string>;

INSTANTIATE_TEST_SUITE_P(
    Table, SplitTest,
    testing::Values(SplitCase{".a..b.", ".", false, Pieces{"a", "b"}},
                    SplitCase{".a..b.", ".", true, Pieces{"", "a", "", "b", ""}},
                    SplitCase{"Top.Sub", ".", false, Pieces{"Top", "Sub"}},
                    SplitCase{"abc", ".", true, Pieces{"abc"}},
                    SplitCase{"", ".", false, Pieces{}},
                    SplitCase{"", ".", true, Pieces{""}},
                    SplitCase{"a, b,,c", ", ", false, Pieces{"a", "b", "c"}},
                    SplitCase{"a, b,,c", ", ", true, Pieces{"a", "", "b", "", "c"}},
                    SplitCase{"Node User", ", ", false, Pieces{"Node", "User"}}));

TEST(DatatypeNameTest, AllNames) {
  const char* names[] = {"rawDEPRECATED", "continuousDEPRECATED", "sawtooth",    "enum",
                         "incidents",     "continuous",           "accumulation"};
  for (uint32_t i = 0; i < 7; ++i) EXPECT_EQ(datatype_name(i), names[i]) << i;
}

TEST(DatatypeNameTest, InvalidNumbersFail) {
  struct Case {
    uint32_t number;
    const char* text;
  } cases[] = {{7, "Tried to get name of invalid datatype: 7"},
               {1000, "Tried to get name of invalid datatype: 1000"},
               // Compared unsigned, printed as a signed 32-bit number.
               {0xFFFFFFFFu, "Tried to get name of invalid datatype: -1"}};
  for (const Case& c : cases) {
    try {
      datatype_name(c.number);
      ADD_FAILURE() << "no exception for " << c.number;
    } catch (const error::EParseError& e) {
      EXPECT_EQ(e.text(), c.text);
    }
  }
}

}  // namespace
