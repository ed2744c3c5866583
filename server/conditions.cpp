#include "server/conditions.h"

#include <string>
#include <variant>

namespace server {

namespace {

constexpr int32_t kMatch = 6;  // ~=

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// The case-insensitive pattern match of ~=, in time proportional to the
// product of the lengths at worst.
bool glob_match(const std::string& pattern, const std::string& text) {
  size_t p = 0, t = 0;
  size_t star = std::string::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || lower(pattern[p]) == lower(text[t]))) {
      ++p;
      ++t;
    } else if (star != std::string::npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

// The text of a stored value, or nullptr when it is not a text.
const std::string* text_of(const Value& value) {
  if (auto* s = std::get_if<std::string>(&value)) return s;
  if (auto* b = std::get_if<BlobValue>(&value)) return &b->bytes;
  if (auto* l = std::get_if<LobValue>(&value)) return &l->bytes;
  return nullptr;
}

}  // namespace

bool condition_holds(const StoredObject& object, const protocol::RelativeExpr& condition) {
  const protocol::Property& constant = *condition.prop;
  if (condition.op != kMatch) {
    throw ConditionError{12, "Relational operator " + std::to_string(condition.op) +
                                 " is not implemented"};
  }
  const auto* pattern = dynamic_cast<const protocol::StringProp*>(constant.data.get());
  const PropertyValue* stored = object.findProperty(constant.name);
  if (stored == nullptr || (pattern != nullptr && stored->isNull())) return false;
  const std::string* text = text_of(stored->value);
  if (pattern == nullptr || text == nullptr) {
    throw ConditionError{11, "Incomparable property: " + constant.name};
  }
  return glob_match(pattern->value, *text);
}

}  // namespace server
