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

TEST_P(LexerTable, Tokens) {
  const LexCase& c = GetParam();
  EXPECT_EQ(lexAll(c.input), c.tokens);
}

const LexCase kCases[] = {
    {"Empty", "", {}},
    {"AllBlank", "    ", {}},
    {"LeadingBlanks", "   Domain", {"Domain"}},
    {"ExportPattern", ".! > .", {".", "!", ">", "."}},
    {"ChildList", ".! > (MibModule | MibObject)",
     {".", "!", ">", "(", "MibModule", "|", "MibObject", ")"}},
    {"CompareWithoutBlanks", "name~=\"abc\"", {"name", "~=", "\"abc\""}},
    {"IdentifierWithDigitsAndUnderscore", "ES_DOWN_GOOD x1_2", {"ES_DOWN_GOOD", "x1_2"}},
    {"UnderscoreStartsNoIdentifier", "_abc", {"_", "abc"}},
    {"TabIsAToken", "a\tb", {"a", "\t", "b"}},
    {"LineBreaksAreTokens", "a\r\nb", {"a", "\r", "\n", "b"}},
    {"HighBytesAreOperators", "a\xc3\xa9", {"a", "\xc3", "\xa9"}},
    // String literals: escapes are resolved, the quotes stay.
    {"EscapedQuote", R"("a\"b")", {"\"a\"b\""}},
    {"EscapedBackslash", R"("a\\b")", {"\"a\\b\""}},
    {"EscapeDoesNotTranslate", R"("a\nb")", {"\"anb\""}},
    {"EmptyString", R"("")", {"\"\""}},
    {"StringKeepsBlanks", R"(" a  b ")", {"\" a  b \""}},
    {"StringSuffixI", R"("x"I)", {"\"x\"I"}},
    {"StringSuffixS", R"("1.3.6"S)", {"\"1.3.6\"S"}},
    {"StringSuffixAfterBlankIsIdentifier", R"("x" I)", {"\"x\"", "I"}},
    {"OtherLetterAfterStringIsIdentifier", R"("x"T)", {"\"x\"", "T"}},
    {"TwoStringsBackToBack", R"("a""b")", {"\"a\"", "\"b\""}},
    // Numbers.
    {"Digits", "123", {"123"}},
    {"IndexSuffix", "5T", {"5T"}},
    {"BigNumSuffix", "5B", {"5B"}},
    {"OnlyOneSuffix", "5TB", {"5T", "B"}},
    {"OtherLetterAfterDigits", "5x", {"5", "x"}},
    {"Negative", "-5", {"-5"}},
    {"Positive", "+42", {"+42"}},
    {"SignAlone", "- 5", {"-", "5"}},
    {"SignBeforeLetter", "-x", {"-", "x"}},
    {"SignWithSuffixOnly", "-T", {"-T"}},
    {"SignInsideNumber", "5-3", {"5", "-3"}},
    // Operators.
    {"TwoByteOperators", "<> <= >= != == ~= !~", {"<>", "<=", ">=", "!=", "==", "~=", "!~"}},
    {"OperatorsWithoutBlanks", "a<=b", {"a", "<=", "b"}},
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

class LexerFailure : public ::testing::TestWithParam<std::string> {};

TEST_P(LexerFailure, UnterminatedString) {
  tql::Lexer lexer(GetParam());
  try {
    for (size_t i = 0; i <= GetParam().size(); ++i) {
      if (lexer.next().empty()) break;
    }
    FAIL() << "no failure for " << GetParam();
  } catch (const error::EParseError& e) {
    EXPECT_EQ(e.text(), "Unterminated string literal");
  }
}

INSTANTIATE_TEST_SUITE_P(All, LexerFailure,
                         ::testing::Values("\"abc", "\"", "x ~= \"abc\\", "\"a\\\"",
                                           "\"ok\" \"open"));

TEST(LexerTest, TokensBeforeAFailureComeOut) {
  tql::Lexer lexer("name ~= \"abc");
  EXPECT_EQ(lexer.next(), "name");
  EXPECT_EQ(lexer.next(), "~=");
  EXPECT_THROW(lexer.next(), error::EParseError);
}

TEST(LexerTest, TokenIsEmptyBeforeFirstNextAndStaysEmptyAtEnd) {
  tql::Lexer lexer("A");
  EXPECT_EQ(lexer.token(), "");
  EXPECT_EQ(lexer.next(), "A");
  EXPECT_EQ(lexer.next(), "");
  EXPECT_EQ(lexer.next(), "");
  EXPECT_EQ(lexer.token(), "");
}

}  // namespace
