#include "server/select_eval.h"

#include <exception>
#include <utility>
#include <vector>

#include "server/conditions.h"

namespace server {

namespace {

constexpr uint32_t kFlagSelf = 2;  // "!"

// A failure that ends the evaluation with an error answer.
struct Failure {
  int32_t code;
  std::string text;
};

// Checks the whole pattern tree without recursion, so that any depth a
// client can send is refused before the recursive evaluation starts.
void check_pattern(const protocol::PathPattern& root) {
  std::vector<std::pair<const protocol::PathPattern*, size_t>> pending{{&root, 1}};
  while (!pending.empty()) {
    auto [step, depth] = pending.back();
    pending.pop_back();
    if (depth > kMaxPatternDepth) {
      throw Failure{kErrorNotImplemented, "Pattern nested deeper than " +
                                              std::to_string(kMaxPatternDepth) + " steps"};
    }
    if ((step->flags & ~kFlagSelf) != 0) {
      throw Failure{kErrorNotImplemented,
                    "Modifier flags " + std::to_string(step->flags) + " are not implemented"};
    }
    if (!step->colonChildren.empty() || step->hasNumber || !step->properties.empty()) {
      throw Failure{kErrorNotImplemented,
                    "Colon children, step numbers and property lists are not implemented"};
    }
    for (const auto& c : step->conditions) {
      if (!c || !c->prop) throw Failure{kErrorNotImplemented, "Condition without a property"};
    }
    for (const auto& child : step->children) {
      if (!child) throw Failure{kErrorNotImplemented, "Empty step"};
      pending.emplace_back(child.get(), depth + 1);
    }
  }
}

class Evaluator {
 public:
  Evaluator(const Database& db, ObjectCache& cache) : db_(db), cache_(cache) {}

  // Appends the encoding of `object` as matched by `step` to `out` and
  // returns true, or returns false and leaves `out` as it was.
  bool match(const protocol::PathPattern& step, const StoredObject& object, bool root,
             std::string& out) {
    if (step.className != "." && step.className != object.className) return false;
    for (const auto& condition : step.conditions) {
      try {
        if (!condition_holds(object, *condition)) return false;
      } catch (const ConditionError& e) {
        throw Failure{e.code, e.text};
      }
    }
    // A head that cannot be encoded fails the evaluation only if the
    // object matches.
    const size_t mark = out.size();
    std::exception_ptr headFailure;
    try {
      cache_.appendHead(out, object, !root || (step.flags & kFlagSelf) != 0);
    } catch (const protocol::EBer&) {
      headFailure = std::current_exception();
    }
    append_child_list_start(out);
    if (!step.children.empty() && !matchChildren(step, object, out)) {
      out.resize(mark);
      return false;
    }
    if (headFailure) std::rethrow_exception(headFailure);
    append_object_end(out);
    return true;
  }

 private:
  // Appends the children of `object` that an alternative of `step` matches;
  // false when none does.
  bool matchChildren(const protocol::PathPattern& step, const StoredObject& object,
                     std::string& out) {
    bool matched = false;
    for (const std::string& childId : object.children) {
      std::shared_ptr<const StoredObject> child = cache_.find(db_, childId);
      if (!child) continue;
      for (const auto& alternative : step.children) {
        if (match(*alternative, *child, false, out)) {
          matched = true;
          break;
        }
      }
    }
    return matched;
  }

  const Database& db_;
  ObjectCache& cache_;
};

}  // namespace

SelectOutcome evaluate_select(const Database& db, ObjectCache& cache,
                              const protocol::SelectReq& request) {
  SelectOutcome outcome;
  try {
    if (!request.pattern) throw Failure{kErrorNotImplemented, "Select without a pattern"};
    check_pattern(*request.pattern);
    if (request.startIds.size() != 1) {
      throw Failure{kErrorNotImplemented, "Select of other than one start object"};
    }
    std::shared_ptr<const StoredObject> start = cache.find(db, request.startIds.front());
    if (!start) throw Failure{kErrorIdNotFound, "No object with id " + request.startIds.front()};
    if (!Evaluator(db, cache).match(*request.pattern, *start, true, outcome.objects)) {
      // Common (a select of an object without children): no exception.
      outcome.error = kErrorNothingMatched;
      outcome.text = "Pattern matched nothing";
    }
  } catch (const Failure& f) {
    outcome.error = f.code;
    outcome.text = f.text;
    outcome.objects.clear();
  } catch (const protocol::EBer& e) {
    outcome.error = kErrorBackend;
    outcome.text = "Object cannot be encoded: " + e.text();
    outcome.objects.clear();
  }
  return outcome;
}

}  // namespace server
