// The exporter interface: what the export driver and the object walk ask of
// the writer of the export document. An exporter is one element (its kind and
// attributes) plus the operations that write it; create() makes the
// exporters of further elements from a prototype.
#ifndef TALVIX_PORTER_EXPORT_BASE_H_
#define TALVIX_PORTER_EXPORT_BASE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace protocol {
class DataInterval;
class Property;
}  // namespace protocol
namespace client {
class ResultObject;
}

namespace porter {

class OutStream;

// The element an exporter writes; the value indexes the element name table.
enum class ElementKind : int32_t {
  Property = 0,
  Object = 1,
  Meta = 2,
  Unknown = 3,
  Data = 4,
};

// Attribute ids. Attributes are written in ascending id order, whatever the
// order in which they were set.
enum class Attrib : int32_t {
  Id = 0,
  Type = 1,
  Datatype = 2,
  Name = 3,
  Value = 4,
  Version = 5,
  Exporter = 6,
  Start = 7,
  End = 8,
  Max = 9,
  Avg = 10,
  Min = 11,
  NGood = 12,
  NBad = 13,
  Time = 14,
  Severity = 15,
  Message = 16,
  Description = 17,
  Timestamp = 18,
  Mask = 19,
};

// The data of one element to be written.
class PortBase {
 public:
  PortBase() = default;
  explicit PortBase(ElementKind kind) : kind(kind) {}
  virtual ~PortBase() = default;

  void setAttribute(Attrib id, std::string value) {
    attributes[static_cast<int32_t>(id)] = std::move(value);
  }

  // Attribute id -> unescaped value text, iterated in ascending id order.
  std::map<int32_t, std::string> attributes;
  ElementKind kind = ElementKind::Unknown;
};

// An abstract exporter. The operations that write take the document's
// stream, which must outlive the call; failures are thrown and leave what was
// written so far in the stream.
class ExportBase : public virtual PortBase {
 public:
  using Rows = std::vector<std::unique_ptr<protocol::DataInterval>>;

  // A new exporter of the same family with no attributes and the given kind;
  // the caller owns it.
  virtual std::unique_ptr<ExportBase> create(ElementKind kind) const = 0;
  // Fills the attributes from one property: 0 when the element is to be
  // written, 1 when the property is to be left out.
  virtual int addProperty(const protocol::Property& property) = 0;
  // The start tag; the elements written until close() nest inside it.
  virtual void open(OutStream& stream) = 0;
  // The end tag matching the last open().
  virtual void close(OutStream& stream) = 0;
  // The element as an empty element tag.
  virtual void writeLeaf(OutStream& stream) = 0;
  // One element per valid row of a history series of the given datatype.
  virtual void writeData(OutStream& stream, int32_t datatype, const Rows& rows) = 0;
  // What precedes the export root's element; `object` (the export root, may
  // be null) is for exporters that describe it.
  virtual void writeHeader(OutStream& stream, const client::ResultObject* object) = 0;
  // What follows the export root's element.
  virtual void writeFooter(OutStream& stream, const client::ResultObject* object) = 0;
};

}  // namespace porter

#endif  // TALVIX_PORTER_EXPORT_BASE_H_
