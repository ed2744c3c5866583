// The TQL path-pattern parser: turns a pattern text such as ".! > ." or
// ". > Domain { name ~= \"lab\" }" into the protocol::PathPattern tree that a
// select request carries. The server interprets the tree; the client only
// builds it.
#ifndef TALVIX_TQL_PARSER_H_
#define TALVIX_TQL_PARSER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "protocol/messages.h"

namespace tql {

// Bits of PathPattern::flags, one per step modifier.
enum StepFlag : uint32_t {
  kFlagStar = 1,     // "*"
  kFlagBang = 2,     // "!"
  kFlagDollar = 4,   // "$"
  kFlagHash = 8,     // "#"
  kFlagMinus = 16,   // "-"
};

// RelativeExpr::op codes (the wire's RelOperator enumeration).
enum RelOperator : int32_t {
  kOpEqual = 0,        // "=" "=="
  kOpGreater = 1,      // ">"
  kOpLess = 2,         // "<"
  kOpGreaterEqual = 3, // ">="
  kOpLessEqual = 4,    // "<="
  kOpNotEqual = 5,     // "<>" "!="
  kOpMatch = 6,        // "~="
  kOpNoMatch = 7,      // "!~"
  kOpIn = 8,           // "in"
  kOpIntersects = 9,   // "intersects"
  kOpSubsetOf = 10,    // "subsetof"
  kOpSupersetOf = 11,  // "supersetof"
  kOpISubstr = 12,     // "isubstr"
};

// Steps may nest at most this deep (through ">" and parenthesised lists);
// deeper patterns fail instead of exhausting the stack.
constexpr int kMaxPatternDepth = 1000;

// Parses `text` into a new tree owned by the caller. On failure nothing is
// returned and the util::Exception that stopped the parse (EParseError for
// syntax and lexical errors, ERange for an unsigned constant beyond 64 bits)
// is rethrown with ": parsing " + text appended to its detail.
std::unique_ptr<protocol::PathPattern> parse(const std::string& text);

}  // namespace tql

#endif  // TALVIX_TQL_PARSER_H_
