#include "tql/lexer.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/error.h"

namespace {

// Runs the lexer to the end token, which stays; token() is empty before the
// first next(). A bound on the loop keeps a lexer that never reaches the end
// from hanging the test.
std::vector<std::string> lexAll(const std::string& input) {
  tql::Lexer lexer(input);
  EXPECT_EQ(lexer.token(), "");
  std::vector<std::string> tokens;
  for (size_t i = 0; i <= input.size() + 1; ++i) {
    std::string token = lexer.next();
    EXPECT_EQ(token, lexer.token());
    if (token.empty()) {
      EXPECT_EQ(lexer.next(), "");
      return tokens;
    }
    tokens.push_back(token);
  }
  ADD_FAILURE() << "no end token for " << input;
  return tokens;
}

TEST(LexerTest, Tokens) {
  const struct {
    std::string input;
    std::vector<std::string> tokens;  // every token before the end token
  } cases[] = {
      {"", {}}, {"   Domain", {"Domain"}},
      {"name~=\"abc\"", {"name", "~=", "\"abc\""}},
      {"ES_DOWN_GOOD x1_2", {"ES_DOWN_GOOD", "x1_2"}}, {"_abc", {"_", "abc"}},
      // Only the space is blank; high bytes are operators.
      {"a\tb\n", {"a", "\t", "b", "\n"}}, {"a\xc3\xa9", {"a", "\xc3", "\xa9"}},
      // String literals: escapes are resolved (not translated), the quotes stay;
      // only I or S right after the quote is a suffix.
      {R"("a\"b\\c")", {"\"a\"b\\c\""}}, {R"("a\nb")", {"\"anb\""}},
      {R"("x"I "1.3.6"S)", {"\"x\"I", "\"1.3.6\"S"}}, {R"("x" I)", {"\"x\"", "I"}},
      {R"("x"T)", {"\"x\"", "T"}},
      // Numbers: one suffix, signs only before a digit or suffix.
      {"5T 5B", {"5T", "5B"}}, {"5TB", {"5T", "B"}}, {"5x", {"5", "x"}}, {"-5 +42", {"-5", "+42"}},
      {"- 5", {"-", "5"}}, {"-x", {"-", "x"}}, {"-T", {"-T"}}, {"5-3", {"5", "-3"}},
      // Operators.
      {"<> <= >= != == ~= !~", {"<>", "<=", ">=", "!=", "==", "~=", "!~"}}, {"=<", {"=", "<"}},
      {"!=~", {"!=~"}}, {"!~=", {"!~", "="}}, {"===", {"==", "="}},
      {"[]{}(),&|:*$#.", {"[", "]", "{", "}", "(", ")", ",", "&", "|", ":", "*", "$", "#", "."}},
      {"a<", {"a", "<"}},
  };
  for (const auto& c : cases) EXPECT_EQ(lexAll(c.input), c.tokens) << c.input;
}

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
    } catch (const util::EParseError& e) {
      EXPECT_EQ(e.text(), "Unterminated string literal");
    }
  }
}

}  // namespace
