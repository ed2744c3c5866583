#include "tql/lexer.h"

#include <utility>

#include "util/error.h"

namespace tql {

namespace {

// Bytes are classified as signed characters: bytes of 0x80 and above are
// never letters or digits.
bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

Lexer::Lexer(std::string input) : input_(std::move(input)) {}

std::string Lexer::next() {
  token_.clear();
  while (!atEnd() && peek() == ' ') ++position_;
  if (atEnd()) return token_;

  const char c = peek();
  if (isLetter(c)) {
    do {
      token_ += input_[position_++];
    } while (!atEnd() && (isLetter(peek()) || isDigit(peek()) || peek() == '_'));
  } else if (c == '"') {
    lexString();
  } else if (c == '+' || c == '-' || isDigit(c)) {
    token_ += input_[position_++];
    while (!atEnd() && isDigit(peek())) token_ += input_[position_++];
    if (!atEnd() && (peek() == 'T' || peek() == 'B')) token_ += input_[position_++];
  } else {
    lexOperator();
  }
  return token_;
}

void Lexer::lexString() {
  token_ += input_[position_++];  // the opening quote
  while (!atEnd() && peek() != '"') {
    if (peek() == '\\') {
      ++position_;
      if (atEnd()) throw util::EParseError("Unterminated string literal");
    }
    token_ += input_[position_++];
  }
  if (atEnd()) throw util::EParseError("Unterminated string literal");
  token_ += input_[position_++];  // the closing quote
  if (!atEnd() && (peek() == 'I' || peek() == 'S')) token_ += input_[position_++];
}

void Lexer::lexOperator() {
  token_ += input_[position_++];
  if (atEnd()) return;
  // The checks are applied one after the other, each to the byte now at
  // `position_`, so "!=~" comes out as one token.
  const char first = token_[0];
  if ((first == '!' || first == '=') && !atEnd() && peek() == '=') token_ += input_[position_++];
  if (first == '!' && !atEnd() && peek() == '~') token_ += input_[position_++];
  if (first == '~' && !atEnd() && peek() == '=') token_ += input_[position_++];
  if (first == '<' && !atEnd() && (peek() == '=' || peek() == '>')) token_ += input_[position_++];
  if (first == '>' && !atEnd() && peek() == '=') token_ += input_[position_++];
}

}  // namespace tql
