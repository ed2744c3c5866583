#include "tql/lexer.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/error.h"

namespace {

struct LexCase {
  const char* name;
  std::string input;
  std::vector<std::string> tokens;  // every token before the end token
};

// Runs the lexer to the end token; a bound on the loop keeps a lexer that
// never reaches the end from hanging the test.
std::vector<std::string> lexAll(const std::string& input) {
  tql::Lexer lexer(input);
  std::vector<std::string> tokens;
  for (size_t i = 0; i <= input.size() + 1; ++i) {
    std::string token = lexer.next();
    EXPECT_EQ(token, lexer.token());
    if (token.empty()) return tokens;
    tokens.push_back(token);
  }
  ADD_FAILURE() << "no end token for " << input;
  return tokens;
}

class LexerTable : public ::testing::TestWithParam<LexCase> {};

TEST_P(LexerTable, Tokens) { EXPECT_EQ(lexAll(GetParam().input), GetParam().tokens); }

const LexCase kCases[] = {
    {"Empty", "", {}},
    {"LeadingBlanks", "   Domain", {"Domain"}},
    {"ExportPattern", ".! > .", {".", "!", ">", "."}},
    {"CompareWithoutBlanks", "name~=\"abc\"", {"name", "~=", "\"abc\""}},
    {"IdentifierWithDigitsAndUnderscore", "ES_DOWN_GOOD x1_2", {"ES_DOWN_GOOD", "x1_2"}},
    {"UnderscoreStartsNoIdentifier", "_abc", {"_", "abc"}},
    {"OnlySpaceIsBlank", "a\tb\n", {"a", "\t", "b", "\n"}},
    {"HighBytesAreOperators", "a\xc3\xa9", {"a", "\xc3", "\xa9"}},
    // String literals: escapes are resolved, the quotes stay.
    {"Escapes", R"("a\"b\\c")", {"\"a\"b\\c\""}},
    {"EscapeDoesNotTranslate", R"("a\nb")", {"\"anb\""}},
    {"StringSuffixes", R"("x"I "1.3.6"S)", {"\"x\"I", "\"1.3.6\"S"}},
    {"SuffixAfterBlankIsIdentifier", R"("x" I)", {"\"x\"", "I"}},
    {"OtherLetterAfterStringIsIdentifier", R"("x"T)", {"\"x\"", "T"}},
    // Numbers.
    {"NumberSuffixes", "5T 5B", {"5T", "5B"}},
    {"OnlyOneSuffix", "5TB", {"5T", "B"}},
    {"OtherLetterAfterDigits", "5x", {"5", "x"}},
    {"Signs", "-5 +42", {"-5", "+42"}},
    {"SignAlone", "- 5", {"-", "5"}},
    {"SignBeforeLetter", "-x", {"-", "x"}},
    {"SignWithSuffixOnly", "-T", {"-T"}},
    {"SignInsideNumber", "5-3", {"5", "-3"}},
    // Operators.
    {"TwoByteOperators", "<> <= >= != == ~= !~", {"<>", "<=", ">=", "!=", "==", "~=", "!~"}},
    {"EqualsLessIsTwoTokens", "=<", {"=", "<"}},
    {"ThreeByteToken", "!=~", {"!=~"}},
    {"NotTildeEquals", "!~=", {"!~", "="}},
    {"TripleEquals", "===", {"==", "="}},
    {"GreaterLess", "><", {">", "<"}},
    {"SingleBytes", "[]{}(),&|:*$#.", {"[", "]", "{", "}", "(", ")", ",", "&", "|", ":", "*", "$", "#", "."}},
    {"OperatorAtEnd", "a<", {"a", "<"}},
};

INSTANTIATE_TEST_SUITE_P(All, LexerTable, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<LexCase>& info) {
                           return std::string(info.param.name);
                         });

// The tokens before the open literal come out; the literal fails whether it
// ends in its text, after a backslash or after an escaped quote.
TEST(LexerTest, UnterminatedStringFailsAfterTheTokensBeforeIt) {
  for (const char* tail : {"\"abc", "\"abc\\", "\"a\\\""}) {
    tql::Lexer lexer(std::string("name ~= ") + tail);
    EXPECT_EQ(lexer.next(), "name");
    EXPECT_EQ(lexer.next(), "~=");
    try {
      lexer.next();
      ADD_FAILURE() << "no failure for " << tail;
    } catch (const error::EParseError& e) {
      EXPECT_EQ(e.text(), "Unterminated string literal");
    }
  }
}

TEST(LexerTest, TokenIsEmptyBeforeFirstNextAndStaysEmptyAtEnd) {
  tql::Lexer lexer("A");
  EXPECT_EQ(lexer.token(), "");
  EXPECT_EQ(lexer.next(), "A");
  EXPECT_EQ(lexer.next(), "");
  EXPECT_EQ(lexer.next(), "");
}

}  // namespace
