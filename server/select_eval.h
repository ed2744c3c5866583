// Evaluation of a select request's path pattern against the database.
//
// The root step is matched against the one start object, child steps
// against the children of the object their parent step matched, in child
// order:
// - className "." matches any class, anything else exactly that class;
// - conditions must all hold (conditions.h; a property the object lacks
//   makes its condition false);
// - the "!" modifier (flag 2) on the root step puts the start object's own
//   properties into the answer; without it the start object comes without
//   properties, as the carrier of its matched children. Below the root it
//   changes nothing, and every matched object carries its properties;
// - `children` are alternatives: a child object is matched by the first
//   alternative that accepts it, and a step with children matches only if at
//   least one child object is matched through them (so ".! > ." on an object
//   without children matches nothing).
// Not implemented: several or no start ids, the modifiers "*", "$", "#" and
// "-", colon children, step numbers and property lists.
#ifndef TALVIX_SERVER_SELECT_EVAL_H_
#define TALVIX_SERVER_SELECT_EVAL_H_

#include <cstdint>
#include <string>

#include "protocol/messages.h"
#include "server/database.h"
#include "server/object_cache.h"

namespace server {

// Server error codes the evaluation answers with.
constexpr int32_t kErrorIdNotFound = 1;
constexpr int32_t kErrorNothingMatched = 2;
constexpr int32_t kErrorNotImplemented = 12;
constexpr int32_t kErrorBackend = 14;

// Deepest pattern the server evaluates; deeper ones are not implemented.
constexpr size_t kMaxPatternDepth = 64;

struct SelectOutcome {
  int32_t error = 0;   // 0: `objects` holds the answer
  std::string text;    // why, when error != 0
  std::string objects; // the matched start objects, encoded and concatenated
};

// Evaluates `request`: an unknown start id gives error 1, a start object
// not matching gives 2, an incomparable condition 11, an unimplemented
// construct 12 and an object that cannot be encoded 14. Never throws for
// anything a client can send.
SelectOutcome evaluate_select(const Database& db, ObjectCache& cache,
                              const protocol::SelectReq& request);

}  // namespace server

#endif  // TALVIX_SERVER_SELECT_EVAL_H_
