#include "util/format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>

#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

const double kInf = std::numeric_limits<double>::infinity();

std::string two_digits(int64_t value) {
  std::string text;
  util::append_int(text, value, true);
  return text;
}

TEST(FormatTest, NumberTexts) {
  const struct { std::string actual; const char* expected;
  } cases[] = {
      {two_digits(7), "07"},
      {two_digits(-7), "-7"},  // the sign counts towards the two digits
      {util::uint_to_string(4294967295u), "4294967295"},
      {util::int_to_string(INT32_MIN), "-2147483648"},
      {util::gid_to_string(0xFF00A001u), "ff:00:a0:01"},
      {util::real_to_string(std::nan("")), "nan"},
      {util::real_to_string(kInf), "inf"},
      {util::real_to_string(-kInf), "-inf"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.actual, c.expected);
}

// Reals are rendered exactly as the C library's "%f": ties of the exact
// binary value, signed zero, the extremes.
TEST(FormatTest, RealsAsPrintf) {
  const double values[] = {0.5, 1.5, 2.5, -0.0, 1e-7, 5e-7, 0.1234565, 123456789.0000005,
                           -77.875, 0.1, -0.3, 1e-6, -2.5e-6, 0.0000015, 106.0, 4503599627.370495,
                           2251799813.6854775, 9007199254.740993, 1e300,
                           std::numeric_limits<double>::max(),
                           std::numeric_limits<double>::denorm_min()};
  // Values of a few decimals and their neighbours, where a shortcut for
  // whole millionths could round differently.
  uint64_t seed = 1;
  for (int i = 0; i < 3000; ++i) {
    seed = seed * 6364136223846793005u + 1442695040888963407u;
    const double decimals = std::pow(10.0, static_cast<int>(seed >> 60) % 9);
    const double v = static_cast<double>(static_cast<int64_t>(seed >> 20) - (int64_t{1} << 43)) /
                     decimals;
    for (double near : {std::nextafter(v, -1e300), v, std::nextafter(v, 1e300)}) {
      char expected[512];
      std::snprintf(expected, sizeof expected, "%f", near);
      ASSERT_EQ(util::real_to_string(near), expected) << near;
    }
  }
  for (double v : values) {
    char expected[512];
    std::snprintf(expected, sizeof expected, "%f", v);
    EXPECT_EQ(util::real_to_string(v), expected) << v;
  }
}

// Integers are read in base 10 (not octal) and saturate. A failure shows
// parse_real's text unchanged, parse_int's escaped; an embedded NUL is
// left-over text for both.
TEST(ParseTest, NumbersSaturationAndExactFailures) {
  EXPECT_EQ(util::parse_real("1e3"), 1000.0);
  EXPECT_EQ(util::parse_real(""), 0.0);
  EXPECT_EQ(util::parse_real("-inf"), -kInf);
  EXPECT_TRUE(std::isnan(util::parse_real("nan")));
  const std::pair<const char*, int32_t> ints[] = {
      {"", 0}, {"010", 10}, {"2147483647", INT32_MAX}, {"2147483648", INT32_MAX}, {"-2147483649", INT32_MIN}};
  for (const auto& [text, value] : ints) EXPECT_EQ(util::parse_int(text), value) << text;
  const struct { bool real; std::string input, text; } failures[] = {
      {true, "1\t2", "Error parsing: \"1\t2\""}, {false, "1\t2", "Error parsing: \"1\\t2\""},
      {true, std::string("5\0", 2), std::string("Error parsing: \"5\0\"", 19)},
      {false, std::string("5\0", 2), "Error parsing: \"5\\000\""}};
  for (const auto& c : failures) {
    EXPECT_EQ(support::errorText<util::EParseError>(
                  [&] { c.real ? util::parse_real(c.input) : util::parse_int(c.input); }),
              c.text);
  }
}

TEST(QuoteEscapeTest, EscapesControlsQuotesAndBackslash) {
  const struct { std::string input; const char* expected; } cases[] = {
      {"", "\"\""}, {"\a\b\t\n\v\f\r", "\"\\a\\b\\t\\n\\v\\f\\r\""}, {"\"'\\", "\"\\\"\\'\\\\\""},
      {std::string("\0\x01\x1f", 3), "\"\\000\\001\\037\""}, {" ~\x7f\x80\xff", "\" ~\x7f\x80\xff\""}};
  for (const auto& c : cases) EXPECT_EQ(util::quote_escape(c.input), c.expected);
}

TEST(Base64Test, PaddingAndAlphabetEnds) {
  const struct { std::vector<uint8_t> bytes; const char* text; } cases[] = {
      {{}, ""}, {{'a', 'b'}, "YWI="}, {{0xFB, 0xFF, 0xBF}, "+/+/"}, {{0x00, 0x00, 0x00, 0xFF}, "AAAA/w=="}};
  for (const auto& c : cases) {
    std::string out = "stale";
    util::base64_encode(c.bytes, out);
    EXPECT_EQ(out, c.text);
  }
}

TEST(SplitTest, NonEmptyPieces) {
  using Pieces = std::vector<std::string>;
  const struct { std::string text; std::string separators; Pieces pieces; } cases[] = {
      {".a..b.", ".", Pieces{"a", "b"}}, {"", ".", Pieces{}}, {"a", ".", Pieces{"a"}},
      {"a, b,,c", ", ", Pieces{"a", "b", "c"}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(util::quote_escape(c.text));
    Pieces out = {"stale"};
    if (c.separators.size() == 1) {
      util::split(c.text, c.separators[0], out);
      EXPECT_EQ(out, c.pieces);
    }
    out = {"stale"};
    util::split_any(c.text, c.separators, out);
    EXPECT_EQ(out, c.pieces);
  }
}

TEST(DatatypeNameTest, NamesAndInvalidNumbers) {
  const char* names[] = {"rawDEPRECATED", "continuousDEPRECATED", "sawtooth",    "enum",
                         "incidents",     "continuous",           "accumulation"};
  for (uint32_t i = 0; i < 7; ++i) EXPECT_EQ(util::datatype_name(i), names[i]) << i;
  // Compared unsigned, printed as a signed 32-bit number.
  for (const auto& [number, shown] : {std::pair{7u, "7"}, std::pair{0xFFFFFFFFu, "-1"}}) {
    EXPECT_EQ(support::errorText<util::EParseError>([n = number] { util::datatype_name(n); }),
              std::string("Tried to get name of invalid datatype: ") + shown);
  }
}

}  // namespace
