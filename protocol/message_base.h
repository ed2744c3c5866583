// The two shapes every message class of the protocol takes.
//
// Message<Self> is the base of a sequence class (a top-level message, a
// choice alternative or a plain nested sequence). The derived class holds
// nothing but public data members; how they travel (order, kind, length and
// range limits, tags) is declared once per class in a field table next to
// its implementation, and the generic code of this base walks that table to
// write, to hand out the receivers of arriving children (newChild), to
// compare for equality and to deep-copy.
//
// ListAdapter<Self, Element> is the base of the ListOf/SetOf classes: a
// transient adapter bound to a std::vector member of the enclosing message.
// It is made for one write or one read and never copied (clone() throws).
//
// Ownership: a message owns its pointer fields, choice alternatives, value
// choices and list elements. A list adapter owns nothing but the element it
// is reading when it drops its elements; the vector it is bound to must
// outlive it.
#ifndef TALVIX_PROTOCOL_MESSAGE_BASE_H_
#define TALVIX_PROTOCOL_MESSAGE_BASE_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "protocol/ber_value.h"
#include "util/error.h"

namespace protocol {

// The field table of a sequence class; only the implementation files see its
// definition.
template <class Self>
class Schema;

template <class Self>
class Message : public BerConstructed {
 public:
  // A deep copy: pointer fields, choices and list elements are cloned.
  std::unique_ptr<BerValue> clone() const override;
  std::unique_ptr<Self> copy() const;

  TagCode tag(bool legacy) const override { return staticTag(legacy); }
  // Field by field, in declaration order; false for a value of another class.
  bool operator==(const BerValue& other) const override;
  // Tag, 80, every field, 00 00. A missing required pointer field or a null
  // list element ends the process through assert_failed; a range or length
  // failure throws EBer (the stream may then hold a partial message).
  void write(net::ByteOutput& stream, bool legacy) const override;
  // Children beyond the declared fields are skipped; a child whose tag does
  // not fit its field throws EBer.
  ChildSlot newChild(uint32_t index, TagCode tag, const Decoding& decoding) override;
  uint32_t requiredFields() const override;

  // The class's tag in the given encoding and its name ("SelectReq").
  static TagCode staticTag(bool legacy);
  static const char* typeName();

 protected:
  Message() = default;

 private:
  static const Schema<Self>& schema();
  const Self& self() const { return static_cast<const Self&>(*this); }
  Self& self() { return static_cast<Self&>(*this); }
};

template <class Self, class Element>
class ListAdapter : public BerConstructed {
 public:
  using Items = std::vector<Element>;

  // Bound to `items`, which must outlive the adapter. `onAppend`, when set,
  // is applied to every element that reading appends, before it is read.
  explicit ListAdapter(Items& items, void (*onAppend)(Element&) = nullptr)
      : items_(&items), onAppend_(onAppend) {}
  // For reading only: bound to a vector of its own that keeps just the
  // element being read. Each element is checked as in a kept list and freed
  // when the next one starts; the last one goes with the adapter.
  struct DropElements {};
  explicit ListAdapter(DropElements) : items_(&dropped_) {}
  // Out of line: the element type is complete only where the list class is
  // instantiated.
  ~ListAdapter() override;
  ListAdapter(const ListAdapter&) = delete;
  ListAdapter& operator=(const ListAdapter&) = delete;

  // Throws EBer "Copy constructor of <class> invoked".
  std::unique_ptr<BerValue> clone() const override;
  TagCode tag(bool legacy) const override { return staticTag(legacy); }
  bool operator==(const BerValue& other) const override;
  void write(net::ByteOutput& stream, bool legacy) const override;
  // Appends a new element, then checks the tag against the element type.
  ChildSlot newChild(uint32_t index, TagCode tag, const Decoding& decoding) override;
  uint32_t requiredFields() const override { return 0; }

  static TagCode staticTag(bool legacy);
  static const char* typeName();
  // Element-wise operations on the bound member, used by the enclosing
  // message's comparison and copy.
  static bool equalItems(const Items& a, const Items& b);
  static void copyItems(Items& to, const Items& from);

 private:
  Items* items_;
  void (*onAppend_)(Element&) = nullptr;
  Items dropped_;  // bound when the adapter drops its elements
};

// The value of a nullable integer field; taking the value of an absent one
// is a programming error (assert_failed "Value of null taken").
template <class T>
T nullable_value(bool present, T value) {
  if (!present) util::assert_failed("Value of null taken");
  return value;
}

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_MESSAGE_BASE_H_
