// Field tables of the message classes and the generic code that walks them.
//
// Internal to the protocol library: only the files that define message and
// list classes include it. Each sequence class is described once with
// TALVIX_MESSAGE_CLASS (name, tags, required field count, fields in wire
// order) and each list or set class with TALVIX_LIST_CLASS (name, list or
// set, element codec); both also instantiate the generic code for the class,
// which the public headers declare with `extern template`.
//
// A codec knows how one kind of value travels (a string of at most n octets,
// an integer in a range, a pointer to a nested message, a list, a choice,
// ...): it writes a stored value, checks an arriving tag and hands out the
// receiver for it, and tells whether two stored values are equal and copies
// them. A field binds a codec to a member; a list binds one to its elements.
#ifndef TALVIX_PROTOCOL_MESSAGE_SCHEMA_H_
#define TALVIX_PROTOCOL_MESSAGE_SCHEMA_H_

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/ber_primitives.h"
#include "protocol/message_base.h"
#include "protocol/tags.h"
#include "util/bignum.h"
#include "util/error.h"

namespace protocol {
namespace fields {

// Where a value sits, for failure texts: the enclosing class and the member
// name (none for a list element).
struct Site {
  const char* owner;
  const char* field;
};

// "Tag mismatch, got <tag> expected <expected>".
[[noreturn]] void throw_tag_mismatch(TagCode got, const std::string& expected);
// "Unexpected tag <tag> received in Union <owner>.this-><field>".
[[noreturn]] void throw_unexpected_tag(TagCode got, const Site& site);
// assert_failed "this-><field> is NULL during BER write" or, for a list
// element, "(*it) is NULL during BER write".
[[noreturn]] void null_during_write(const Site& site);
// "BE_PATH_PATTERN_CURRENT" for ("PathPattern", false).
std::string sequence_tag_name(const char* className, bool legacy);
// "BE_SEQ_CURRENT", "BE_SET_LEGACY", ... for a list or set tag code.
std::string list_tag_name(TagCode tag);
// Null pointers are equal to each other only.
bool equal_values(const BerValue* a, const BerValue* b);

// Values stored by value: compared and copied as such.
template <class T>
struct PlainCodec {
  using Value = T;
  Value fresh() const { return Value(); }
  bool equal(const T& a, const T& b) const { return a == b; }
  void copy(T& to, const T& from) const { to = from; }
};

// Writing binds a temporary value to the stored member. The primitive
// classes take a mutable target because the same object also reads; a value
// only being written never changes it.
template <class T>
T& writable(const T& value) {
  return const_cast<T&>(value);
}

struct StringCodec : PlainCodec<std::string> {
  explicit StringCodec(size_t maxLength) : max(maxLength) {}
  void write(const std::string& v, net::ByteOutput& io, bool legacy, const Site&) const {
    BerString::encode(io, v, max, string_tag(legacy));
  }
  ChildSlot read(std::string& v, TagCode tag, const Decoding& decoding, const Site&) const {
    if (tag != string_tag(decoding.legacy)) {
      throw_tag_mismatch(tag, decoding.legacy ? "BE_STRING_LEGACY" : "BE_STRING_CURRENT");
    }
    return ChildSlot::owned_by_reader(std::make_unique<BerString>(v, max, tag));
  }
  size_t max;
};

template <class T>
struct IntegerCodec : PlainCodec<T> {
  IntegerCodec(T minimum, T maximum) : min(minimum), max(maximum) {}
  void write(const T& v, net::ByteOutput& io, bool, const Site&) const {
    BerIntegerTemplate<T>::encode(io, v, min, max, BE_INTEGER);
  }
  ChildSlot read(T& v, TagCode tag, const Decoding&, const Site&) const {
    if (tag != BE_INTEGER) throw_tag_mismatch(tag, "BE_INTEGER");
    return ChildSlot::owned_by_reader(std::make_unique<BerIntegerTemplate<T>>(v, min, max, tag));
  }
  T min;
  T max;
};

// A primitive adapter class P over a member of type T, with one fixed tag.
template <class T, class P, TagCode kTag>
struct FixedTagCodec : PlainCodec<T> {
  void write(const T& v, net::ByteOutput& io, bool, const Site&) const { P::encode(io, v, kTag); }
  ChildSlot read(T& v, TagCode tag, const Decoding&, const Site&) const {
    if (tag != kTag) throw_tag_mismatch(tag, name(kTag));
    return ChildSlot::owned_by_reader(std::make_unique<P>(v, kTag));
  }
  static const char* name(TagCode tag) {
    return tag == BE_BOOLEAN ? "BE_BOOLEAN" : tag == BE_REAL ? "BE_REAL" : "BE_INTEGER";
  }
};
using BooleanCodec = FixedTagCodec<bool, BerBoolean, BE_BOOLEAN>;
using RealCodec = FixedTagCodec<double, BerReal, BE_REAL>;
using BigNumCodec = FixedTagCodec<util::BigNum, BerBigNum, BE_INTEGER>;

// An enumeration class E over a signed 32-bit member.
template <class E>
struct EnumCodec : PlainCodec<int32_t> {
  void write(const int32_t& v, net::ByteOutput& io, bool, const Site&) const {
    E::encode(io, v);
  }
  ChildSlot read(int32_t& v, TagCode tag, const Decoding&, const Site&) const {
    if (tag != BE_ENUMERATED) throw_tag_mismatch(tag, "BE_ENUMERATED");
    return ChildSlot::owned_by_reader(std::make_unique<E>(v));
  }
};

// An owned nested sequence of class T (pointer fields, list elements).
template <class T>
struct PointerCodec {
  using Value = std::unique_ptr<T>;
  Value fresh() const { return std::make_unique<T>(); }
  void write(const Value& v, net::ByteOutput& io, bool legacy, const Site& site) const {
    if (v == nullptr) null_during_write(site);
    v->write(io, legacy);
  }
  ChildSlot read(Value& v, TagCode tag, const Decoding& decoding, const Site&) const {
    if (tag != T::staticTag(decoding.legacy)) {
      throw_tag_mismatch(tag, sequence_tag_name(T::typeName(), decoding.legacy));
    }
    if (v == nullptr) v = std::make_unique<T>();
    return ChildSlot::owned_by_parent(v.get());
  }
  bool equal(const Value& a, const Value& b) const { return equal_values(a.get(), b.get()); }
  void copy(Value& to, const Value& from) const {
    to.reset();
    if (from != nullptr) to.reset(util::checked_cast<T>(from->clone().release()));
  }
};

// A nested list or set class L bound to a vector member.
template <class L>
struct ListCodec {
  using Value = typename L::Items;
  Value fresh() const { return Value(); }
  void write(const Value& v, net::ByteOutput& io, bool legacy, const Site&) const {
    L(writable(v)).write(io, legacy);
  }
  ChildSlot read(Value& v, TagCode tag, const Decoding& decoding, const Site&) const {
    check_tag(tag, decoding);
    return ChildSlot::owned_by_reader(std::make_unique<L>(v));
  }
  static void check_tag(TagCode tag, const Decoding& decoding) {
    if (tag != L::staticTag(decoding.legacy)) {
      throw_tag_mismatch(tag, list_tag_name(L::staticTag(decoding.legacy)));
    }
  }
  bool equal(const Value& a, const Value& b) const { return L::equalItems(a, b); }
  void copy(Value& to, const Value& from) const { L::copyItems(to, from); }
};

// One alternative of a choice: its tag in each encoding and its factory.
struct Alternative {
  TagCode (*tag)(bool legacy);
  std::unique_ptr<BerConstructed> (*make)();
};

template <class T>
std::unique_ptr<BerConstructed> make_alternative() {
  return std::make_unique<T>();
}

// A choice among sequence classes, chosen on reading by the arriving tag.
struct ChoiceCodec {
  using Value = std::unique_ptr<BerConstructed>;
  explicit ChoiceCodec(std::vector<Alternative> alts) : alternatives(std::move(alts)) {}
  void write(const Value& v, net::ByteOutput& io, bool legacy, const Site& site) const {
    if (v == nullptr) null_during_write(site);
    v->write(io, legacy);
  }
  ChildSlot read(Value& v, TagCode tag, const Decoding& decoding, const Site& site) const;
  bool equal(const Value& a, const Value& b) const { return equal_values(a.get(), b.get()); }
  void copy(Value& to, const Value& from) const;
  std::vector<Alternative> alternatives;
};

// A value choice: an owned INTEGER, string (at most 65536 octets), NULL or
// REAL.
struct ValueChoiceCodec {
  using Value = std::unique_ptr<BerPrimitive>;
  void write(const Value& v, net::ByteOutput& io, bool legacy, const Site& site) const {
    if (v == nullptr) null_during_write(site);
    v->write(io, legacy);
  }
  ChildSlot read(Value& v, TagCode tag, const Decoding& decoding, const Site& site) const;
  bool equal(const Value& a, const Value& b) const { return equal_values(a.get(), b.get()); }
  void copy(Value& to, const Value& from) const;
};

// One field of a sequence class M.
template <class M>
class FieldOps {
 public:
  explicit FieldOps(const char* name) : name_(name) {}
  virtual ~FieldOps() = default;
  virtual void write(const M& m, net::ByteOutput& io, bool legacy, const char* owner) const = 0;
  virtual ChildSlot read(M& m, TagCode tag, const Decoding& decoding, const char* owner) const = 0;
  virtual bool equal(const M& a, const M& b) const = 0;
  virtual void copy(M& to, const M& from) const = 0;

