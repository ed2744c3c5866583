#include "porter/xml_export.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <sstream>

#include "porter/out_stream.h"
#include "protocol/messages_data.h"
#include "protocol/property_codec.h"
#include "protocol/property_values.h"
#include "util/error.h"
#include "util/format.h"

namespace {

using porter::XMLExport;
using PropertyPtr = std::unique_ptr<protocol::Property>;

// 2008-03-01 00:00:00 UTC.
constexpr int64_t kMarch2008 = 1204329600;

int64_t march_2008_clock() { return kMarch2008; }

template <class ValueClass, class T>
PropertyPtr make_property(uint32_t type, T value, const std::string& name = "p") {
  auto p = std::make_unique<protocol::Property>();
  p->name = name;
  p->type = type;
  auto data = std::make_unique<ValueClass>();
  data->value = std::move(value);
  p->data = std::move(data);
  return p;
}

template <class T>
PropertyPtr encoded(uint32_t type, T value, const std::string& name = "p") {
  auto p = std::make_unique<protocol::Property>();
  tql::encode(*p, name, type, value);
  return p;
}

std::string escaped(const std::string& value) {
  std::string out;
  XMLExport::escape(value, out);
  return out;
}

// What an exporter writes, captured through a CPPOutStream.
class XMLExportTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(XMLExport::depth(), 0); }
  void TearDown() override { EXPECT_EQ(XMLExport::depth(), 0) << "unbalanced open/close"; }

  std::ostringstream doc_;
  porter::CPPOutStream stream_{doc_};
  std::ostringstream err_;
  XMLExport prototype_{ElementKind::Object, err_, march_2008_clock};
};

// ---- Escaping ----------------------------------------------------------------

struct EscapeCase {
  std::string value;
  const char* expected;
};
void PrintTo(const EscapeCase& c, std::ostream* os) { *os << quote_escape(c.value); }

class EscapeTest : public testing::TestWithParam<EscapeCase> {};

