// Conversions between properties and native values.
//
// encode() sets a property's name and type word and replaces its value
// object with a new one holding the given value; the type code must be one
// the value's type can carry (else assert_failed). decode() checks that the
// property has the wanted type (low 17 bits: code and enumeration flag;
// constant and computed flags are ignored) and carries a value, then copies
// it out; a mismatch or a NullProp throws util::ETqlError with code 9. Asking a
// decode variant for a type it cannot produce is a programming error
// (assert_failed).
#ifndef TALVIX_PROTOCOL_PROPERTY_CODEC_H_
#define TALVIX_PROTOCOL_PROPERTY_CODEC_H_

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/property_values.h"
#include "util/bignum.h"

namespace protocol {

// A property without a value (NullProp), for any type word.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord);
// Type code 1.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord, bool value);
// Type codes 3 (Integer) and 5 (Date).
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     int32_t value);
// Type codes 2, 10, 13 or any enumeration.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     uint32_t value);
// Type codes 6, 7 and 15.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     const std::string& value);
// Keeps a string literal from converting to bool.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     const char* value);
// Type codes 8 and 11.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     const std::vector<std::string>& value);
// Type code 18.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     const util::BigNum& value);

// Wanted 1.
void decode_property(const protocol::Property& p, uint32_t wantedType, bool& out);
// Wanted 4.
void decode_property(const protocol::Property& p, uint32_t wantedType, double& out);
// Wanted 3.
void decode_property(const protocol::Property& p, uint32_t wantedType, int32_t& out);
// Wanted 2, 10, 13 or an enumeration.
void decode_property(const protocol::Property& p, uint32_t wantedType, uint32_t& out);
// Wanted 6, 7 or 15.
void decode_property(const protocol::Property& p, uint32_t wantedType, std::string& out);
// Wanted 5 (a 32-bit Date, widened with its sign) or 17.
void decode_property(const protocol::Property& p, uint32_t wantedType, int64_t& out);
// Wanted 18.
void decode_property(const protocol::Property& p, uint32_t wantedType, util::BigNum& out);
// Wanted 8 or 11.
void decode_property(const protocol::Property& p, uint32_t wantedType,
                     std::vector<std::string>& out);
// Wanted 12 (Blob) or 19 (large object).
void decode_property(const protocol::Property& p, uint32_t wantedType, std::vector<uint8_t>& out);
// Wanted 14.
void decode_property(const protocol::Property& p, uint32_t wantedType, std::vector<uint32_t>& out);

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_PROPERTY_CODEC_H_
