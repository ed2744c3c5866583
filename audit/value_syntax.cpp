#include "audit/value_syntax.h"

#include <array>
#include <cstdint>

namespace audit {

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool all_digits(std::string_view text) {
  for (char c : text) {
    if (!is_digit(c)) return false;
  }
  return !text.empty();
}

// Decimal digits without a leading zero, at most `limit`.
bool canonical_number(std::string_view text, uint64_t limit) {
  if (!all_digits(text) || text.size() > 10 || (text.size() > 1 && text[0] == '0')) return false;
  uint64_t value = 0;
  for (char c : text) value = value * 10 + static_cast<uint64_t>(c - '0');
  return value <= limit;
}

// Exactly `width` digits making a number from `low` to `high`.
bool field(std::string_view text, size_t at, size_t width, int low, int high, int& value) {
  if (at + width > text.size()) return false;
  value = 0;
  for (size_t i = at; i < at + width; ++i) {
    if (!is_digit(text[i])) return false;
    value = value * 10 + (text[i] - '0');
  }
  return value >= low && value <= high;
}

bool is_leap(uint64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

bool is_hex_pair(std::string_view text, size_t at) {
  auto hex = [](char c) { return is_digit(c) || (c >= 'a' && c <= 'f'); };
  return at + 2 <= text.size() && hex(text[at]) && hex(text[at + 1]);
}

bool is_gid(std::string_view text) {
  if (text.size() != 11) return false;
  for (size_t i = 0; i < 11; i += 3) {
    if (!is_hex_pair(text, i) || (i < 9 && text[i + 2] != ':')) return false;
  }
  return true;
}

bool is_gid_list(std::string_view text) {
  if (text.empty()) return true;
  while (true) {
    if (!is_gid(text.substr(0, 11))) return false;
    if (text.size() == 11) return true;
    if (text[11] != ',') return false;
    text.remove_prefix(12);
  }
}

bool is_base64(std::string_view text) {
  if (text.size() % 4 != 0) return false;
  size_t padding = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '=') {
      ++padding;
      continue;
    }
    const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || is_digit(c) || c == '+' || c == '/';
    if (!letter || padding > 0) return false;
  }
  return padding <= 2;
}

bool is_boolean(std::string_view text) { return text == "true" || text == "false"; }
bool is_bignum(std::string_view text) { return all_digits(text) && (text.size() == 1 || text[0] != '0'); }
bool any_text(std::string_view) { return true; }

struct TypeRule {
  std::string_view name;
  bool (*valid)(std::string_view);
};

constexpr std::array<TypeRule, 15> kTypes = {{
    {"Boolean", is_boolean},
    {"Unsigned Integer", is_unsigned32},
    {"Integer", is_signed32},
    {"Real", is_real},
    {"Date", is_time},
    {"String", any_text},
    {"Object", any_text},
    {"ObjectSet", any_text},
    {"Index", is_unsigned32},
    {"StringList", any_text},
    {"Blob", is_base64},
    {"Gid", is_gid},
    {"GidList", is_gid_list},
    {"SnmpOid", any_text},
    {"BigNum", is_bignum},
}};

}  // namespace

bool is_time(std::string_view text) {
  // The year: four digits from 1970, or more without a leading zero.
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos || dash < 4 || !all_digits(text.substr(0, dash))) return false;
  if (dash == 4 ? text.substr(0, 4) < "1970" : text[0] == '0') return false;
  uint64_t year = 0;
  for (size_t i = 0; i < dash && i < 18; ++i) year = year * 10 + static_cast<uint64_t>(text[i] - '0');
  const std::string_view rest = text.substr(dash);
  // -MM-DD-THH:MM:SS
  if (rest.size() != 16 || rest[0] != '-' || rest[3] != '-' || rest[6] != '-' || rest[7] != 'T' ||
      rest[10] != ':' || rest[13] != ':') {
    return false;
  }
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  int month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!field(rest, 1, 2, 1, 12, month)) return false;
  const int days = kDays[month - 1] + (month == 2 && is_leap(year) ? 1 : 0);
  return field(rest, 4, 2, 1, days, day) && field(rest, 8, 2, 0, 23, hour) &&
         field(rest, 11, 2, 0, 59, minute) && field(rest, 14, 2, 0, 59, second);
}

int compare_times(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  return a.compare(b);
}

bool is_unsigned32(std::string_view text) { return canonical_number(text, 0xffffffffu); }

bool is_signed32(std::string_view text) {
  if (!text.empty() && text[0] == '-') {
    return text != "-0" && canonical_number(text.substr(1), uint64_t{1} << 31);
  }
  return canonical_number(text, 0x7fffffffu);
}

bool is_real(std::string_view text) {
  if (!text.empty() && text[0] == '-') text.remove_prefix(1);
  if (text == "inf" || text == "nan") return true;
  const size_t point = text.find('.');
  if (point == std::string_view::npos || point == 0 || text.size() - point != 7) return false;
  const std::string_view whole = text.substr(0, point);
  return all_digits(whole) && (whole.size() == 1 || whole[0] != '0') &&
         all_digits(text.substr(point + 1));
}

bool is_mask_list(std::string_view text) {
  int previous = -1;
  while (!text.empty()) {
    const size_t dot = text.find('.');
    const std::string_view number = text.substr(0, dot);
    if (!canonical_number(number, 31)) return false;
    int bit = 0;
    for (char c : number) bit = bit * 10 + (c - '0');
    if (bit <= previous) return false;
    previous = bit;
    if (dot == std::string_view::npos) return true;
    text.remove_prefix(dot + 1);
    if (text.empty()) return false;
  }
  return true;
}

namespace {

// The rule of a type text; nullptr for one the exporter never writes.
bool (*rule_of(std::string_view type))(std::string_view) {
  if (type.starts_with("Const ")) type.remove_prefix(6);
  if (type.starts_with("Computed ")) type.remove_prefix(9);
  if (type.starts_with("Enumeration(") && type.ends_with(")")) {
    if (!canonical_number(type.substr(12, type.size() - 13), 0xffff)) return nullptr;
    return is_signed32;
  }
  for (const TypeRule& rule : kTypes) {
    if (rule.name == type) return rule.valid;
  }
  return nullptr;
}

}  // namespace

bool is_property_type(std::string_view type) { return rule_of(type) != nullptr; }

bool is_property_value(std::string_view type, std::string_view value) {
  const auto rule = rule_of(type);
  return rule != nullptr && rule(value);
}

}  // namespace audit
