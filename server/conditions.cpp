#include "server/conditions.h"

#include <algorithm>
#include <set>
#include <type_traits>
#include <variant>
#include <vector>

#include "util/bignum.h"

namespace server {

namespace {

// One side of a comparison, reduced to what can be compared.
struct Operand {
  enum class Kind { kNull, kNumber, kText, kBool, kList } kind = Kind::kNull;
  long double number = 0;
  std::string text;
  bool flag = false;
  std::vector<std::string> list;
};

Operand number(long double v) {
  Operand o;
  o.kind = Operand::Kind::kNumber;
  o.number = v;
  return o;
}
Operand text(std::string v) {
  Operand o;
  o.kind = Operand::Kind::kText;
  o.text = std::move(v);
  return o;
}
Operand list(std::vector<std::string> v) {
  Operand o;
  o.kind = Operand::Kind::kList;
  o.list = std::move(v);
  return o;
}
Operand boolean(bool v) {
  Operand o;
  o.kind = Operand::Kind::kBool;
  o.flag = v;
  return o;
}

long double magnitude(const std::string& bigEndian) {
  long double v = 0;
  for (unsigned char b : bigEndian) v = v * 256 + b;
  return v;
}

std::vector<std::string> decimal_list(const std::vector<uint32_t>& values) {
  std::vector<std::string> out;
  out.reserve(values.size());
  for (uint32_t v : values) out.push_back(std::to_string(v));
  return out;
}

Operand from_stored(const Value& value) {
  return std::visit(
      [](const auto& v) -> Operand {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) return text(v);
        else if constexpr (std::is_same_v<T, std::vector<std::string>>) return list(v);
        else if constexpr (std::is_same_v<T, bool>) return boolean(v);
        else if constexpr (std::is_same_v<T, NullValue>) return Operand();
        else if constexpr (std::is_same_v<T, BlobValue> || std::is_same_v<T, LobValue>)
          return text(v.bytes);
        else if constexpr (std::is_same_v<T, BigNumValue>) return number(magnitude(v.bytes));
        else if constexpr (std::is_same_v<T, std::vector<uint32_t>>) return list(decimal_list(v));
        else return number(static_cast<long double>(v));
      },
      value);
}

Operand from_constant(const protocol::Property& p) {
  const protocol::BerConstructed* d = p.data.get();
  if (auto* v = dynamic_cast<const protocol::StringProp*>(d)) return text(v->value);
  if (auto* v = dynamic_cast<const protocol::StringListProp*>(d)) return list(v->value);
  if (auto* v = dynamic_cast<const protocol::SignedIntProp*>(d)) return number(v->value);
  if (auto* v = dynamic_cast<const protocol::UnsignedIntProp*>(d)) return number(v->value);
  if (auto* v = dynamic_cast<const protocol::RealProp*>(d)) return number(v->value);
  if (auto* v = dynamic_cast<const protocol::BooleanProp*>(d)) return boolean(v->value);
  if (auto* v = dynamic_cast<const protocol::BlobProp*>(d)) return text(v->value);
  if (auto* v = dynamic_cast<const protocol::LobProp*>(d)) return text(v->value);
  if (auto* v = dynamic_cast<const protocol::UnsignedIntListProp*>(d)) return list(decimal_list(v->value));
  if (auto* v = dynamic_cast<const protocol::SignedInt64Prop*>(d)) return number(v->value);
  if (auto* v = dynamic_cast<const protocol::UnsignedInt64Prop*>(d)) {
    return number(static_cast<long double>(v->value));
  }
  if (auto* v = dynamic_cast<const protocol::BigNumProp*>(d)) {
    std::string bytes(4 * v->value.size() + 4, '\0');
    size_t length = bytes.size();
    util::bn_get_data(v->value, reinterpret_cast<uint8_t*>(bytes.data()), length);
    bytes.resize(length);
    return number(magnitude(bytes));
  }
  return Operand();  // NullProp or nothing at all
}

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool contains_ignoring_case(const std::string& haystack, const std::string& needle) {
  auto equal = [](char a, char b) { return lower(a) == lower(b); };
  return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(), equal) !=
         haystack.end();
}

[[noreturn]] void incomparable(const protocol::RelativeExpr& c) {
  throw ConditionError{11, "Incomparable property: " + c.prop->name};
}

template <class T>
bool ordered(int32_t op, const T& a, const T& b) {
  switch (op) {
    case 0: return a == b;
    case 1: return a > b;
    case 2: return a < b;
    case 3: return a >= b;
    case 4: return a <= b;
    default: return a != b;
  }
}

bool holds(const protocol::RelativeExpr& c, const Operand& lhs, const Operand& rhs) {
  using K = Operand::Kind;
  const int32_t op = c.op;
  if (op < 0 || op > 12) {
    throw ConditionError{12, "Relational operator " + std::to_string(op) + " is not implemented"};
  }
  if (rhs.kind == K::kNull) {
    if (op == 0) return lhs.kind == K::kNull;
    if (op == 5) return lhs.kind != K::kNull;
    incomparable(c);
  }
  if (lhs.kind == K::kNull) return op == 5;
  switch (op) {
    case 0: case 1: case 2: case 3: case 4: case 5:
      if (lhs.kind != rhs.kind) incomparable(c);
      if (lhs.kind == K::kNumber) return ordered(op, lhs.number, rhs.number);
      if (lhs.kind == K::kText) return ordered(op, lhs.text, rhs.text);
      if (op != 0 && op != 5) incomparable(c);
      if (lhs.kind == K::kBool) return (lhs.flag == rhs.flag) == (op == 0);
      return (lhs.list == rhs.list) == (op == 0);
    case 6: case 7:
      if (lhs.kind != K::kText || rhs.kind != K::kText) incomparable(c);
      return glob_match(rhs.text, lhs.text) == (op == 6);
    case 8:
      if (lhs.kind != K::kText || rhs.kind != K::kList) incomparable(c);
      return std::find(rhs.list.begin(), rhs.list.end(), lhs.text) != rhs.list.end();
    case 12:
      if (lhs.kind != K::kText || rhs.kind != K::kText) incomparable(c);
      return contains_ignoring_case(lhs.text, rhs.text);
    default: {
      if (lhs.kind != K::kList || rhs.kind != K::kList) incomparable(c);
      const std::set<std::string> a(lhs.list.begin(), lhs.list.end());
      const std::set<std::string> b(rhs.list.begin(), rhs.list.end());
      auto within = [](const std::set<std::string>& x, const std::set<std::string>& y) {
        return std::includes(y.begin(), y.end(), x.begin(), x.end());
      };
      if (op == 10) return within(a, b);
      if (op == 11) return within(b, a);
      for (const std::string& s : a) {
        if (b.count(s) != 0) return true;
      }
      return false;
    }
  }
}

}  // namespace

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

bool condition_holds(const StoredObject& object, const protocol::RelativeExpr& condition) {
  if (!condition.prop) throw ConditionError{12, "Condition without a property"};
  const std::string& name = condition.prop->name;
  const PropertyValue* stored = object.findProperty(name);
  Operand lhs;
  if (stored != nullptr) {
    lhs = from_stored(stored->value);
  } else if (name == "id") {
    lhs = text(object.id);
  } else {
    return false;
  }
  return holds(condition, lhs, from_constant(*condition.prop));
}

}  // namespace server
