// Field tables of Property and its value classes.

#include "protocol/property_values.h"

#include <typeinfo>

#include "protocol/message_schema.h"

namespace protocol {

using namespace fields;  // NOLINT(build/namespaces): the table vocabulary

TALVIX_MESSAGE_CLASS(StringProp, alternative(0), 1, text("value", &StringProp::value, 1024))
TALVIX_MESSAGE_CLASS(StringListProp, alternative(1), 1,
                     list<ListOfString1024>("value", &StringListProp::value))
TALVIX_MESSAGE_CLASS(SignedIntProp, alternative(2), 1, int32("value", &SignedIntProp::value))
TALVIX_MESSAGE_CLASS(UnsignedIntProp, alternative(3), 1, uint32("value", &UnsignedIntProp::value))
TALVIX_MESSAGE_CLASS(RealProp, alternative(4), 1, real("value", &RealProp::value))
TALVIX_MESSAGE_CLASS(BooleanProp, alternative(5), 1, boolean("value", &BooleanProp::value))
TALVIX_MESSAGE_CLASS(NullProp, alternative(6), 0)
TALVIX_MESSAGE_CLASS(BlobProp, alternative(7), 1, text("value", &BlobProp::value, 2048))
TALVIX_MESSAGE_CLASS(UnsignedIntListProp, alternative(8), 1,
                     list<ListOfInteger0x0to0xffffffff>("value", &UnsignedIntListProp::value))
TALVIX_MESSAGE_CLASS(SignedInt64Prop, alternative(9), 1, int64("value", &SignedInt64Prop::value))
TALVIX_MESSAGE_CLASS(UnsignedInt64Prop, alternative(10), 1,
                     uint64("value", &UnsignedInt64Prop::value))
TALVIX_MESSAGE_CLASS(BigNumProp, alternative(11), 1, bignum("value", &BigNumProp::value))
TALVIX_MESSAGE_CLASS(LobProp, alternative(12), 1, text("value", &LobProp::value, 2097152))

TALVIX_MESSAGE_CLASS(Property, kSequence, 3,
                     text("name", &Property::name, 128),
                     uint32("type", &Property::type),
                     choice<StringProp, StringListProp, SignedIntProp, UnsignedIntProp, RealProp,
                            BooleanProp, NullProp, BlobProp, UnsignedIntListProp,
                            SignedInt64Prop, UnsignedInt64Prop, BigNumProp, LobProp>(
                         "data", &Property::data))

bool is_null_value(const Property& property) {
  const BerConstructed* value = property.data.get();
  return value == nullptr || typeid(*value) == typeid(NullProp);
}

}  // namespace protocol
