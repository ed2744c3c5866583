// The relational conditions of path-pattern steps, tested on stored objects.
//
// Operators (codes of RelOperator): 0 =, 1 >, 2 <, 3 >=, 4 <=, 5 <> compare
// numbers with numbers (any integer or real width), texts with texts (byte
// order), and, for = and <> only, booleans and lists. 6 ~= and 7 !~ match a
// text against a pattern without regard to ASCII case, where "*" stands for
// any run of octets and "?" for one octet. 8 in: the text is one of the
// constant's list. 9 intersects, 10 subsetof, 11 supersetof compare two
// lists as sets. 12 isubstr: the constant is part of the text, ignoring
// ASCII case. A null constant works with = (the property is null) and <>.
// A null property satisfies only <>.
#ifndef TALVIX_SERVER_CONDITIONS_H_
#define TALVIX_SERVER_CONDITIONS_H_

#include <cstdint>
#include <string>

#include "protocol/messages.h"
#include "server/database.h"

namespace server {

// Thrown when a condition cannot be evaluated: `code` is the server error
// code to answer with (11 incomparable operands, 12 unknown operator).
struct ConditionError {
  int32_t code;
  std::string text;
};

// Whether `object` satisfies `condition`. A property the object does not
// have makes the condition false. Throws ConditionError.
bool condition_holds(const StoredObject& object, const protocol::RelativeExpr& condition);

// The case-insensitive pattern match of ~=, in time proportional to the
// product of the lengths at worst.
bool glob_match(const std::string& pattern, const std::string& text);

}  // namespace server

#endif  // TALVIX_SERVER_CONDITIONS_H_