 protected:
  const char* name_;
};

template <class M>
using Field = std::unique_ptr<const FieldOps<M>>;

template <class M, class C>
class MemberField : public FieldOps<M> {
 public:
  MemberField(const char* name, typename C::Value M::*member, C codec)
      : FieldOps<M>(name), member_(member), codec_(std::move(codec)) {}
  void write(const M& m, net::ByteOutput& io, bool legacy, const char* owner) const override {
    codec_.write(m.*member_, io, legacy, Site{owner, this->name_});
  }
  ChildSlot read(M& m, TagCode tag, const Decoding& decoding, const char* owner) const override {
    return codec_.read(m.*member_, tag, decoding, Site{owner, this->name_});
  }
  bool equal(const M& a, const M& b) const override { return codec_.equal(a.*member_, b.*member_); }
  void copy(M& to, const M& from) const override { codec_.copy(to.*member_, from.*member_); }

 protected:
  typename C::Value M::*member_;
  C codec_;
};

// ---- Objects inside objects ----
//
// A class M whose list of L holds objects of class M again marks each of them
// as nested (a bool member of M, not on the wire); another list of M can then
// be dropped by the nested ones (Decoding::nestedProperties). The adapters
// are the list classes themselves, so failure texts name them as ever.

// Sets the flag `Nested` of an element that a list appends.
template <auto Nested, class T>
void mark_nested(std::unique_ptr<T>& element) {
  (*element).*Nested = true;
}

// The list of L in M whose elements are objects of class M, marked `Nested`.
template <class M, class L, bool M::*Nested>
class NestingListField final : public MemberField<M, ListCodec<L>> {
 public:
  NestingListField(const char* name, typename L::Items M::*member)
      : MemberField<M, ListCodec<L>>(name, member, ListCodec<L>()) {}
  ChildSlot read(M& m, TagCode tag, const Decoding& decoding, const char*) const override {
    ListCodec<L>::check_tag(tag, decoding);
    return ChildSlot::owned_by_reader(
        std::make_unique<L>(m.*this->member_, &mark_nested<Nested, M>));
  }
};

// A list of L in M that an M marked `Nested` drops when the reader keeps no
// nested properties.
template <class M, class L, bool M::*Nested>
class DroppableListField final : public MemberField<M, ListCodec<L>> {
 public:
  DroppableListField(const char* name, typename L::Items M::*member)
      : MemberField<M, ListCodec<L>>(name, member, ListCodec<L>()) {}
  ChildSlot read(M& m, TagCode tag, const Decoding& decoding, const char* owner) const override {
    if (!(m.*Nested) || decoding.nestedProperties) {
      return MemberField<M, ListCodec<L>>::read(m, tag, decoding, owner);
    }
    ListCodec<L>::check_tag(tag, decoding);
    return ChildSlot::owned_by_reader(std::make_unique<L>(typename L::DropElements{}));
  }
};

// A nullable integer: INTEGER when `present`, else NULL.
template <class M, class T>
class NullableField final : public FieldOps<M> {
 public:
  NullableField(const char* name, bool M::*present, T M::*value)
      : FieldOps<M>(name), present_(present), value_(value) {}
  void write(const M& m, net::ByteOutput& io, bool, const char*) const override {
    if (m.*present_) {
      BerIntegerTemplate<T>::encode(io, m.*value_, kMin, kMax, BE_INTEGER);
    } else {
      BerNull::encode(io, BE_NULL);
    }
  }
  ChildSlot read(M& m, TagCode tag, const Decoding&, const char*) const override {
    if (tag == BE_NULL) {
      m.*present_ = false;
      m.*value_ = T();
      return ChildSlot::owned_by_reader(std::make_unique<BerNull>(BE_NULL, false));
    }
    if (tag != BE_INTEGER) throw_tag_mismatch(tag, "BE_INTEGER");
    m.*present_ = true;
    return ChildSlot::owned_by_reader(
        std::make_unique<BerIntegerTemplate<T>>(m.*value_, kMin, kMax, BE_INTEGER));
  }
  bool equal(const M& a, const M& b) const override {
    return a.*present_ == b.*present_ && (!(a.*present_) || a.*value_ == b.*value_);
  }
  void copy(M& to, const M& from) const override {
    to.*present_ = from.*present_;
    to.*value_ = from.*value_;
  }

