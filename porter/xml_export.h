// The writer of the XML export document.
//
// Every element is composed in memory and handed to the OutStream as soon as
// it is complete; nothing else of the document is kept. Indentation follows
// one process-wide nesting depth that open() raises and close() lowers, two
// blanks per level, shared by all XMLExport objects.
//
// Document: "<?xml version=\"1.0\"?>", a Meta element whose end tag shares
// its line with the start tag of the export root's Object element, and that
// Object element with its Property elements, its history series (Object
// elements of type "Data" holding Data elements) and its child objects.
#ifndef TALVIX_PORTER_XML_EXPORT_H_
#define TALVIX_PORTER_XML_EXPORT_H_

#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>

#include "porter/export_base.h"

namespace porter {

class XMLExport : public ExportBase {
 public:
  // The current time in seconds since 1970, for the Meta timestamp.
  using Clock = int64_t (*)();
  static int64_t system_clock();

  // `err` receives the notice about a negative Date ("(ignoring date less
  // than zero)") and must outlive this exporter and those it creates; `clock`
  // is read once per writeHeader(). Both are passed on by create().
  explicit XMLExport(ElementKind kind, std::ostream& err = std::cerr, Clock clock = system_clock);

  std::unique_ptr<ExportBase> create(ElementKind kind) const override;

  // Sets type, name and value from the property's type word, name and value.
  // Returns 1 for type code 9 and for a negative Date (then also notes it on
  // the error stream), 0 otherwise. Throws util::EFatal for a type code
  // without a rendering ("Unknown property <word> : <type text> = ") and for
  // an empty name ("Property resolved empty name"); util::ETqlError when the
  // value's class does not fit the type code or the value is null.
  int addProperty(const protocol::Property& property) override;

  void open(OutStream& stream) override;
  void close(OutStream& stream) override;
  // Kind Property only; any other kind throws util::EFatal
  // "Cannot stream a container portnode. got <kind>".
  void writeLeaf(OutStream& stream) override;
  // Datatypes 2 sawtooth, 3 enum, 4 incidents, 5 continuous, 6 accumulation.
  // Any other throws util::EFatal "Got unknown datatype for rows [<n>]"
  // before anything is written. Rows with a negative or reversed interval
  // (incidents: a negative time) are skipped. A row whose interval record is
  // not of the datatype's class ends the process through assert_failed.
  // The depth is not changed.
  void writeData(OutStream& stream, int32_t datatype, const Rows& rows) override;
  // The XML declaration and the Meta element with the current time (UTC),
  // without a line end after "</Meta>". `object` is not read.
  void writeHeader(OutStream& stream, const client::ResultObject* object) override;
  // Writes nothing.
  void writeFooter(OutStream& stream, const client::ResultObject* object) override;

  // The name of an attribute id 0..19; any other id throws util::EFatal
  // "Got unknown attrib type in attrib2str: <id>".
  static std::string_view attrib2str(int32_t id);

  // Appends `value` to `out` escaped for an attribute value: "&" as "&#38;";
  // blank and the printable bytes 33..126 unchanged except '"', '<' and '>';
  // those and every other byte as "&#<unsigned decimal>;".
  static void escape(std::string_view value, std::string& out);

  // The current nesting depth.
  static int32_t depth();

 private:
  // Appends the indentation, "<", the element name and the attributes.
  void startTag(std::string& out) const;

  std::ostream* err_;
  Clock clock_;
};

}  // namespace porter

#endif  // TALVIX_PORTER_XML_EXPORT_H_
