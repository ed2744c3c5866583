// The relational conditions of path-pattern steps, tested on stored objects.
//
// Only operator 6 (~=) is evaluated: it matches a text property (String,
// Blob or Lob) against a String constant without regard to ASCII case,
// where "*" in the constant stands for any run of octets and "?" for one
// octet. A null property does not match. Every other operator is answered
// as not implemented.
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

// Whether `object` satisfies `condition`, whose property must be set. A
// property the object does not have makes the condition false. Throws
// ConditionError.
bool condition_holds(const StoredObject& object, const protocol::RelativeExpr& condition);

}  // namespace server

#endif  // TALVIX_SERVER_CONDITIONS_H_
