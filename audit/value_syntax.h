// The renderings the exporter gives values, as predicates over the written
// (escaped) text of an attribute value. Each is true only for a text the
// exporter can write.
#ifndef TALVIX_AUDIT_VALUE_SYNTAX_H_
#define TALVIX_AUDIT_VALUE_SYNTAX_H_

#include <string_view>

namespace audit {

// "YYYY-MM-DD-THH:MM:SS" of a time from 1970 on, in UTC (a year from 10000
// on with all its digits).
bool is_time(std::string_view text);
// Decimal without leading zeros, within 32 bits (signed: "-" allowed, "-0" not).
bool is_unsigned32(std::string_view text);
bool is_signed32(std::string_view text);
// printf "%f" of a double: digits, a point, six digits; or inf, nan with an
// optional "-".
bool is_real(std::string_view text);
// The numbers of set bits of a 32-bit mask, ascending, joined with ".".
bool is_mask_list(std::string_view text);
// Whether the exporter writes the property type text `type`.
bool is_property_type(std::string_view type);
// Whether `text` is a value the exporter writes for a property of type text
// `type` (both as written). False also for a type text it never writes.
bool is_property_value(std::string_view type, std::string_view value);

// Compares two is_time() texts by the time they name.
int compare_times(std::string_view a, std::string_view b);

}  // namespace audit

#endif  // TALVIX_AUDIT_VALUE_SYNTAX_H_