TEST_P(EscapeTest, Matches) { EXPECT_EQ(escaped(GetParam().value), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    Table, EscapeTest,
    testing::Values(EscapeCase{"", ""}, EscapeCase{"plain text", "plain text"},
                    EscapeCase{"a&b", "a&#38;b"}, EscapeCase{"<x>", "&#60;x&#62;"},
                    EscapeCase{"say \"hi\"", "say &#34;hi&#34;"}, EscapeCase{"it's", "it's"},
                    EscapeCase{"l1\nl2", "l1&#10;l2"},
                    EscapeCase{"\xC3\xA9t\xC3\xA9", "&#195;&#169;t&#195;&#169;"},
                    EscapeCase{"a\tb", "a&#9;b"}, EscapeCase{"\x7F\x01", "&#127;&#1;"},
                    EscapeCase{"!~/=;#", "!~/=;#"}, EscapeCase{"&&", "&#38;&#38;"},
                    EscapeCase{std::string("a\0b", 3), "a&#0;b"}, EscapeCase{"\xFF", "&#255;"}));

// ---- Attribute names ---------------------------------------------------------

TEST(Attrib2StrTest, NamesEveryIdAndRejectsTheRest) {
  const char* const names[] = {"id",       "type",     "datatype",    "name",      "value",
                               "version",  "exporter", "start",       "end",       "max",
                               "avg",      "min",      "ngood",       "nbad",      "time",
                               "severity", "message",  "description", "timestamp", "mask"};
  for (int32_t id = 0; id < 20; ++id) EXPECT_EQ(XMLExport::attrib2str(id), names[id]) << id;
  for (int32_t id : {20, 1000, -1}) {
    try {
      XMLExport::attrib2str(id);
      ADD_FAILURE() << "no exception for " << id;
    } catch (const error::EFatal& e) {
      EXPECT_EQ(e.text(), "Got unknown attrib type in attrib2str: " + int_to_string(id));
    }
  }
}

// ---- Property rendering ------------------------------------------------------

struct RenderCase {
  const char* label;
  std::function<PropertyPtr()> make;
  const char* type;
  const char* value;
};
void PrintTo(const RenderCase& c, std::ostream* os) { *os << c.label; }

class RenderTest : public testing::TestWithParam<RenderCase> {};

TEST_P(RenderTest, SetsTypeNameAndValue) {
  std::ostringstream err;
  XMLExport e(ElementKind::Property, err);
  PropertyPtr p = GetParam().make();
  ASSERT_EQ(e.addProperty(*p), 0);
  const std::map<int32_t, std::string> expected = {
      {1, GetParam().type}, {3, p->name}, {4, GetParam().value}};
  EXPECT_EQ(e.attributes, expected);
  EXPECT_EQ(err.str(), "");
}

const double kInf = std::numeric_limits<double>::infinity();

BigNum two_to_the_64() {
  const uint8_t bytes[] = {1, 0, 0, 0, 0, 0, 0, 0, 0};
  BigNum n;
  bn_set_data(n, bytes, sizeof bytes);
  return n;
}

INSTANTIATE_TEST_SUITE_P(
    Table, RenderTest,
    testing::Values(
        RenderCase{"true", [] { return encoded(1, true); }, "Boolean", "true"},
        RenderCase{"false", [] { return encoded(1, false); }, "Boolean", "false"},
        RenderCase{"unsigned", [] { return encoded(2, 4294967295u); }, "Unsigned Integer",
                   "4294967295"},
        RenderCase{"integer", [] { return encoded(3, int32_t{-5}); }, "Integer", "-5"},
        RenderCase{"real", [] { return make_property<protocol::RealProp>(4, 2.5); }, "Real",
                   "2.500000"},
        RenderCase{"real1e20", [] { return make_property<protocol::RealProp>(4, 1e20); }, "Real",
                   "100000000000000000000.000000"},
        RenderCase{"nan", [] { return make_property<protocol::RealProp>(4, std::nan("")); }, "Real",
                   "nan"},
        RenderCase{"inf", [] { return make_property<protocol::RealProp>(4, kInf); }, "Real", "inf"},
        RenderCase{"minusinf", [] { return make_property<protocol::RealProp>(4, -kInf); }, "Real",
                   "-inf"},
        RenderCase{"date0", [] { return encoded(5, int32_t{0}); }, "Date", "1970-01-01-T00:00:00"},
        RenderCase{"date2008", [] { return encoded(5, int32_t{kMarch2008 + 3723}); }, "Date",
                   "2008-03-01-T01:02:03"},
        RenderCase{"string", [] { return encoded(6, "Main site", "description"); }, "String",
                   "Main site"},
        RenderCase{"constcomputed", [] { return encoded(0xA0006, "x"); }, "Const Computed String",
                   "x"},
        RenderCase{"const", [] { return encoded(0x20006, "x"); }, "Const String", "x"},
        RenderCase{"computed", [] { return encoded(0x80006, "x"); }, "Computed String", "x"},
        RenderCase{"object", [] { return encoded(7, "o17"); }, "Object", "o17"},
        RenderCase{"objectset",
                   [] {
                     return encoded(8, std::vector<std::string>{"a", "b", "c"});
                   },
                   "ObjectSet", "a,b,c"},
        RenderCase{"emptyobjectset", [] { return encoded(8, std::vector<std::string>{}); },
                   "ObjectSet", ""},
        RenderCase{"index", [] { return encoded(10, 7u); }, "Index", "7"},
        RenderCase{"stringlist",
                   [] {
                     return encoded(11, std::vector<std::string>{"x y", ""});
                   },
                   "StringList", "x y,"},
        RenderCase{"emptyblob", [] { return make_property<protocol::BlobProp>(12, std::string()); },
                   "Blob", ""},
        RenderCase{"twobyteblob",
                   [] { return make_property<protocol::BlobProp>(12, std::string("ab")); }, "Blob",
                   "YWI="},
        RenderCase{"blob",
                   [] { return make_property<protocol::BlobProp>(12, std::string("\xFF\0a", 3)); },
                   "Blob", "/wBh"},
        RenderCase{"gid", [] { return encoded(13, 0x0A000001u); }, "Gid", "0a:00:00:01"},
        RenderCase{"gidlist",
                   [] {
                     return make_property<protocol::UnsignedIntListProp>(
                         14, std::vector<uint32_t>{0x0A000001u, 0xFFFFFFFFu});
                   },
                   "GidList", "0a:00:00:01,ff:ff:ff:ff"},
        RenderCase{"emptygidlist",
                   [] {
                     return make_property<protocol::UnsignedIntListProp>(14,
                                                                         std::vector<uint32_t>{});
                   },
                   "GidList", ""},
        RenderCase{"snmpoid", [] { return encoded(15, "1.3.6.1.2.1"); }, "SnmpOid", "1.3.6.1.2.1"},
        RenderCase{"bignum", [] { return encoded(18, two_to_the_64()); }, "BigNum",
                   "18446744073709551616"},
        RenderCase{"enumeration", [] { return encoded(0x10005, 3u); }, "Enumeration(5)", "3"},
        RenderCase{"enumerationsigned", [] { return encoded(0x10009, 0xFFFFFFFFu); },
                   "Enumeration(9)", "-1"},
        RenderCase{"constcomputedenum", [] { return encoded(0xBFFFF, 0u); },
                   "Const Computed Enumeration(65535)", "0"}),
    [](const testing::TestParamInfo<RenderCase>& info) { return std::string(info.param.label); });

TEST(PropertyOmissionTest, TypeCodeNineIsLeftOut) {
  XMLExport e(ElementKind::Property);
  auto p = make_property<protocol::StringProp>(9, std::string("v"));
  EXPECT_EQ(e.addProperty(*p), 1);
  EXPECT_TRUE(e.attributes.empty());
}

TEST(PropertyOmissionTest, NegativeDateIsLeftOutWithANotice) {
  std::ostringstream err;
  XMLExport e(ElementKind::Property, err);
  EXPECT_EQ(e.addProperty(*encoded(5, int32_t{-1})), 1);
  EXPECT_TRUE(e.attributes.empty());
  EXPECT_EQ(err.str(), "(ignoring date less than zero)");
  // Exporters made by create() report to the same stream.
  auto made = e.create(ElementKind::Property);
  EXPECT_EQ(made->addProperty(*encoded(0xA0005, int32_t{-2147483647 - 1})), 1);
  EXPECT_EQ(err.str(), "(ignoring date less than zero)(ignoring date less than zero)");
}

struct FailureCase {
  const char* label;
  std::function<PropertyPtr()> make;
  const char* message;
};
void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.label; }

