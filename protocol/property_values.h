// Properties: how the server's objects carry their data on the wire.
//
// A Property is a name, a 32-bit type word and one value object out of
// thirteen value classes; the type word is described in property_types.h. A
// property without a value carries a NullProp (or, once moved from, none at
// all: is_null_value() takes both). encode_property/decode_property
// (property_codec.h) convert between properties and native values.
#ifndef TALVIX_PROTOCOL_PROPERTY_VALUES_H_
#define TALVIX_PROTOCOL_PROPERTY_VALUES_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/message_base.h"
#include "protocol/message_lists.h"
#include "protocol/property_types.h"
#include "util/bignum.h"

namespace protocol {

class Property : public Message<Property> {
 public:
  std::string name;                     // at most 128 octets
  uint32_t type = 0;                    // the type word
  std::unique_ptr<BerConstructed> data;  // one of the value classes below
};

// Whether `property` carries no value: no value object, or a NullProp.
bool is_null_value(const Property& property);

// The value classes, alternatives 0 to 12 of Property::data.
class StringProp final : public Message<StringProp> {
 public:
  std::string value;  // at most 1024 octets
};
class StringListProp final : public Message<StringListProp> {
 public:
  std::vector<std::string> value;  // each at most 1024 octets
};
class SignedIntProp final : public Message<SignedIntProp> {
 public:
  int32_t value = 0;
};
class UnsignedIntProp final : public Message<UnsignedIntProp> {
 public:
  uint32_t value = 0;
};
class RealProp final : public Message<RealProp> {
 public:
  double value = 0.0;
};
class BooleanProp final : public Message<BooleanProp> {
 public:
  bool value = false;
};
class NullProp final : public Message<NullProp> {};
class BlobProp final : public Message<BlobProp> {
 public:
  std::string value;  // bytes, at most 2048
};
class UnsignedIntListProp final : public Message<UnsignedIntListProp> {
 public:
  std::vector<uint32_t> value;
};
class SignedInt64Prop final : public Message<SignedInt64Prop> {
 public:
  int64_t value = 0;
};
class UnsignedInt64Prop final : public Message<UnsignedInt64Prop> {
 public:
  uint64_t value = 0;
};
class BigNumProp final : public Message<BigNumProp> {
 public:
  util::BigNum value;
};
class LobProp final : public Message<LobProp> {
 public:
  std::string value;  // bytes, at most 2097152
};

extern template class Message<Property>;
extern template class Message<StringProp>;
extern template class Message<StringListProp>;
extern template class Message<SignedIntProp>;
extern template class Message<UnsignedIntProp>;
extern template class Message<RealProp>;
extern template class Message<BooleanProp>;
extern template class Message<NullProp>;
extern template class Message<BlobProp>;
extern template class Message<UnsignedIntListProp>;
extern template class Message<SignedInt64Prop>;
extern template class Message<UnsignedInt64Prop>;
extern template class Message<BigNumProp>;
extern template class Message<LobProp>;

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_PROPERTY_VALUES_H_
