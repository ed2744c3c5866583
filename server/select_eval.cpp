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
    for (const auto& c : step->conditions) {
      if (!c || !c->prop) throw Failure{kErrorNotImplemented, "Condition without a property"};
    }
    for (const auto* list : {&step->children, &step->colonChildren}) {
      for (const auto& child : *list) {
        if (!child) throw Failure{kErrorNotImplemented, "Empty step"};
        pending.emplace_back(child.get(), depth + 1);
      }
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
    PropertyChoice choice;
    choice.any = !root || (step.flags & kFlagSelf) != 0;
    choice.only = &step.properties;
    // A head that cannot be encoded fails the evaluation only if the
    // object matches.
    const size_t mark = out.size();
    std::exception_ptr headFailure;
    try {
      cache_.appendHead(out, object, choice);
    } catch (const protocol::EBer&) {
      headFailure = std::current_exception();
    }
    append_child_list_start(out);
    if (!step.children.empty() || !step.colonChildren.empty()) {
      if (!matchChildren(step, object, out)) {
        out.resize(mark);
        return false;
      }
    }
    if (headFailure) std::rethrow_exception(headFailure);
    append_object_end(out);
    return true;
  }

 private:
  bool matchChildren(const protocol::PathPattern& step, const StoredObject& object,
                     std::string& out) {
    const size_t required = step.children.size();
    std::vector<uint32_t> counts(required + step.colonChildren.size(), 0);
    auto alternative = [&](size_t i) -> const protocol::PathPattern& {
      return i < required ? *step.children[i] : *step.colonChildren[i - required];
    };
    bool matchedRequired = false;
    for (const std::string& childId : object.children) {
      std::shared_ptr<const StoredObject> child = cache_.find(db_, childId);
      if (!child) continue;
      for (size_t i = 0; i < counts.size(); ++i) {
        const protocol::PathPattern& s = alternative(i);
        if (s.hasNumber && counts[i] >= s.number) continue;
        if (match(s, *child, false, out)) {
          ++counts[i];
          if (i < required) matchedRequired = true;
          break;
        }
      }
    }
    return required == 0 || matchedRequired;
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
    std::vector<std::shared_ptr<const StoredObject>> starts;
    for (const std::string& id : request.startIds) {
      std::shared_ptr<const StoredObject> object = cache.find(db, id);
      if (!object) throw Failure{kErrorIdNotFound, "No object with id " + id};
      starts.push_back(std::move(object));
    }
    Evaluator evaluator(db, cache);
    for (const auto& start : starts) evaluator.match(*request.pattern, *start, true, outcome.objects);
    if (outcome.objects.empty()) {
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
