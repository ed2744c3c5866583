// The property type word: the one list of type codes and flag bits that
// the parser, the client, the exporter and the stand-in server share.
//
// A type word holds the type code in its low 16 bits (for an enumeration:
// the number of the enumeration), bit 16 marks an enumeration, bit 17 a
// constant and bit 19 a computed property. Type comparisons look at the low
// 17 bits (code and enumeration flag), so a plain code matches only when the
// enumeration bit is clear.
#ifndef TALVIX_PROTOCOL_PROPERTY_TYPES_H_
#define TALVIX_PROTOCOL_PROPERTY_TYPES_H_

#include <cstdint>

namespace protocol {

// Type codes.
enum PropertyType : uint32_t {
  kTypeBoolean = 1,
  kTypeUnsigned = 2,
  kTypeInteger = 3,
  kTypeReal = 4,
  kTypeDate = 5,  // 32-bit seconds since 1970 on the wire
  kTypeString = 6,
  kTypeObject = 7,     // the id of another object
  kTypeObjectSet = 8,  // ids of other objects
  kTypeHidden = 9,     // never written to the export document
  kTypeIndex = 10,     // a history series of the object, exported as its rows
  kTypeStringList = 11,
  kTypeBlob = 12,
  kTypeGid = 13,
  kTypeGidList = 14,
  kTypeSnmpOid = 15,
  kTypeInt64 = 17,
  kTypeBigNum = 18,
  kTypeLob = 19,  // a large object: bytes, as a Blob
};

// Flag bits of the type word.
constexpr uint32_t kPropEnumeration = 0x10000;
constexpr uint32_t kPropConstant = 0x20000;
constexpr uint32_t kPropComputed = 0x80000;
// The part of a type word that type comparisons look at: code and
// enumeration flag.
constexpr uint32_t kPropTypeMask = 0x1ffff;

// The low 17 bits of `typeWord`: a PropertyType when the enumeration bit is
// clear.
constexpr uint32_t type_code(uint32_t typeWord) { return typeWord & kPropTypeMask; }

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_PROPERTY_TYPES_H_
