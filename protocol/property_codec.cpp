#include "protocol/property_codec.h"

#include <initializer_list>
#include <memory>
#include <typeinfo>

#include "util/error.h"

namespace protocol {

using protocol::Property;

namespace {

// The server's code for "Property updated with illegal type".
constexpr int32_t kIllegalType = 9;

bool one_of(uint32_t type, std::initializer_list<uint32_t> codes) {
  for (uint32_t c : codes) {
    if (type == c) return true;
  }
  return false;
}

bool is_unsigned_type(uint32_t type) {
  return one_of(type, {kTypeUnsigned, kTypeIndex, kTypeGid}) || (type & kPropEnumeration) != 0;
}

template <class V>
void store(Property& p, const std::string& name, uint32_t typeWord, std::unique_ptr<V> value) {
  p.name = name;
  p.type = typeWord;
  p.data = std::move(value);
}

template <class V, class T>
void store_value(Property& p, const std::string& name, uint32_t typeWord, const T& value) {
  auto v = std::make_unique<V>();
  v->value = value;
  store(p, name, typeWord, std::move(v));
}

// Steps 2 and 3 of every decode: the property's type must be the wanted one
// and its value of class V; returns the value.
template <class V>
const V& checked_value(const Property& p, uint32_t wanted, const char* nullMessage,
                       bool withCodes = true) {
  if (type_code(p.type) != type_code(wanted)) {
    std::string message = "Type mismatch for property: " + p.name;
    if (withCodes) {
      message += ", wanted " + std::to_string(type_code(wanted)) + " got " +
                 std::to_string(type_code(p.type));
    }
    throw util::ETqlError(message, kIllegalType);
  }
  // The value classes are leaves: comparing the dynamic type is dynamic_cast
  // without its search through the bases.
  const BerConstructed* value = p.data.get();
  if (value == nullptr || typeid(*value) != typeid(V)) {
    throw util::ETqlError(nullMessage + p.name, kIllegalType);
  }
  return static_cast<const V&>(*p.data);
}

}  // namespace

void encode_property(Property& p, const std::string& name, uint32_t typeWord) {
  store(p, name, typeWord, std::make_unique<protocol::NullProp>());
}

void encode_property(Property& p, const std::string& name, uint32_t typeWord, bool value) {
  if (type_code(typeWord) != kTypeBoolean)
    util::assert_failed("Type mismatch in tql::encode bool: " + name);
  store_value<protocol::BooleanProp>(p, name, typeWord, value);
}

void encode_property(Property& p, const std::string& name, uint32_t typeWord, int32_t value) {
  if (!one_of(type_code(typeWord), {kTypeInteger, kTypeDate})) {
    util::assert_failed("Type mismatch in tql::encode int: " + name);
  }
  store_value<protocol::SignedIntProp>(p, name, typeWord, value);
}

void encode_property(Property& p, const std::string& name, uint32_t typeWord, uint32_t value) {
  if (!is_unsigned_type(type_code(typeWord))) {
    util::assert_failed("Type mismatch in tql::encode unsigned int: " + name);
  }
  store_value<protocol::UnsignedIntProp>(p, name, typeWord, value);
}

void encode_property(Property& p, const std::string& name, uint32_t typeWord,
                     const std::string& value) {
  if (!one_of(type_code(typeWord), {kTypeString, kTypeObject, kTypeSnmpOid})) {
    util::assert_failed("Type mismatch in tql::encode string: " + name);
  }
  store_value<protocol::StringProp>(p, name, typeWord, value);
}

void encode_property(Property& p, const std::string& name, uint32_t typeWord, const char* value) {
  encode_property(p, name, typeWord, std::string(value));
}

void encode_property(Property& p, const std::string& name, uint32_t typeWord,
                     const std::vector<std::string>& value) {
  if (!one_of(type_code(typeWord), {kTypeObjectSet, kTypeStringList})) {
    util::assert_failed("Type mismatch in tql::encode list<string>: " + name);
  }
  store_value<protocol::StringListProp>(p, name, typeWord, value);
}

void encode_property(Property& p, const std::string& name, uint32_t typeWord,
                     const util::BigNum& value) {
  if (type_code(typeWord) != kTypeBigNum)
    util::assert_failed("Type mismatch in tql::encode bignum: " + name);
  store_value<protocol::BigNumProp>(p, name, typeWord, value);
}

void decode_property(const Property& p, uint32_t wantedType, bool& out) {
  if (type_code(wantedType) != kTypeBoolean)
    util::assert_failed("Type mismatch in tql::decode bool");
  out = checked_value<protocol::BooleanProp>(p, wantedType, "Null given for boolean property: ",
                                             false)
            .value;
}

void decode_property(const Property& p, uint32_t wantedType, double& out) {
  if (type_code(wantedType) != kTypeReal) util::assert_failed("Type mismatch in tql::decode real");
  out = checked_value<protocol::RealProp>(p, wantedType, "Null given for real property: ").value;
}

void decode_property(const Property& p, uint32_t wantedType, int32_t& out) {
  if (type_code(wantedType) != kTypeInteger)
    util::assert_failed("Type mismatch in tql::decode int :" + p.name);
  out = checked_value<protocol::SignedIntProp>(p, wantedType, "Null given for integer property: ")
            .value;
}

void decode_property(const Property& p, uint32_t wantedType, uint32_t& out) {
  if (!is_unsigned_type(type_code(wantedType))) {
    util::assert_failed("Type mismatch in tql::decode uint/enum/index");
  }
  out = checked_value<protocol::UnsignedIntProp>(p, wantedType,
                                                 "Null given for unsigned property: ")
            .value;
}

void decode_property(const Property& p, uint32_t wantedType, std::string& out) {
  if (!one_of(type_code(wantedType), {kTypeString, kTypeObject, kTypeSnmpOid})) {
    util::assert_failed("Type mismatch in tql::decode string/object");
  }
  out = checked_value<protocol::StringProp>(p, wantedType, "Null given for string property: ")
            .value;
}

void decode_property(const Property& p, uint32_t wantedType, int64_t& out) {
  switch (type_code(wantedType)) {
    case kTypeDate:
      out = checked_value<protocol::SignedIntProp>(p, wantedType,
                                                   "Null given for time property: ")
                .value;
      return;
    case kTypeInt64:
      out = checked_value<protocol::SignedInt64Prop>(p, wantedType,
                                                     "Null given for integer property: ")
                .value;
      return;
    default:
      util::assert_failed("Type mismatch in tql::decode int64 :" + p.name);
  }
}

void decode_property(const Property& p, uint32_t wantedType, util::BigNum& out) {
  if (type_code(wantedType) != kTypeBigNum)
    util::assert_failed("Type mismatch in tql::decode bignum: " + p.name);
  out = checked_value<protocol::BigNumProp>(p, wantedType, "Null given for bignum property: ")
            .value;
}

void decode_property(const Property& p, uint32_t wantedType, std::vector<std::string>& out) {
  if (!one_of(type_code(wantedType), {kTypeObjectSet, kTypeStringList})) {
    util::assert_failed("Type mismatch in tql::decode objectset");
  }
  out = checked_value<protocol::StringListProp>(p, wantedType, "Null given for slist property: ")
            .value;
}

void decode_property(const Property& p, uint32_t wantedType, std::vector<uint8_t>& out) {
  const std::string* bytes = nullptr;
  switch (type_code(wantedType)) {
    case kTypeBlob:
      bytes = &checked_value<protocol::BlobProp>(p, wantedType, "Null given for blob property: ")
                   .value;
      break;
    case kTypeLob:
      bytes = &checked_value<protocol::LobProp>(p, wantedType, "Null given for lob property: ")
                   .value;
      break;
    default:
      util::assert_failed("Type mismatch in tql::decode vector<uint8_t>");
  }
  out.assign(bytes->begin(), bytes->end());
}

void decode_property(const Property& p, uint32_t wantedType, std::vector<uint32_t>& out) {
  if (type_code(wantedType) != kTypeGidList)
    util::assert_failed("Type mismatch in tql::decode list<uint32_t>");
  out = checked_value<protocol::UnsignedIntListProp>(p, wantedType,
                                                     "Null given for unsigned int list property: ")
            .value;
}

}  // namespace protocol