class RenderFailureTest : public testing::TestWithParam<FailureCase> {};

TEST_P(RenderFailureTest, ThrowsWithTheMessage) {
  XMLExport e(ElementKind::Property);
  PropertyPtr p = GetParam().make();
  try {
    e.addProperty(*p);
    ADD_FAILURE() << "no exception";
  } catch (const error::Exception& ex) {
    EXPECT_EQ(ex.text(), GetParam().message);
  }
  EXPECT_TRUE(e.attributes.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, RenderFailureTest,
    testing::Values(
        FailureCase{"code0",
                    [] { return make_property<protocol::StringProp>(0, std::string("x")); },
                    "Unknown property 0 :  = "},
        FailureCase{"code16",
                    [] { return make_property<protocol::StringProp>(16, std::string("x")); },
                    "Unknown property 16 :  = "},
        FailureCase{"code17",
                    [] { return make_property<protocol::SignedInt64Prop>(17, int64_t{5}); },
                    "Unknown property 17 :  = "},
        FailureCase{"code19",
                    [] { return make_property<protocol::LobProp>(19, std::string("ab")); },
                    "Unknown property 19 :  = "},
        FailureCase{"code20",
                    [] { return make_property<protocol::StringProp>(20, std::string("x")); },
                    "Unknown property 20 :  = "},
        FailureCase{"constcomputed16",
                    [] { return make_property<protocol::StringProp>(0xA0010, std::string("x")); },
                    "Unknown property 655376 : Const Computed  = "},
        FailureCase{"emptyname", [] { return encoded(6, "x", ""); },
                    "Property resolved empty name"},
        FailureCase{"emptynameenum", [] { return encoded(0x10001, 1u, ""); },
                    "Property resolved empty name"},
        FailureCase{"nullinteger",
                    [] {
                      auto p = std::make_unique<protocol::Property>();
                      tql::encode(*p, "count", 3);
                      return p;
                    },
                    "Null given for integer property: count"},
        FailureCase{"wrongclassstring",
                    [] { return make_property<protocol::SignedIntProp>(6, 4, "s"); },
                    "Null given for string property: s"},
        FailureCase{"wrongclassreal",
                    [] { return make_property<protocol::StringProp>(4, std::string("1"), "r"); },
                    "Null given for real property: r"},
        FailureCase{"wrongclassenum",
                    [] { return make_property<protocol::SignedIntProp>(0x10002, 1, "e"); },
                    "Null given for unsigned property: e"}),
    [](const testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.label); });

// ---- Row records ----------------------------------------------------------------

