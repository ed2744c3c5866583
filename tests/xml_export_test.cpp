// The XML writer on its own, for what a whole export cannot reach: values and
// record classes the server never sends, and the writer's failure texts. The
// rendering of every property type, history datatype, header and indentation
// is pinned by the hand-written documents of e2e_test.
#include "support/error_text.h"
#include "porter/xml_export.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iostream>
#include <sstream>

#include "porter/out_stream.h"
#include "protocol/messages_data.h"
#include "protocol/property_codec.h"
#include "protocol/property_values.h"
#include "util/error.h"

namespace {

using porter::XMLExport;
using PropertyPtr = std::unique_ptr<protocol::Property>;

using Make = std::function<PropertyPtr()>;

// A property whose value is of `ValueClass` whatever its type says.
template <class ValueClass, class T>
Make raw(uint32_t type, T value) {
  return [=] {
    auto p = std::make_unique<protocol::Property>();
    p->name = "p";
    p->type = type;
    auto data = std::make_unique<ValueClass>();
    data->value = value;
    p->data = std::move(data);
    return p;
  };
}

// A property encoded as the server encodes one of `type`.
template <class T>
Make encoded(uint32_t type, T value, std::string name = "p") {
  return [=] {
    auto p = std::make_unique<protocol::Property>();
    protocol::encode_property(*p, name, type, value);
    return p;
  };
}

// The document as the writer hands it over, text by text.
class TextSink : public porter::OutStream {
 public:
  TextSink& write(const std::string& text) override {
    text_ += text;
    return *this;
  }
  const std::string& str() const { return text_; }
  void str(const std::string& text) { text_ = text; }

 private:
  std::string text_;
};

class XMLExportTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(writer_.depth(), 0) << "unbalanced open/close"; }

  TextSink doc_;
  std::ostringstream err_;
  XMLExport writer_{doc_, err_};
};

TEST(XMLEscapeTest, ControlAndHighOctetsBecomeReferencesPunctuationStays) {
  const std::pair<std::string, std::string> cases[] = {
      {"!~/=;#'", "!~/=;#'"}, {std::string("a\0\x01\xFF&&", 6), "a&#0;&#1;&#255;&#38;&#38;"}};
  for (const auto& [value, expected] : cases) {
    std::string out;
    XMLExport::escape(value, out);
    EXPECT_EQ(out, expected) << value;
  }
}

// Values the stand-in server cannot send or the documents do not show.
TEST_F(XMLExportTest, RendersEdgeValues) {
  const struct { Make make; const char* line; } cases[] = {
      {raw<protocol::RealProp>(4, std::nan("")), "<Property type=\"Real\" name=\"p\" value=\"nan\"/>\n"},
      {encoded(10, 7u), "<Property type=\"Index\" name=\"p\" value=\"7\"/>\n"},
      {raw<protocol::UnsignedIntListProp>(14, std::vector<uint32_t>{}),
       "<Property type=\"GidList\" name=\"p\" value=\"\"/>\n"},
      {encoded(0xBFFFF, 0u, "<&>"),
       "<Property type=\"Const Computed Enumeration(65535)\" name=\"&#60;&#38;&#62;\" value=\"0\"/>\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    doc_.str("");
    EXPECT_TRUE(writer_.writeProperty(*c.make()));
    EXPECT_EQ(doc_.str(), c.line);
  }
  EXPECT_EQ(err_.str(), "");
}

TEST_F(XMLExportTest, UnrenderablePropertiesFailWithTheirMessageOrAreLeftOut) {
  const std::pair<Make, const char*> cases[] = {
      {raw<protocol::StringProp>(0, std::string("x")), "Unknown property 0 :  = "},
      {raw<protocol::StringProp>(0xA0010, std::string("x")),
       "Unknown property 655376 : Const Computed  = "},
      {encoded(6, "x", ""), "Property resolved empty name"},
      {encoded(0x10001, 1u, ""), "Property resolved empty name"},
      {[] {
         auto p = std::make_unique<protocol::Property>();
         protocol::encode_property(*p, "count", 3);
         return p;
       },
       "Null given for integer property: count"},
      {raw<protocol::StringProp>(0x80009, std::string("x")), ""},  // type 9: left out
  };
  for (const auto& [make, message] : cases) {
    SCOPED_TRACE(message);
    PropertyPtr p = make();
    if (*message == '\0') {
      EXPECT_FALSE(writer_.writeProperty(*p));
    } else {
      EXPECT_EQ(support::errorText<util::Exception>([&] { writer_.writeProperty(*p); }), message);
    }
  }
  EXPECT_EQ(doc_.str(), "");
}

template <class Record>
std::unique_ptr<protocol::DataInterval> measure(double value, uint32_t ngood) {
  auto r = std::make_unique<Record>();
  r->start = 0;
  r->end = 1;
  r->max = r->avg = r->min = value;
  r->ngood = ngood;
  r->nbad = 0;
  auto row = std::make_unique<protocol::DataInterval>();
  row->data = std::move(r);
  return row;
}

// Nesting is each writer's own; an unknown datatype writes nothing; a row of
// not-a-number with the largest count.
TEST_F(XMLExportTest, NestingUnknownDatatypeAndEdgeRow) {
  XMLExport other(doc_, err_);
  writer_.openObject("Node", "n<1>");
  writer_.openSeries("load", "continuous");
  other.openObject("Domain", "d");
  EXPECT_EQ(other.depth(), 1);
  other.closeObject();
  writer_.closeObject();
  writer_.closeObject();
  EXPECT_EQ(doc_.str(),
            "<Object id=\"n&#60;1&#62;\" type=\"Node\">\n"
            "  <Object id=\"load\" type=\"Data\" datatype=\"continuous\">\n"
            "<Object id=\"d\" type=\"Domain\">\n"
            "</Object>\n"
            "  </Object>\n"
            "</Object>\n");
  doc_.str("");
  XMLExport::Rows noRows;
  EXPECT_EQ(support::errorText<util::Exception>([&] { writer_.writeData(7, noRows); }),
            "Got unknown datatype for rows [7]");
  EXPECT_EQ(doc_.str(), "");
  XMLExport::Rows rows;
  rows.push_back(measure<protocol::DataIntervalContinuous>(std::nan(""), 4294967295u));
  writer_.writeData(5, rows);
  EXPECT_EQ(doc_.str(),
            "<Data start=\"1970-01-01-T00:00:00\" end=\"1970-01-01-T00:00:01\" max=\"nan\" "
            "avg=\"nan\" min=\"nan\" ngood=\"4294967295\" nbad=\"0\"/>\n");
}

TEST(XMLExportDeathTest, ARecordOfAnotherClassEndsTheProcess) {
  TextSink doc;
  XMLExport e(doc, std::cerr);
  auto one = [](std::unique_ptr<protocol::DataInterval> row) {
    XMLExport::Rows rows;
    rows.push_back(std::move(row));
    return rows;
  };
  EXPECT_DEATH(e.writeData(5, one(measure<protocol::DataIntervalSawtooth>(0, 0))),
               "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(4, one(std::make_unique<protocol::DataInterval>())),
               "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(2, one(measure<protocol::DataIntervalContinuous>(0, 0))),
               "Assertion failed: checked_cast failed");
}

}  // namespace
