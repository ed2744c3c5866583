#include "util/format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>

#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using util::EParseError;

TEST(FormatTest, EdgeTexts) {
  std::string twoDigits;
  util::append_int(twoDigits, -7, true);  // the sign counts towards the two digits
  const struct { std::string actual; const char* expected; } cases[] = {
      {twoDigits, "-7"},
      {util::real_to_string(std::nan("")), "nan"},
      {util::quote_escape("\a\b\t\n\v\f\r\"'\\"), "\"\\a\\b\\t\\n\\v\\f\\r\\\"\\'\\\\\""},
      {util::quote_escape(std::string("\0\x01\x1f ~\x7f\x80\xff", 8)), "\"\\000\\001\\037 ~\x7f\x80\xff\""},
      {util::datatype_name(0), "rawDEPRECATED"}, {util::datatype_name(1), "continuousDEPRECATED"},
      // Compared unsigned, printed as a signed 32-bit number.
      {support::errorText<EParseError>([] { util::datatype_name(7); }),
       "Tried to get name of invalid datatype: 7"},
      {support::errorText<EParseError>([] { util::datatype_name(0xFFFFFFFFu); }),
       "Tried to get name of invalid datatype: -1"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.actual, c.expected);
  for (const auto& [bytes, text] : {std::pair<std::vector<uint8_t>, const char*>{{0xFB, 0xFF, 0xBF}, "+/+/"},
                                    {{0x00, 0x00, 0x00, 0xFF}, "AAAA/w=="}}) {
    std::string out = "stale";
    util::base64_encode(bytes, out);
    EXPECT_EQ(out, text);
  }
}

// Reals are rendered exactly as the C library's "%f": ties of the exact
// binary value, signed zero, the extremes, and values of a few decimals and
// their neighbours, where a shortcut for whole millionths could round
// differently.
TEST(FormatTest, RealsAsPrintf) {
  std::vector<double> values = {0.5, 1.5, 2.5, -0.0, 1e-7, 5e-7, 0.1234565, 123456789.0000005,
                                -77.875, 0.1, -0.3, 1e-6, -2.5e-6, 0.0000015, 106.0, 4503599627.370495,
                                2251799813.6854775, 9007199254.740993, 1e300,
                                std::numeric_limits<double>::max(),
                                std::numeric_limits<double>::denorm_min()};
  uint64_t seed = 1;
  for (int i = 0; i < 3000; ++i) {
    seed = seed * 6364136223846793005u + 1442695040888963407u;
    const double decimals = std::pow(10.0, static_cast<int>(seed >> 60) % 9);
    const double v = static_cast<double>(static_cast<int64_t>(seed >> 20) - (int64_t{1} << 43)) /
                     decimals;
    values.insert(values.end(), {std::nextafter(v, -1e300), v, std::nextafter(v, 1e300)});
  }
  for (double v : values) {
    char expected[512];
    std::snprintf(expected, sizeof expected, "%f", v);
    ASSERT_EQ(util::real_to_string(v), expected) << v;
  }
}

// Integers are read in base 10 (not octal) and saturate. A failure shows
// parse_real's text unchanged, parse_int's escaped; an embedded NUL is
// left-over text for both.
TEST(ParseTest, NumbersSaturationAndExactFailures) {
  EXPECT_EQ(util::parse_real(""), 0.0);
  const std::pair<const char*, int32_t> ints[] = {
      {"", 0}, {"010", 10}, {"2147483648", INT32_MAX}, {"-2147483649", INT32_MIN}};
  for (const auto& [text, value] : ints) EXPECT_EQ(util::parse_int(text), value) << text;
  const struct { bool real; std::string input, text; } failures[] = {
      {true, "1\t2", "Error parsing: \"1\t2\""}, {false, "1\t2", "Error parsing: \"1\\t2\""},
      {true, std::string("5\0", 2), std::string("Error parsing: \"5\0\"", 19)},
      {false, std::string("5\0", 2), "Error parsing: \"5\\000\""}};
  for (const auto& c : failures) {
    EXPECT_EQ(support::errorText<EParseError>(
                  [&] { c.real ? util::parse_real(c.input) : util::parse_int(c.input); }),
              c.text);
  }
}

TEST(SplitTest, NonEmptyPieces) {
  using Pieces = std::vector<std::string>;
  const struct { std::string text; std::string separators; Pieces pieces; } cases[] = {
      {".a..b.", ".", Pieces{"a", "b"}}, {"", ".", Pieces{}}, {"a", ".", Pieces{"a"}},
      {"a, b,,c", ", ", Pieces{"a", "b", "c"}}};
  for (const auto& c : cases) {
    Pieces out = {"stale"};
    if (c.separators.size() == 1) {
      util::split(c.text, c.separators[0], out);
      EXPECT_EQ(out, c.pieces) << c.text;
    }
    out = {"stale"};
    util::split_any(c.text, c.separators, out);
    EXPECT_EQ(out, c.pieces) << c.text;
  }
}

}  // namespace