template <class Record>
std::unique_ptr<protocol::DataInterval> measure(int32_t start, int32_t end, double max, double avg,
                                                double min, uint32_t ngood, uint32_t nbad) {
  auto r = std::make_unique<Record>();
  r->start = start;
  r->end = end;
  r->max = max;
  r->avg = avg;
  r->min = min;
  r->ngood = ngood;
  r->nbad = nbad;
  auto row = std::make_unique<protocol::DataInterval>();
  row->data = std::move(r);
  return row;
}

std::unique_ptr<protocol::DataInterval> enum_row(int32_t start, int32_t end, uint32_t mask) {
  auto r = std::make_unique<protocol::DataIntervalEnum>();
  r->start = start;
  r->end = end;
  r->mask = mask;
  r->ngood = 4294967295u;
  r->nbad = 0;
  auto row = std::make_unique<protocol::DataInterval>();
  row->data = std::move(r);
  return row;
}

std::unique_ptr<protocol::DataInterval> incident(int32_t time, int32_t severity,
                                                 const std::string& message) {
  auto r = std::make_unique<protocol::DataIntervalIncident>();
  r->time = time;
  r->severity = severity;
  r->message = message;
  auto row = std::make_unique<protocol::DataInterval>();
  row->data = std::move(r);
  return row;
}

constexpr int32_t kT0 = static_cast<int32_t>(kMarch2008);

// ---- Elements and the document -------------------------------------------------

TEST_F(XMLExportTest, HeaderDomainAndPropertyMakeTheDocumentsFirstLines) {
  auto header = prototype_.create(ElementKind::Meta);
  header->writeHeader(stream_, nullptr);
  auto e = prototype_.create(ElementKind::Object);
  e->setAttribute(Attrib::Type, "Domain");
  e->setAttribute(Attrib::Id, "d1");
  e->open(stream_);
  auto p = prototype_.create(ElementKind::Property);
  ASSERT_EQ(p->addProperty(*encoded(6, "Main site", "description")), 0);
  p->writeLeaf(stream_);
  e->close(stream_);
  header->writeFooter(stream_, nullptr);
  EXPECT_EQ(doc_.str(),
            "<?xml version=\"1.0\"?>\n"
            "<Meta version=\"1.0\" description=\"Talvix exported database\" "
            "timestamp=\"2008-03-01-T00:00:00\">\n"
            "</Meta><Object id=\"d1\" type=\"Domain\">\n"
            "  <Property type=\"String\" name=\"description\" value=\"Main site\"/>\n"
            "</Object>\n");
}

TEST_F(XMLExportTest, NestedElementsAreIndentedTwoBlanksPerLevel) {
  auto outer = prototype_.create(ElementKind::Object);
  outer->setAttribute(Attrib::Id, "n1");
  outer->setAttribute(Attrib::Type, "Node");
  outer->open(stream_);
  auto inner = prototype_.create(ElementKind::Object);
  inner->setAttribute(Attrib::Type, "Check");
  inner->setAttribute(Attrib::Id, "c\"1\"");
  inner->open(stream_);
  EXPECT_EQ(XMLExport::depth(), 2);
  auto p = prototype_.create(ElementKind::Property);
  ASSERT_EQ(p->addProperty(*encoded(0x10003, 2u, "state")), 0);
  p->writeLeaf(stream_);
  // A history series: attributes set as id, datatype, type.
  auto series = prototype_.create(ElementKind::Object);
  series->setAttribute(Attrib::Id, "cpu");
  series->setAttribute(Attrib::Datatype, "enum");
  series->setAttribute(Attrib::Type, "Data");
  series->open(stream_);
  XMLExport::Rows rows;
  rows.push_back(enum_row(kT0, kT0 + 300, 11));
  prototype_.create(ElementKind::Object)->writeData(stream_, 3, rows);
  series->close(stream_);
  inner->close(stream_);
  outer->close(stream_);
  EXPECT_EQ(
      doc_.str(),
      "<Object id=\"n1\" type=\"Node\">\n"
      "  <Object id=\"c&#34;1&#34;\" type=\"Check\">\n"
      "    <Property type=\"Enumeration(3)\" name=\"state\" value=\"2\"/>\n"
      "    <Object id=\"cpu\" type=\"Data\" datatype=\"enum\">\n"
      "      <Data start=\"2008-03-01-T00:00:00\" end=\"2008-03-01-T00:05:00\" mask=\"0.1.3\" "
      "ngood=\"4294967295\" nbad=\"0\"/>\n"
      "    </Object>\n"
      "  </Object>\n"
      "</Object>\n");
}

