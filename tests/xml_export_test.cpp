// The XML writer on its own, for what a whole export cannot reach: values and
// record classes the server never sends, and the writer's failure texts. The
// rendering of every property type, history datatype, header and indentation
// is pinned by the hand-written documents of e2e_test.
#include "support/error_text.h"
#include "porter/xml_export.h"

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <type_traits>

#include "porter/out_stream.h"
#include "protocol/messages_data.h"
#include "protocol/property_codec.h"
#include "util/error.h"

namespace {

using porter::XMLExport;

TEST(XMLEscapeTest, ControlAndHighOctetsBecomeReferencesPunctuationStays) {
  const std::pair<std::string, std::string> cases[] = {
      {"!~/=;#'", "!~/=;#'"}, {std::string("a\0\x01\xFF&&", 6), "a&#0;&#1;&#255;&#38;&#38;"}};
  for (const auto& [value, expected] : cases) {
    std::string out;
    XMLExport::escape(value, out);
    EXPECT_EQ(out, expected) << value;
  }
}

// Properties the stand-in server does not send, and the writer's failures.
TEST(XMLExportTest, WritesTheLineOrFailsWithItsMessage) {
  const struct {
    uint32_t type;
    const char* name;
    const char* line;  // "" when it fails
    const char* failure;
  } cases[] = {
      {10, "p", "<Property type=\"Index\" name=\"p\" value=\"7\"/>\n", "(no error)"},
      {0xBFFFF, "p",
       "<Property type=\"Const Computed Enumeration(65535)\" name=\"p\" value=\"7\"/>\n",
       "(no error)"},
      {0x10001, "", "", "Property resolved empty name"},
      {0xA0010, "p", "", "Unknown property 655376 : Const Computed  = "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    std::ostringstream doc;
    porter::CPPOutStream out(doc);
    XMLExport writer(out, std::cerr);
    protocol::Property p;  // type 16 has no encoding: its type word alone is refused
    if ((c.type & 0xFFFF) != 16) protocol::encode_property(p, c.name, c.type, 7u);
    p.name = c.name;
    p.type = c.type;
    EXPECT_EQ(support::errorText<util::Exception>([&] { EXPECT_TRUE(writer.writeProperty(p)); }),
              c.failure);
    out.flush();
    EXPECT_EQ(doc.str(), c.line);
  }
  porter::CPPOutStream out(std::cout);
  XMLExport::Rows noRows;
  XMLExport writer(out, std::cerr);
  EXPECT_EQ(support::errorText<util::Exception>([&] { writer.writeData(7, noRows); }),
            "Got unknown datatype for rows [7]");
}

template <class Record>
XMLExport::Rows oneRow() {
  XMLExport::Rows rows;
  rows.push_back(std::make_unique<protocol::DataInterval>());
  if constexpr (!std::is_same_v<Record, void>) rows.back()->data = std::make_unique<Record>();
  return rows;
}

TEST(XMLExportDeathTest, ARecordOfAnotherClassEndsTheProcess) {
  porter::CPPOutStream out(std::cout);
  XMLExport e(out, std::cerr);
  EXPECT_DEATH(e.writeData(5, oneRow<protocol::DataIntervalSawtooth>()),
               "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(4, oneRow<void>()), "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(2, oneRow<protocol::DataIntervalContinuous>()),
               "Assertion failed: checked_cast failed");
}

}  // namespace