 private:
  static constexpr T kMin = std::numeric_limits<T>::min();
  static constexpr T kMax = std::numeric_limits<T>::max();
  bool M::*present_;
  T M::*value_;
};

// ---- Field builders used in the tables ----

template <class M, class C>
Field<M> member(const char* name, typename C::Value M::*m, C codec) {
  return std::make_unique<MemberField<M, C>>(name, m, std::move(codec));
}

template <class M>
Field<M> text(const char* name, std::string M::*m, size_t maxLength) {
  return member(name, m, StringCodec(maxLength));
}

constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();

template <class M>
Field<M> int32(const char* name, int32_t M::*m, int32_t min = kIntMin, int32_t max = kIntMax) {
  return member(name, m, IntegerCodec<int32_t>(min, max));
}
template <class M>
Field<M> uint32(const char* name, uint32_t M::*m) {
  return member(name, m, IntegerCodec<uint32_t>(0, std::numeric_limits<uint32_t>::max()));
}
template <class M>
Field<M> int64(const char* name, int64_t M::*m) {
  return member(name, m,
                IntegerCodec<int64_t>(std::numeric_limits<int64_t>::min(),
                                      std::numeric_limits<int64_t>::max()));
}
template <class M>
Field<M> uint64(const char* name, uint64_t M::*m) {
  return member(name, m, IntegerCodec<uint64_t>(0, std::numeric_limits<uint64_t>::max()));
}
template <class M>
Field<M> boolean(const char* name, bool M::*m) {
  return member(name, m, BooleanCodec());
}
template <class M>
Field<M> real(const char* name, double M::*m) {
  return member(name, m, RealCodec());
}
template <class M>
Field<M> bignum(const char* name, util::BigNum M::*m) {
  return member(name, m, BigNumCodec());
}
template <class E, class M>
Field<M> enumerated(const char* name, int32_t M::*m) {
  return member(name, m, EnumCodec<E>());
}
template <class L, class M>
Field<M> list(const char* name, typename L::Items M::*m) {
  return member(name, m, ListCodec<L>());
}
template <class L, auto Nested, class M>
Field<M> nesting_list(const char* name, typename L::Items M::*m) {
  return std::make_unique<NestingListField<M, L, Nested>>(name, m);
}
template <class L, auto Nested, class M>
Field<M> droppable_list(const char* name, typename L::Items M::*m) {
  return std::make_unique<DroppableListField<M, L, Nested>>(name, m);
}
template <class M, class T>
Field<M> pointer(const char* name, std::unique_ptr<T> M::*m) {
  return member(name, m, PointerCodec<T>());
}
template <class... Alts, class M>
Field<M> choice(const char* name, std::unique_ptr<BerConstructed> M::*m) {
  return member(name, m, ChoiceCodec({Alternative{&Alts::staticTag, &make_alternative<Alts>}...}));
}
template <class M>
Field<M> value(const char* name, std::unique_ptr<BerPrimitive> M::*m) {
  return member(name, m, ValueChoiceCodec());
}
template <class M, class T>
Field<M> nullable(const char* name, bool M::*present, T M::*m) {
  return std::make_unique<NullableField<M, T>>(name, present, m);
}

// Tags of a sequence class in the current and the legacy encoding.
struct TagPair {
  TagCode current;
  TagCode legacy;
};
constexpr TagPair kSequence{BE_SEQ_CURRENT, BE_SEQ_LEGACY};
// Alternative n of a choice.
constexpr TagPair alternative(uint32_t n) { return {choice_tag(n, false), choice_tag(n, true)}; }
// A top-level message: one fixed application tag in both encodings.
constexpr TagPair application(TagCode code) { return {code, code}; }

}  // namespace fields

template <class Self>
class Schema {
 public:
  template <class... F>
  Schema(const char* className, fields::TagPair tagPair, uint32_t required, F... fields)
      : name(className), tags(tagPair), requiredFields(required) {
    (this->fields.push_back(std::move(fields)), ...);
  }

