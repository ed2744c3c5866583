// A one-pass reader of the export document that accepts exactly what the
// exporter writes: the XML declaration, the Meta element, no Object element
// or one export-root Object element whose end tag ends the document, and
// inside Object elements their Property elements, then their history series
// (Object elements with a datatype, holding Data rows), then their child
// Object elements; attributes in the exporter's order, two blanks of
// indentation per level, a line feed after every line, attribute values
// escaped as the exporter escapes them and property values and row fields in
// the exporter's renderings. Anything else is a Fault at its first byte.
//
// Memory: the longest line and one entry per open Object element.
#ifndef TALVIX_AUDIT_DOCUMENT_READER_H_
#define TALVIX_AUDIT_DOCUMENT_READER_H_

#include <cstdint>
#include <string_view>

namespace audit {

class DocumentInput;

// What the reader found, in document order. Texts are as written (escaped)
// and stay valid during the call only.
class DocumentEvents {
 public:
  virtual ~DocumentEvents() = default;
  virtual void meta(std::string_view /*timestamp*/) {}
  virtual void open_object(std::string_view /*id*/, std::string_view /*type*/) {}
  virtual void open_series(std::string_view /*id*/, std::string_view /*datatype*/) {}
  virtual void property(std::string_view /*type*/, std::string_view /*name*/,
                        std::string_view /*value*/) {}
  // One Data row: its text after the indentation, its first time (start or
  // time) and its last (end or time).
  virtual void row(std::string_view /*text*/, std::string_view /*first*/,
                   std::string_view /*last*/) {}
  // The end tag of an object or a series.
  virtual void close_object() {}
};

struct DocumentSummary {
  uint64_t lines = 0;
  uint64_t bytes = 0;  // of the document text
};

// A line (without its line feed) of this many bytes or more is a Fault.
constexpr uint64_t kMaxLineBytes = uint64_t{64} << 20;

// Reads the whole document of `input`, calling `events`. Throws Fault at the
// first fault of the document or its container, Trouble when the input
// cannot be read, and what `events` throws.
DocumentSummary read_document(DocumentInput& input, DocumentEvents& events);

}  // namespace audit

#endif  // TALVIX_AUDIT_DOCUMENT_READER_H_
