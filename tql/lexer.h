// The TQL lexer: cuts one path-pattern text into tokens for the parser.
//
// Every token is returned as text; the parser tells the kinds apart by the
// first character and by comparing whole texts (there are no keywords):
//   end         the empty string
//   identifier  a letter A-Z/a-z, then letters, digits and '_'
//   string      '"' content '"' with backslash escapes resolved (the byte
//               after a backslash is taken as it is), optional suffix I or S
//   number      optional '+'/'-', digits, optional suffix T or B
//   operator    any other single byte, or one of == != !~ ~= <= <> >=
//               (and "!=~", which no rule of the grammar accepts)
// Only the space character separates tokens; tab, CR and LF are operators.
#ifndef TALVIX_TQL_LEXER_H_
#define TALVIX_TQL_LEXER_H_

#include <cstddef>
#include <string>

namespace tql {

class Lexer {
 public:
  explicit Lexer(std::string input);

  // Reads the next token, makes it current and returns a copy of it. Throws
  // util::EParseError "Unterminated string literal" for a string literal
  // without its closing quote; the lexer is of no further use after that.
  std::string next();

  // The current token; empty before the first next() and at the end.
  const std::string& token() const { return token_; }

 private:
  bool atEnd() const { return position_ >= input_.size(); }
  char peek() const { return input_[position_]; }
  void lexString();
  void lexOperator();

  std::string input_;
  std::size_t position_ = 0;  // index of the next unread byte
  std::string token_;
};

}  // namespace tql

#endif  // TALVIX_TQL_LEXER_H_
