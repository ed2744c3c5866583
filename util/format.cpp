#include "util/format.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "util/error.h"

namespace util {

namespace {

// printf into a string, as long as the text needs.
template <class... Args>
std::string format_text(const char* format, Args... args) {
  char buffer[128];
  int n = std::snprintf(buffer, sizeof buffer, format, args...);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof buffer) return std::string(buffer, static_cast<size_t>(n));
  std::string result(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(&result[0], result.size(), format, args...);
  result.resize(static_cast<size_t>(n));
  return result;
}

std::string parse_error_quoted(const std::string& quoted) {
  return "Error parsing: " + quoted;
}

const char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string uint_to_string(uint32_t value) {
  std::string text;
  append_uint(text, value);
  return text;
}

std::string int_to_string(int32_t value) {
  std::string text;
  append_int(text, value);
  return text;
}

void append_uint(std::string& out, uint64_t value) {
  char buffer[24];
  char* end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  out.append(buffer, end);
}

void append_int(std::string& out, int64_t value, bool twoDigits) {
  char buffer[24];
  char* end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  // printf's zero padding goes after the sign; a negative number already
  // has two characters.
  if (twoDigits && end - buffer < 2) out += '0';
  out.append(buffer, end);
}

std::string gid_to_string(uint32_t value) {
  static const char kHexDigits[] = "0123456789abcdef";
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (!text.empty()) text += ':';
    text += kHexDigits[(value >> (shift + 4)) & 0xFu];
    text += kHexDigits[(value >> shift) & 0xFu];
  }
  return text;
}

std::string real_to_string(double value) {
  std::string text;
  append_real(text, value);
  return text;
}

void append_real(std::string& out, double value) {
  if (std::isnan(value)) {
    out += "nan";
    return;
  }
  // An infinity is the only value of magnitude 1 or more that equals its half.
  if (std::fabs(value) >= 1.0 && value == value / 2) {
    out += value < 0 ? "-inf" : "inf";
    return;
  }
  char buffer[400];
  // The common case of measurements: a value within 2^-2 of a whole number
  // of millionths (values of at most six decimals, or nearly so) below 2^51
  // millionths. Then the product below is that whole number, exact to within
  // a quarter, and it is what printf rounds the exact value to.
  const double millionths = value * 1e6;
  if (std::fabs(millionths) < 0x1p51 && millionths == std::floor(millionths)) {
    auto whole = static_cast<uint64_t>(std::fabs(millionths));
    char* end = buffer + sizeof buffer;
    char* at = end;
    for (int i = 0; i < 6; ++i, whole /= 10) *--at = static_cast<char>('0' + whole % 10);
    *--at = '.';
    do {
      *--at = static_cast<char>('0' + whole % 10);
      whole /= 10;
    } while (whole != 0);
    if (std::signbit(value)) *--at = '-';
    out.append(at, end);
    return;
  }
  // The exact decimal expansion with six decimals, as printf's "%f"; DBL_MAX
  // needs 316 characters.
  const std::to_chars_result result =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 6);
  out.append(buffer, result.ptr);
}

double parse_real(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  double value = std::strtod(begin, &end);
  if (*end != '\0' || static_cast<size_t>(end - begin) != text.size()) {
    throw util::EParseError(parse_error_quoted("\"" + text + "\""));
  }
  return value;
}

int32_t parse_int(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  long value = std::strtol(begin, &end, 10);
  if (*end != '\0' || static_cast<size_t>(end - begin) != text.size()) {
    throw util::EParseError(parse_error_quoted(quote_escape(text)));
  }
  // The result is a 32-bit long on the original platform: saturate there.
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

std::string quote_escape(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case 7: out += "\\a"; break;
      case 8: out += "\\b"; break;
      case 9: out += "\\t"; break;
      case 10: out += "\\n"; break;
      case 11: out += "\\v"; break;
      case 12: out += "\\f"; break;
      case 13: out += "\\r"; break;
      case '"': out += "\\\""; break;
      case '\'': out += "\\'"; break;
      case '\\': out += "\\\\"; break;
      default:
        if (c < 0x20) {
          out += format_text("\\%03o", static_cast<unsigned>(c));
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
  return out;
}

void base64_encode(const std::vector<uint8_t>& bytes, std::string& out) {
  out.clear();
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t group = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    out += kBase64Alphabet[(group >> 18) & 63];
    out += kBase64Alphabet[(group >> 12) & 63];
    out += kBase64Alphabet[(group >> 6) & 63];
    out += kBase64Alphabet[group & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest == 1) {
    uint32_t group = uint32_t{bytes[i]} << 16;
    out += kBase64Alphabet[(group >> 18) & 63];
    out += kBase64Alphabet[(group >> 12) & 63];
    out += "==";
  } else if (rest == 2) {
    uint32_t group = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8);
    out += kBase64Alphabet[(group >> 18) & 63];
    out += kBase64Alphabet[(group >> 12) & 63];
    out += kBase64Alphabet[(group >> 6) & 63];
    out += '=';
  }
}

void split_any(const std::string& text, const std::string& separators,
               std::vector<std::string>& out) {
  out.clear();
  size_t start = 0;
  while (true) {
    size_t end = text.find_first_of(separators, start);
    size_t stop = end == std::string::npos ? text.size() : end;
    if (stop > start) out.push_back(text.substr(start, stop - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
}

void split(const std::string& text, char separator, std::vector<std::string>& out) {
  split_any(text, std::string(1, separator), out);
}

std::string datatype_name(uint32_t number) {
  static const char* const kNames[] = {
      "rawDEPRECATED", "continuousDEPRECATED", "sawtooth", "enum",
      "incidents",     "continuous",           "accumulation",
  };
  if (number < sizeof(kNames) / sizeof(kNames[0])) return kNames[number];
  throw util::EParseError("Tried to get name of invalid datatype: " +
                          int_to_string(static_cast<int32_t>(number)));
}

}  // namespace util
