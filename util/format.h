// Small conversions between values and text: integers, reals, Gids, base64,
// quoting for error messages, number parsing, list splitting and the names of
// history datatypes. Free functions without state.
#ifndef TALVIX_UTIL_FORMAT_H_
#define TALVIX_UTIL_FORMAT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace util {

// "%u", or "%02u" with twoDigits.
std::string uint_to_string(uint32_t value, bool twoDigits = false);
// "%i", or "%02i" with twoDigits.
std::string int_to_string(int32_t value, bool twoDigits = false);
// An unsigned 64-bit size in decimal.
std::string size_to_string(uint64_t value);
// Append the decimal text of `value` to `out`; with twoDigits a single digit
// gets a leading zero (printf's "%02u" and "%02i").
void append_uint(std::string& out, uint64_t value, bool twoDigits = false);
void append_int(std::string& out, int64_t value, bool twoDigits = false);
// Lower-case hexadecimal without prefix, zero-padded to at least `width`.
std::string hex_string(uint32_t value, int width);
// The four bytes of a Gid, most significant first, as hex pairs joined by ':'.
std::string gid_to_string(uint32_t value);
// "nan", "inf", "-inf", or printf "%<width>.<precision>f" (negative = omitted).
std::string real_to_string(double value, int width = -1, int precision = -1);
// real_to_string(value, width, precision) appended to `out`.
void append_real(std::string& out, double value, int width = -1, int precision = -1);

// strtod over the whole text; "nan", "inf", "-inf" accepted. Throws
// util::EParseError "Error parsing: \"<text>\"" when text is left over.
double parse_real(const std::string& text);
// strtol base 10 over the whole text (saturating). Throws util::EParseError
// "Error parsing: " + quote_escape(text) when text is left over.
int32_t parse_int(const std::string& text);

// The text in double quotes with C-style backslash escapes for control bytes,
// quotes and backslashes.
std::string quote_escape(const std::string& text);

// Standard base64 (RFC 4648) with padding and no line breaks; `out` is cleared.
void base64_encode(const std::vector<uint8_t>& bytes, std::string& out);
std::string base64_encode(const std::vector<uint8_t>& bytes);

// Cuts `text` at every `separator`; empty pieces only with keepEmpty. `out` is cleared.
void split(const std::string& text, char separator, bool keepEmpty, std::vector<std::string>& out);
// Cuts `text` at any character of `separators`.
void split_any(const std::string& text, const std::string& separators, bool keepEmpty,
               std::vector<std::string>& out);

// Name of a history datatype number 0..6; throws util::EParseError
// "Tried to get name of invalid datatype: <n>" for any other number.
std::string datatype_name(uint32_t number);

}  // namespace util

#endif  // TALVIX_UTIL_FORMAT_H_