TEST_F(XMLExportTest, EveryKindHasItsElementName) {
  const std::pair<ElementKind, const char*> kinds[] = {{ElementKind::Property, "Property"},
                                                       {ElementKind::Object, "Object"},
                                                       {ElementKind::Meta, "Meta"},
                                                       {ElementKind::Unknown, "Unknown"},
                                                       {ElementKind::Data, "Data"}};
  for (const auto& [kind, name] : kinds) {
    doc_.str("");
    auto e = prototype_.create(kind);
    EXPECT_EQ(e->kind, kind);
    EXPECT_TRUE(e->attributes.empty());
    e->setAttribute(Attrib::Mask, "m");
    e->setAttribute(Attrib::Value, "<v>");
    e->open(stream_);
    e->close(stream_);
    EXPECT_EQ(doc_.str(),
              std::string("<") + name + " value=\"&#60;v&#62;\" mask=\"m\">\n</" + name + ">\n");
  }
}

TEST_F(XMLExportTest, WriteLeafOnlyForProperties) {
  for (ElementKind kind :
       {ElementKind::Object, ElementKind::Meta, ElementKind::Unknown, ElementKind::Data}) {
    auto e = prototype_.create(kind);
    e->setAttribute(Attrib::Name, "n");
    try {
      e->writeLeaf(stream_);
      ADD_FAILURE() << "no exception for kind " << static_cast<int>(kind);
    } catch (const error::EFatal& ex) {
      EXPECT_EQ(ex.text(),
                "Cannot stream a container portnode. got " + int_to_string(static_cast<int>(kind)));
    }
  }
  EXPECT_EQ(doc_.str(), "");
}

TEST_F(XMLExportTest, AnUnknownAttributeIdFailsTheElement) {
  auto e = prototype_.create(ElementKind::Object);
  e->attributes[20] = "x";
  try {
    e->open(stream_);
    ADD_FAILURE() << "no exception";
  } catch (const error::EFatal& ex) {
    EXPECT_EQ(ex.text(), "Got unknown attrib type in attrib2str: 20");
  }
  EXPECT_EQ(XMLExport::depth(), 0);
}

// ---- History rows ----------------------------------------------------------------

const char kSampleRow[] =
    "<Data start=\"2008-03-01-T00:00:00\" end=\"2008-03-01-T00:05:00\" max=\"12.000000\" "
    "avg=\"7.500000\" min=\"3.000000\" ngood=\"5\" nbad=\"0\"/>\n";

struct RowsCase {
  const char* label;
  int32_t datatype;
  std::function<XMLExport::Rows()> make;
  std::string expected;
};
void PrintTo(const RowsCase& c, std::ostream* os) { *os << c.label; }

class WriteDataTest : public XMLExportTest, public testing::WithParamInterface<RowsCase> {};

TEST_P(WriteDataTest, WritesTheValidRowsInOrder) {
  prototype_.writeData(stream_, GetParam().datatype, GetParam().make());
  EXPECT_EQ(doc_.str(), GetParam().expected);
}

using RowMaker = std::function<std::unique_ptr<protocol::DataInterval>()>;

XMLExport::Rows make_rows(const std::vector<RowMaker>& makers) {
  XMLExport::Rows rows;
  for (const auto& m : makers) rows.push_back(m());
  return rows;
}

template <class Record>
std::vector<RowMaker> measure_rows() {
  return {
      [] { return measure<Record>(kT0, kT0 + 300, 12, 7.5, 3, 5, 0); },
      [] { return measure<Record>(kT0 + 300, kT0, 1, 1, 1, 1, 1); },  // reversed
      [] { return measure<Record>(-1, kT0, 1, 1, 1, 1, 1); },         // negative start
      [] { return measure<Record>(0, -5, 1, 1, 1, 1, 1); },           // negative end
      [] { return measure<Record>(0, 0, -kInf, std::nan(""), kInf, 4294967295u, 7); },
  };
}

const std::string kMeasureRows =
    std::string(kSampleRow) +
    "<Data start=\"1970-01-01-T00:00:00\" end=\"1970-01-01-T00:00:00\" max=\"-inf\" avg=\"nan\" "
    "min=\"inf\" ngood=\"4294967295\" nbad=\"7\"/>\n";

