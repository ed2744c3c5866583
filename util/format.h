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

// "%u" and "%i".
std::string uint_to_string(uint32_t value);
std::string int_to_string(int32_t value);
// Append the decimal text of `value` to `out`; with twoDigits a single digit
// gets a leading zero (printf's "%02i", so "-7" stays as it is).
void append_uint(std::string& out, uint64_t value);
void append_int(std::string& out, int64_t value, bool twoDigits = false);
// The four bytes of a Gid, most significant first, as lower-case hex pairs
// joined by ':'.
std::string gid_to_string(uint32_t value);
// "nan", "inf", "-inf", or printf "%f".
std::string real_to_string(double value);
// real_to_string(value) appended to `out`.
void append_real(std::string& out, double value);

// strtod over the whole text (which reads "nan", "inf" and "-inf" too).
// Throws util::EParseError "Error parsing: \"<text>\"" when text is left
// over.
double parse_real(const std::string& text);
// strtol base 10 over the whole text (saturating). Throws util::EParseError
// "Error parsing: " + quote_escape(text) when text is left over.
int32_t parse_int(const std::string& text);

// The text in double quotes with C-style backslash escapes for control bytes,
// quotes and backslashes.
std::string quote_escape(const std::string& text);

// Standard base64 (RFC 4648) with padding and no line breaks; `out` is cleared.
void base64_encode(const std::vector<uint8_t>& bytes, std::string& out);

// Cuts `text` at every `separator` into the non-empty pieces. `out` is cleared.
void split(const std::string& text, char separator, std::vector<std::string>& out);
// Cuts `text` at any character of `separators` into the non-empty pieces.
void split_any(const std::string& text, const std::string& separators,
               std::vector<std::string>& out);

// Name of a history datatype number 0..6; throws util::EParseError
// "Tried to get name of invalid datatype: <n>" for any other number.
std::string datatype_name(uint32_t number);

}  // namespace util

#endif  // TALVIX_UTIL_FORMAT_H_
