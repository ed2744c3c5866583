// Failure texts and the choice codecs shared by all field tables.

#include "protocol/message_schema.h"

#include <cctype>

namespace protocol {
namespace fields {

void throw_tag_mismatch(TagCode got, const std::string& expected) {
  throw EBer("Tag mismatch, got " + std::to_string(got) + " expected " + expected);
}

void throw_unexpected_tag(TagCode got, const Site& site) {
  throw EBer("Unexpected tag " + std::to_string(got) + " received in Union " + site.owner +
             ".this->" + site.field);
}

void null_during_write(const Site& site) {
  if (site.field == nullptr) util::assert_failed("(*it) is NULL during BER write");
  util::assert_failed(std::string("this->") + site.field + " is NULL during BER write");
}

std::string sequence_tag_name(const char* className, bool legacy) {
  std::string name = "BE_";
  for (const char* p = className; *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (p != className && std::isupper(c) && std::islower(static_cast<unsigned char>(p[-1]))) {
      name += '_';
    }
    name += static_cast<char>(std::toupper(c));
  }
  return name + (legacy ? "_LEGACY" : "_CURRENT");
}

std::string list_tag_name(TagCode tag) {
  switch (tag) {
    case BE_SEQ_CURRENT: return "BE_SEQ_CURRENT";
    case BE_SEQ_LEGACY: return "BE_SEQ_LEGACY";
    case BE_SET_CURRENT: return "BE_SET_CURRENT";
    default: return "BE_SET_LEGACY";
  }
}

bool equal_values(const BerValue* a, const BerValue* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return *a == *b;
}

ChildSlot ChoiceCodec::read(Value& v, TagCode tag, const Decoding& decoding,
                            const Site& site) const {
  for (const Alternative& alt : alternatives) {
    if (alt.tag(decoding.legacy) == tag) {
      v = alt.make();
      return ChildSlot::owned_by_parent(v.get());
    }
  }
  throw_unexpected_tag(tag, site);
}

void ChoiceCodec::copy(Value& to, const Value& from) const {
  to.reset();
  if (from != nullptr) to.reset(util::checked_cast<BerConstructed>(from->clone().release()));
}

ChildSlot ValueChoiceCodec::read(Value& v, TagCode tag, const Decoding& decoding,
                                 const Site& site) const {
  if (tag == BE_INTEGER) {
    v = std::make_unique<BerIntegerTemplate<int32_t>>(kIntMin, kIntMax, BE_INTEGER);
  } else if (tag == string_tag(decoding.legacy)) {
    v = std::make_unique<BerString>(65536, tag);
  } else if (tag == BE_NULL) {
    v = std::make_unique<BerNull>(BE_NULL, true);
  } else if (tag == BE_REAL) {
    v = std::make_unique<BerReal>(BE_REAL);
  } else {
    throw_unexpected_tag(tag, site);
  }
  return ChildSlot::owned_by_parent(v.get());
}

void ValueChoiceCodec::copy(Value& to, const Value& from) const {
  to.reset();
  if (from != nullptr) to.reset(util::checked_cast<BerPrimitive>(from->clone().release()));
}

}  // namespace fields
}  // namespace protocol
