// The XML writer on its own, for what a whole export cannot reach: values and
// record classes the server never sends, and the writer's failure texts. The
// rendering of every property type, history datatype, header and indentation
// is pinned by the hand-written documents of e2e_test.
#include "support/error_text.h"
#include "porter/xml_export.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
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

class XMLExportTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(XMLExport::depth(), 0) << "unbalanced open/close"; }

  std::ostringstream doc_;
  porter::CPPOutStream stream_{doc_};
  XMLExport prototype_{porter::ElementKind::Object};
};

TEST(XMLEscapeTest, ControlAndHighOctetsBecomeReferencesPunctuationStays) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""}, {"!~/=;#'", "!~/=;#'"}, {std::string("a\0\x01\xFF&&", 6), "a&#0;&#1;&#255;&#38;&#38;"}};
  for (const auto& [value, expected] : cases) {
    std::string out;
    XMLExport::escape(value, out);
    EXPECT_EQ(out, expected) << value;
  }
}

// Values the stand-in server cannot send or the documents do not show.
TEST(XMLPropertyTest, RendersEdgeValues) {
  const struct { Make make; const char *type, *value; } cases[] = {
      {raw<protocol::RealProp>(4, std::nan("")), "Real", "nan"},
      {encoded(10, 7u), "Index", "7"},
      {raw<protocol::UnsignedIntListProp>(14, std::vector<uint32_t>{}), "GidList", ""},
      {encoded(0xBFFFF, 0u), "Const Computed Enumeration(65535)", "0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    std::ostringstream err;
    XMLExport e(porter::ElementKind::Property, err);
    PropertyPtr p = c.make();
    ASSERT_EQ(e.addProperty(*p), 0);
    const std::map<int32_t, std::string> expected = {{1, c.type}, {3, p->name}, {4, c.value}};
    EXPECT_EQ(e.attributes, expected);
    EXPECT_EQ(err.str(), "");
  }
}

TEST(XMLPropertyTest, UnrenderablePropertiesFailWithTheirMessage) {
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
  };
  for (const auto& [make, message] : cases) {
    SCOPED_TRACE(message);
    XMLExport e(porter::ElementKind::Property);
    PropertyPtr p = make();
    EXPECT_EQ(peer::errorText<util::Exception>([&] { e.addProperty(*p); }), message);
    EXPECT_TRUE(e.attributes.empty());
  }
}

TEST_F(XMLExportTest, KindsWithoutDocumentUseKeepTheirNamesAndAttributeOrder) {
  for (const auto& [kind, name] : {std::pair{porter::ElementKind::Unknown, "Unknown"},
                                   std::pair{porter::ElementKind::Data, "Data"}}) {
    doc_.str("");
    auto e = prototype_.create(kind);
    e->setAttribute(porter::Attrib::Mask, "m");
    e->setAttribute(porter::Attrib::Value, "<v>");
    e->open(stream_);
    e->close(stream_);
    EXPECT_EQ(doc_.str(),
              std::string("<") + name + " value=\"&#60;v&#62;\" mask=\"m\">\n</" + name + ">\n");
  }
}

TEST_F(XMLExportTest, MisusedElementsFailWithoutWriting) {
  auto container = prototype_.create(porter::ElementKind::Meta);
  EXPECT_EQ(peer::errorText<util::Exception>([&] { container->writeLeaf(stream_); }),
            "Cannot stream a container portnode. got 2");
  auto unknownAttribute = prototype_.create(porter::ElementKind::Object);
  unknownAttribute->attributes[20] = "x";
  EXPECT_EQ(peer::errorText<util::Exception>([&] { unknownAttribute->open(stream_); }),
            "Got unknown attrib type in attrib2str: 20");
  EXPECT_EQ(XMLExport::depth(), 0);
  XMLExport::Rows noRows;
  EXPECT_EQ(peer::errorText<util::Exception>([&] { prototype_.writeData(stream_, 7, noRows); }),
            "Got unknown datatype for rows [7]");
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

TEST_F(XMLExportTest, RowOfNotANumberAndTheLargestCount) {
  XMLExport::Rows rows;
  rows.push_back(measure<protocol::DataIntervalContinuous>(std::nan(""), 4294967295u));
  prototype_.writeData(stream_, 5, rows);
  EXPECT_EQ(doc_.str(),
            "<Data start=\"1970-01-01-T00:00:00\" end=\"1970-01-01-T00:00:01\" max=\"nan\" "
            "avg=\"nan\" min=\"nan\" ngood=\"4294967295\" nbad=\"0\"/>\n");
}

TEST(XMLExportDeathTest, ARecordOfAnotherClassEndsTheProcess) {
  std::ostringstream doc;
  porter::CPPOutStream stream(doc);
  XMLExport e(porter::ElementKind::Object);
  auto one = [](std::unique_ptr<protocol::DataInterval> row) {
    XMLExport::Rows rows;
    rows.push_back(std::move(row));
    return rows;
  };
  EXPECT_DEATH(e.writeData(stream, 5, one(measure<protocol::DataIntervalSawtooth>(0, 0))),
               "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(stream, 4, one(std::make_unique<protocol::DataInterval>())),
               "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(stream, 2, one(measure<protocol::DataIntervalContinuous>(0, 0))),
               "Assertion failed: checked_cast failed");
}

}  // namespace
