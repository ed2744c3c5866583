// Conversions between properties and native values.
//
// encode() sets a property's name and type word and replaces its value
// object with a new one holding the given value; the type code must be one
// the value's type can carry (else assert_failed). decode() checks that the
// property has the wanted type (type_code(): constant and computed flags
// are ignored) and carries a value, then copies it out; a mismatch or a
// NullProp throws util::ETqlError with code 9. Asking a decode variant for a
// type it cannot produce is a programming error (assert_failed).
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
// kTypeBoolean.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord, bool value);
// kTypeInteger and kTypeDate.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     int32_t value);
// kTypeUnsigned, kTypeIndex, kTypeGid or any enumeration.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     uint32_t value);
// kTypeString, kTypeObject and kTypeSnmpOid.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     const std::string& value);
// Keeps a string literal from converting to bool.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     const char* value);
// kTypeObjectSet and kTypeStringList.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     const std::vector<std::string>& value);
// kTypeBigNum.
void encode_property(protocol::Property& p, const std::string& name, uint32_t typeWord,
                     const util::BigNum& value);

// Wanted kTypeBoolean.
void decode_property(const protocol::Property& p, uint32_t wantedType, bool& out);
// Wanted kTypeReal.
void decode_property(const protocol::Property& p, uint32_t wantedType, double& out);
// Wanted kTypeInteger.
void decode_property(const protocol::Property& p, uint32_t wantedType, int32_t& out);
// Wanted kTypeUnsigned, kTypeIndex, kTypeGid or an enumeration.
void decode_property(const protocol::Property& p, uint32_t wantedType, uint32_t& out);
// Wanted kTypeString, kTypeObject or kTypeSnmpOid.
void decode_property(const protocol::Property& p, uint32_t wantedType, std::string& out);
// Wanted kTypeDate (32 bits on the wire, widened with its sign) or kTypeInt64.
void decode_property(const protocol::Property& p, uint32_t wantedType, int64_t& out);
// Wanted kTypeBigNum.
void decode_property(const protocol::Property& p, uint32_t wantedType, util::BigNum& out);
// Wanted kTypeObjectSet or kTypeStringList.
void decode_property(const protocol::Property& p, uint32_t wantedType,
                     std::vector<std::string>& out);
// Wanted kTypeBlob or kTypeLob.
void decode_property(const protocol::Property& p, uint32_t wantedType, std::vector<uint8_t>& out);
// Wanted kTypeGidList.
void decode_property(const protocol::Property& p, uint32_t wantedType, std::vector<uint32_t>& out);

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_PROPERTY_CODEC_H_
