// Tag codes of the wire encoding and the free functions that write
// identifier octets, lengths and the indefinite-length frame.
//
// A tag code is number * 8 + class * 2 + constructed (class 0 universal,
// 1 application, 2 context-specific, 3 private). Two encodings exist side by
// side; they differ only in the tags of strings, sequences/lists, sets and
// choice alternatives, so every helper that depends on them takes `legacy`.
#ifndef TALVIX_PROTOCOL_TAGS_H_
#define TALVIX_PROTOCOL_TAGS_H_

#include <cstddef>
#include <cstdint>

#include "protocol/ber_value.h"

namespace protocol {

constexpr TagCode BE_BOOLEAN = 8;
constexpr TagCode BE_INTEGER = 16;
constexpr TagCode BE_STRING_CURRENT = 32;
constexpr TagCode BE_NULL = 40;
constexpr TagCode BE_REAL = 72;
constexpr TagCode BE_ENUMERATED = 80;
constexpr TagCode BE_STRING_LEGACY = 176;
constexpr TagCode BE_SEQ_CURRENT = 129;
constexpr TagCode BE_SEQ_LEGACY = 1;
constexpr TagCode BE_SET_CURRENT = 137;
constexpr TagCode BE_SET_LEGACY = 9;

// Every named sequence type carries the sequence codes under its own name.
#define TALVIX_NAMED_SEQUENCE_TAGS(NAME)                   \
  constexpr TagCode BE_##NAME##_CURRENT = BE_SEQ_CURRENT; \
  constexpr TagCode BE_##NAME##_LEGACY = BE_SEQ_LEGACY;
TALVIX_NAMED_SEQUENCE_TAGS(PROPERTY)
TALVIX_NAMED_SEQUENCE_TAGS(DATA_INTERVAL)
TALVIX_NAMED_SEQUENCE_TAGS(DATA_INTERVAL_RAW_ELEMENT)
TALVIX_NAMED_SEQUENCE_TAGS(ACTION_CONF)
TALVIX_NAMED_SEQUENCE_TAGS(ACTION_CONF_GROUP)
TALVIX_NAMED_SEQUENCE_TAGS(CHECK)
TALVIX_NAMED_SEQUENCE_TAGS(CHECK_DESCRIPTION)
TALVIX_NAMED_SEQUENCE_TAGS(CHECK_RESULT)
TALVIX_NAMED_SEQUENCE_TAGS(CHECK_GROUP)
TALVIX_NAMED_SEQUENCE_TAGS(CHECK_CONF)
TALVIX_NAMED_SEQUENCE_TAGS(CHECK_CONF_GROUP)
TALVIX_NAMED_SEQUENCE_TAGS(HOST_INFO_LINE)
TALVIX_NAMED_SEQUENCE_TAGS(RULE)
TALVIX_NAMED_SEQUENCE_TAGS(SERVER_NAME_PORT)
TALVIX_NAMED_SEQUENCE_TAGS(RELATIVE_EXPR)
TALVIX_NAMED_SEQUENCE_TAGS(PATH_PATTERN)
TALVIX_NAMED_SEQUENCE_TAGS(OBJECT)
#undef TALVIX_NAMED_SEQUENCE_TAGS

// Tag of a string, a sequence or list, and a set in the given encoding.
constexpr TagCode string_tag(bool legacy) { return legacy ? BE_STRING_LEGACY : BE_STRING_CURRENT; }
constexpr TagCode seq_tag(bool legacy) { return legacy ? BE_SEQ_LEGACY : BE_SEQ_CURRENT; }
constexpr TagCode set_tag(bool legacy) { return legacy ? BE_SET_LEGACY : BE_SET_CURRENT; }
// Alternative n of a choice: context-specific n (8n+5) in the current
// encoding, application n (8n+3) in the legacy one; both constructed.
constexpr TagCode choice_tag(uint32_t n, bool legacy) { return n * 8 + (legacy ? 3 : 5); }

// Identifier octets of `tag`: one octet below 248, else the long form.
void write_tag(net::ByteOutput& stream, TagCode tag);
// A definite length: one octet below 128, else 80+n and n big-endian octets.
void write_length(net::ByteOutput& stream, size_t length);
// The indefinite-length opener, the single octet 80.
void write_indefinite(net::ByteOutput& stream);
// The end-of-contents closer, the two octets 00 00.
void write_end_of_contents(net::ByteOutput& stream);

// Appends the identifier octets of `tag` to `out` (room for at least 6
// octets) and returns how many were written. Shared by the writers that
// assemble a whole value before handing it to the stream.
size_t encode_tag(TagCode tag, uint8_t* out);
// Appends the length octets (at most 5) to `out` and returns their count.
size_t encode_length(size_t length, uint8_t* out);

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_TAGS_H_
