// The writer of the XML export document.
//
// One XMLExport writes one document into one OutStream. Every element is
// composed in memory and handed to the stream as soon as it is complete;
// nothing else of the document is kept. Elements are indented two blanks
// per level of the writer's own nesting depth, which openObject() raises and
// closeObject() lowers.
//
// Document: "<?xml version=\"1.0\"?>", a Meta element whose end tag shares
// its line with the start tag of the export root's Object element, and that
// Object element with its Property elements, its history series (Object
// elements of type "Data" holding Data elements) and its child objects.
//
// Every write may throw what the stream throws; a failure leaves what was
// written in the stream and the elements open.
#ifndef TALVIX_PORTER_XML_EXPORT_H_
#define TALVIX_PORTER_XML_EXPORT_H_

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace protocol {
class DataInterval;
class Property;
}  // namespace protocol

namespace porter {

class OutStream;
struct RunStatistics;

class XMLExport {
 public:
  using Rows = std::vector<std::unique_ptr<protocol::DataInterval>>;
  // The current time in seconds since 1970, for the Meta timestamp.
  using Clock = int64_t (*)();
  static int64_t system_clock();

  // Writes to `out`; `err` receives the notice about a negative Date
  // ("(ignoring date less than zero)"). Both must outlive the writer.
  // `clock` is read once per writeHeader(). `statistics`, when given, counts
  // the Object elements by type, the history series and the Data elements
  // written; it must outlive the writer.
  XMLExport(OutStream& out, std::ostream& err, Clock clock = system_clock,
            RunStatistics* statistics = nullptr);
  XMLExport(const XMLExport&) = delete;
  XMLExport& operator=(const XMLExport&) = delete;

  // The XML declaration and the Meta element with the current time (UTC),
  // without a line end after "</Meta>".
  void writeHeader();
  // The start tag <Object id="<id>" type="<type>">.
  void openObject(std::string_view type, std::string_view id);
  // The start tag of a history series:
  // <Object id="<indexName>" type="Data" datatype="<datatype>">.
  void openSeries(std::string_view indexName, std::string_view datatype);
  // The end tag of the innermost open Object element.
  void closeObject();

  // A Property element with the type, name and value of `property`. Returns
  // false, writing nothing, for type code 9 and for a negative Date (then
  // also notes it on the error stream). Throws util::EFatal for a type code
  // without a rendering ("Unknown property <word> : <type text> = ") and for
  // an empty name ("Property resolved empty name"); util::ETqlError when the
  // value's class does not fit the type code or the value is null.
  bool writeProperty(const protocol::Property& property);

  // Datatypes 2 sawtooth, 3 enum, 4 incidents, 5 continuous, 6 accumulation.
  // Any other throws util::EFatal "Got unknown datatype for rows [<n>]"
  // before anything is written. Rows with a negative or reversed interval
  // (incidents: a negative time) are skipped. A row whose interval record is
  // not of the datatype's class ends the process through assert_failed.
  // The depth is not changed.
  void writeData(int32_t datatype, const Rows& rows);

  // The number of Object elements open.
  int32_t depth() const { return depth_; }

  // Appends `value` to `out` escaped for an attribute value: "&" as "&#38;";
  // blank and the printable bytes 33..126 unchanged except '"', '<' and '>';
  // those and every other byte as "&#<unsigned decimal>;".
  static void escape(std::string_view value, std::string& out);

 private:
  void indent(std::string& text) const;
  // An Object start tag; the datatype attribute only when `datatype` is not
  // empty.
  void open(std::string_view id, std::string_view type, std::string_view datatype);

  OutStream& out_;
  std::ostream& err_;
  const Clock clock_;
  RunStatistics* const statistics_;
  int32_t depth_ = 0;
  // The element being composed; kept for its capacity.
  std::string scratch_;
};

}  // namespace porter

#endif  // TALVIX_PORTER_XML_EXPORT_H_