INSTANTIATE_TEST_SUITE_P(
    Table, WriteDataTest,
    testing::Values(
        RowsCase{"continuous", 5,
                 [] { return make_rows(measure_rows<protocol::DataIntervalContinuous>()); },
                 kMeasureRows},
        RowsCase{"sawtooth", 2,
                 [] { return make_rows(measure_rows<protocol::DataIntervalSawtooth>()); },
                 kMeasureRows},
        RowsCase{"accumulation", 6,
                 [] { return make_rows(measure_rows<protocol::DataIntervalSawtooth>()); },
                 kMeasureRows},
        RowsCase{"enum", 3,
                 [] {
                   return make_rows({[] { return enum_row(kT0, kT0 + 300, 11); },
                                     [] { return enum_row(kT0, kT0 - 1, 1); },
                                     [] { return enum_row(-7, 0, 1); },
                                     [] { return enum_row(0, 86399, 0x80000001u); },
                                     [] { return enum_row(172799, 172799, 0); },
                                     [] { return enum_row(0, 1, 0xFFFFFFFFu); }});
                 },
                 "<Data start=\"2008-03-01-T00:00:00\" end=\"2008-03-01-T00:05:00\" mask=\"0.1.3\" "
                 "ngood=\"4294967295\" nbad=\"0\"/>\n"
                 "<Data start=\"1970-01-01-T00:00:00\" end=\"1970-01-01-T23:59:59\" mask=\"0.31\" "
                 "ngood=\"4294967295\" nbad=\"0\"/>\n"
                 "<Data start=\"1970-01-02-T23:59:59\" end=\"1970-01-02-T23:59:59\" mask=\"\" "
                 "ngood=\"4294967295\" nbad=\"0\"/>\n"
                 "<Data start=\"1970-01-01-T00:00:00\" end=\"1970-01-01-T00:00:01\" "
                 "mask=\"0.1.2.3.4.5.6.7.8.9."
                 "10.11.12.13.14.15.16.17.18.19.20.21.22.23.24.25.26.27.28.29.30.31\" "
                 "ngood=\"4294967295\" nbad=\"0\"/>\n"},
        RowsCase{"incidents", 4,
                 [] {
                   return make_rows({[] { return incident(kT0, 3, "load <90% & \"high\"\n"); },
                                     [] { return incident(-1, 1, "dropped"); },
                                     [] { return incident(0, -2, ""); }});
                 },
                 "<Data time=\"2008-03-01-T00:00:00\" severity=\"3\" "
                 "message=\"load &#60;90% &#38; &#34;high&#34;&#10;\"/>\n"
                 "<Data time=\"1970-01-01-T00:00:00\" severity=\"-2\" message=\"\"/>\n"},
        RowsCase{"noRows", 5, [] { return XMLExport::Rows(); }, ""}),
    [](const testing::TestParamInfo<RowsCase>& info) { return std::string(info.param.label); });

TEST_F(XMLExportTest, UnknownDatatypeFailsBeforeAnyRow) {
  for (int32_t datatype : {0, 1, 7, 17, -1}) {
    XMLExport::Rows rows = make_rows(measure_rows<protocol::DataIntervalContinuous>());
    try {
      prototype_.writeData(stream_, datatype, rows);
      ADD_FAILURE() << "no exception for " << datatype;
    } catch (const error::EFatal& ex) {
      EXPECT_EQ(ex.text(), "Got unknown datatype for rows [" + int_to_string(datatype) + "]");
    }
  }
  EXPECT_EQ(doc_.str(), "");
}

TEST(WriteDataDeathTest, ARecordOfAnotherClassEndsTheProcess) {
  std::ostringstream doc;
  porter::CPPOutStream stream(doc);
  XMLExport e(ElementKind::Object);
  auto one = [](RowMaker m) { return make_rows({std::move(m)}); };
  const RowMaker continuous = [] {
    return measure<protocol::DataIntervalContinuous>(0, 1, 0, 0, 0, 0, 0);
  };
  const RowMaker sawtooth = [] {
    return measure<protocol::DataIntervalSawtooth>(0, 1, 0, 0, 0, 0, 0);
  };
  const RowMaker empty = [] { return std::make_unique<protocol::DataInterval>(); };
  EXPECT_DEATH(e.writeData(stream, 5, one(sawtooth)), "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(stream, 3, one(continuous)), "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(stream, 4, one(continuous)), "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(stream, 5, one(empty)), "Assertion failed: Error in data format");
  EXPECT_DEATH(e.writeData(stream, 2, one(continuous)), "Assertion failed: checked_cast failed");
  EXPECT_DEATH(e.writeData(stream, 6, one([] { return enum_row(0, 1, 1); })),
               "Assertion failed: checked_cast failed");
}

}  // namespace