  const char* name;
  fields::TagPair tags;
  uint32_t requiredFields;
  std::vector<fields::Field<Self>> fields;
};

// ---- Generic sequence code ----

// The table of a class is found by argument-dependent lookup of
// describe(const Self*), which TALVIX_MESSAGE_CLASS defines right before it
// instantiates the class's generic code.
template <class Self>
const Schema<Self>& Message<Self>::schema() {
  return describe(static_cast<const Self*>(nullptr));
}

template <class Self>
std::unique_ptr<Self> Message<Self>::copy() const {
  auto result = std::make_unique<Self>();
  for (const auto& f : schema().fields) f->copy(*result, self());
  return result;
}

template <class Self>
std::unique_ptr<BerValue> Message<Self>::clone() const {
  return copy();
}

template <class Self>
bool Message<Self>::operator==(const BerValue& other) const {
  const Self* o = dynamic_cast<const Self*>(&other);
  if (o == nullptr) return false;
  for (const auto& f : schema().fields) {
    if (!f->equal(self(), *o)) return false;
  }
  return true;
}

template <class Self>
void Message<Self>::write(net::ByteOutput& stream, bool legacy) const {
  const Schema<Self>& s = schema();
  write_tag(stream, staticTag(legacy));
  write_indefinite(stream);
  for (const auto& f : s.fields) f->write(self(), stream, legacy, s.name);
  write_end_of_contents(stream);
}

template <class Self>
ChildSlot Message<Self>::newChild(uint32_t index, TagCode tag, const Decoding& decoding) {
  const Schema<Self>& s = schema();
  if (index >= s.fields.size()) return ChildSlot::owned_by_reader(makeSkipper(tag));
  return s.fields[index]->read(self(), tag, decoding, s.name);
}

template <class Self>
uint32_t Message<Self>::requiredFields() const {
  return schema().requiredFields;
}

template <class Self>
TagCode Message<Self>::staticTag(bool legacy) {
  return legacy ? schema().tags.legacy : schema().tags.current;
}

template <class Self>
const char* Message<Self>::typeName() {
  return schema().name;
}

// ---- Generic list code ----

// What a list class is made of; specialised by TALVIX_LIST_CLASS.
template <class L>
struct ListSpec;

template <class Self, class Element>
std::unique_ptr<BerValue> ListAdapter<Self, Element>::clone() const {
  throw EBer("Copy constructor of " + std::string(typeName()) + " invoked");
}

template <class Self, class Element>
bool ListAdapter<Self, Element>::operator==(const BerValue& other) const {
  const Self* o = dynamic_cast<const Self*>(&other);
  return o != nullptr && equalItems(*items_, *o->items_);
}

template <class Self, class Element>
void ListAdapter<Self, Element>::write(net::ByteOutput& stream, bool legacy) const {
  const auto& codec = ListSpec<Self>::codec();
  const fields::Site site{typeName(), nullptr};
  write_tag(stream, staticTag(legacy));
  write_indefinite(stream);
  for (const Element& item : *items_) codec.write(item, stream, legacy, site);
  write_end_of_contents(stream);
}

template <class Self, class Element>
ListAdapter<Self, Element>::~ListAdapter() = default;

template <class Self, class Element>
ChildSlot ListAdapter<Self, Element>::newChild(uint32_t, TagCode tag, const Decoding& decoding) {
  const auto& codec = ListSpec<Self>::codec();
  // The element is appended before its tag is checked. A bound primitive
  // receiver refers into the vector; the reader finishes each child before
  // asking for the next, so no later append moves it while it is in use.
  if (items_ == &dropped_) items_->clear();
  items_->push_back(codec.fresh());
  if (onAppend_ != nullptr) onAppend_(items_->back());
  return codec.read(items_->back(), tag, decoding, fields::Site{typeName(), nullptr});
}

template <class Self, class Element>
TagCode ListAdapter<Self, Element>::staticTag(bool legacy) {
  return ListSpec<Self>::kIsSet ? set_tag(legacy) : seq_tag(legacy);
}

template <class Self, class Element>
const char* ListAdapter<Self, Element>::typeName() {
  return ListSpec<Self>::kName;
}

template <class Self, class Element>
bool ListAdapter<Self, Element>::equalItems(const Items& a, const Items& b) {
  if (a.size() != b.size()) return false;
  const auto& codec = ListSpec<Self>::codec();
  for (size_t i = 0; i < a.size(); ++i) {
    if (!codec.equal(a[i], b[i])) return false;
  }
  return true;
}

template <class Self, class Element>
void ListAdapter<Self, Element>::copyItems(Items& to, const Items& from) {
  const auto& codec = ListSpec<Self>::codec();
  to.clear();
  to.reserve(from.size());
  for (const Element& item : from) {
    to.push_back(Element());
    codec.copy(to.back(), item);
  }
}

}  // namespace protocol

// Describes sequence class Self (in namespace protocol): its tags (a
// fields::TagPair), its required field count and its fields in wire order.
#define TALVIX_MESSAGE_CLASS(Self, tagPair, required, ...)                           \
  const Schema<Self>& describe(const Self*) {                                        \
    static const Schema<Self> table(#Self, tagPair, required __VA_OPT__(, ) __VA_ARGS__); \
    return table;                                                                    \
  }                                                                                  \
  template class Message<Self>;

// Describes list class Self (in namespace protocol): set or list, and the
// codec of its elements.
#define TALVIX_LIST_CLASS(Self, isSet, elementCodec)               \
  template <>                                                      \
  struct ListSpec<Self> {                                          \
    static constexpr const char* kName = #Self;                    \
    static constexpr bool kIsSet = isSet;                          \
    static const auto& codec() {                                   \
      static const auto c = elementCodec;                          \
      return c;                                                    \
    }                                                              \
  };                                                               \
  template class ListAdapter<Self, Self::Items::value_type>;

#endif  // TALVIX_PROTOCOL_MESSAGE_SCHEMA_H_
