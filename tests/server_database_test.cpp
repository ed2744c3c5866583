// The stand-in server's databases: the JSON loader with the bundled sample
// and its validation messages, the generated database's shape and ids, and
// concurrent readers.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <map>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include <nlohmann/json.hpp>

#include "protocol/property_codec.h"
#include "server/database_json.h"
#include "server/generator.h"
#include "util/error.h"

namespace server {
namespace {

const std::string kSamplePath =
    (std::filesystem::path(__FILE__).parent_path().parent_path() / "server/sample/sample.json").string();

const Database& sample() {
  static const std::unique_ptr<Database> db = load_json_database(kSamplePath);
  return *db;
}

std::string load_error(const std::string& text) {
  try {
    parse_json_database(text);
  } catch (const error::EFatal& e) {
    return e.text();
  }
  return "(loaded)";
}

// Every object reachable from the two roots, each checked for a consistent
// parent link and visited once.
std::vector<std::shared_ptr<const StoredObject>> walk(const Database& db) {
  std::vector<std::shared_ptr<const StoredObject>> all;
  std::set<std::string> seen;
  std::vector<std::string> stack = {db.rootDomainId(), db.mibRootId()};
  while (!stack.empty()) {
    std::string id = stack.back();
    stack.pop_back();
    auto o = db.find(id);
    EXPECT_NE(o, nullptr) << id;
    if (!o) continue;
    EXPECT_EQ(o->id, id);
    EXPECT_TRUE(seen.insert(id).second) << "reached twice: " << id;
    for (const std::string& child : o->children) {
      auto c = db.find(child);
      EXPECT_NE(c, nullptr) << child;
      if (c) {
        EXPECT_EQ(c->parentId, id) << child;
      }
      stack.push_back(child);
    }
    all.push_back(std::move(o));
  }
  return all;
}

size_t count_objects(const nlohmann::json& objects) {
  size_t n = 0;
  for (const auto& o : objects) {
    ++n;
    if (o.contains("children")) n += count_objects(o["children"]);
  }
  return n;
}

// --- the sample --------------------------------------------------------------

TEST(SampleDatabase, EveryObjectIsReachableOnce) {
  std::ifstream in(kSamplePath);
  size_t defined = count_objects(nlohmann::json::parse(in)["objects"]);
  EXPECT_EQ(walk(sample()).size(), defined);
  EXPECT_EQ(sample().rootDomainId(), "dom-root");
  EXPECT_EQ(sample().mibRootId(), "mib-root");
}

TEST(SampleDatabase, CoversEveryWrittenTypeCode) {
  std::set<uint32_t> codes;
  bool enumeration = false, constant = false, computed = false, null = false;
  for (const auto& o : walk(sample())) {
    for (const PropertyValue& p : o->properties) {
      if (p.type & protocol::kPropEnumeration) enumeration = true;
      else codes.insert(p.type & 0xffff);
      constant |= (p.type & protocol::kPropConstant) != 0;
      computed |= (p.type & protocol::kPropComputed) != 0;
      null |= p.isNull();
    }
  }
  for (uint32_t code : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 18}) {
    EXPECT_TRUE(codes.count(code)) << code;
  }
  EXPECT_TRUE(enumeration && constant && computed && null);
}

struct PropertyCase {
  const char* object;
  const char* name;
  uint32_t typeWord;
  size_t valueClass;  // alternative number of protocol::Property::data
};

class SampleProperty : public testing::TestWithParam<PropertyCase> {};

TEST_P(SampleProperty, HasTypeWordAndValueClass) {
  const PropertyCase& c = GetParam();
  auto o = sample().find(c.object);
  ASSERT_NE(o, nullptr);
  const PropertyValue* p = o->findProperty(c.name);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->type, c.typeWord);
  EXPECT_EQ(p->value.index(), c.valueClass);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SampleProperty,
    testing::Values(PropertyCase{"node-bram-gw1", "siblingName", 6, 0},
                    PropertyCase{"node-bram-gw1", "tags", 11, 1},
                    PropertyCase{"node-bram-gw1", "clockSkew", 3, 2},
                    PropertyCase{"node-bram-gw1", "installed", 5, 2},
                    PropertyCase{"node-bram-gw1", "pollInterval", 2, 3},
                    PropertyCase{"node-bram-gw1", "address", 13, 3},
                    PropertyCase{"node-bram-gw1", "state", 0x10005, 3},
                    PropertyCase{"node-bram-gw1", "stateComputed", 0x90005, 3},
                    PropertyCase{"node-bram-gw1", "legacyEnum", 0x10009, 3},
                    PropertyCase{"node-bram-gw1", "legacyBits", 9, 3},
                    PropertyCase{"node-bram-gw1", "threshold", 4, 4},
                    PropertyCase{"usr-admin", "enabled", 1, 5},
                    PropertyCase{"node-bram-gw1", "nextAudit", 5, 6},
                    PropertyCase{"node-bram-gw1", "certificate", 12, 7},
                    PropertyCase{"node-bram-gw1", "aliases", 14, 8},
                    PropertyCase{"node-bram-gw1", "bytesTotal", 18, 11},
                    PropertyCase{"node-bram-gw1", "label", 0xa0006, 0},
                    PropertyCase{"dom-bram", "siblingName", 0x80006, 0},
                    PropertyCase{"chk-bram-gw1-if1", "snmpId", 0x8000f, 0},
                    PropertyCase{"chk-bram-gw1-ping", "responseTime", 10, 3},
                    PropertyCase{"ag-ops", "members", 8, 1}),
    [](const testing::TestParamInfo<PropertyCase>& info) {
      std::string name = std::string(info.param.object) + "_" + info.param.name;
      for (char& c : name) {
        if (!isalnum(static_cast<unsigned char>(c))) c = '_';
      }
      return name;
    });

const protocol::Property& sample_property(const char* object, const char* name,
                                          std::unique_ptr<protocol::Property>& keep) {
  auto o = sample().find(object);
  if (!o || !o->findProperty(name)) throw std::runtime_error(std::string("no ") + name);
  keep = to_property(*o->findProperty(name));
  return *keep;
}

TEST(SampleDatabase, ValuesConvertToTheirWireValues) {
  std::unique_ptr<protocol::Property> p;
  int64_t date = 0;
  tql::decode(sample_property("node-bram-gw1", "installed", p), 5, date);
  EXPECT_EQ(date, -3600);
  tql::decode(sample_property("dom-root", "created", p), 5, date);
  EXPECT_EQ(date, 1204329600);
  BigNum big;
  tql::decode(sample_property("node-bram-gw1", "bytesTotal", p), 18, big);
  EXPECT_EQ(bn_to_string(big), "123456789012345678901234567890");
  std::vector<uint8_t> bytes;
  tql::decode(sample_property("node-bram-gw1", "certificate", p), 12, bytes);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "Talvix demo cert");
  tql::decode(sample_property("node-bram-gw1", "shortKey", p), 12, bytes);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "\xc3\xa9");
  tql::decode(sample_property("node-bram-gw1", "emptyKey", p), 12, bytes);
  EXPECT_TRUE(bytes.empty());
  std::vector<uint32_t> gids;
  tql::decode(sample_property("node-bram-gw1", "aliases", p), 14, gids);
  EXPECT_EQ(gids, (std::vector<uint32_t>{0x0a140001, 0xc0a801fe, 0}));
  int32_t skew = 0;
  tql::decode(sample_property("node-bram-gw1", "clockSkew", p), 3, skew);
  EXPECT_EQ(skew, INT32_MIN);
  double loss = 0;
  tql::decode(sample_property("node-bram-gw1", "lossRatio", p), 4, loss);
  EXPECT_TRUE(std::isnan(loss));
  std::string text;
  tql::decode(sample_property("dom-root", "description", p), 6, text);
  EXPECT_EQ(text, "Racks A & B <main> \"east\" 'wing'\nsecond floor");
  EXPECT_NE(dynamic_cast<const protocol::NullProp*>(sample_property("node-bram-gw1", "nextAudit", p).data.get()),
            nullptr);
}

TEST(SampleDatabase, HoldsTheFaultyObjectsTheExporterMustSkip) {
  auto node = sample().find("node-bram-gw1");
  ASSERT_NE(node, nullptr);
  std::multiset<std::string> siblingNames;
  bool flagged = false, withoutName = false;
  for (const std::string& id : node->children) {
    auto c = sample().find(id);
    ASSERT_NE(c, nullptr);
    if (const PropertyValue* s = c->findProperty("siblingName")) {
      siblingNames.insert(std::get<std::string>(s->value));
    } else {
      withoutName = true;
    }
    flagged |= (c->flags & 1) != 0;
  }
  EXPECT_EQ(siblingNames.count("ping"), 2u);
  EXPECT_TRUE(flagged && withoutName);
  auto usage = sample().find("apu-ops-1");
  ASSERT_NE(usage, nullptr);
  EXPECT_EQ(usage->className, "AlertPathUsage");
  EXPECT_EQ(usage->findProperty("siblingName"), nullptr);
}

TEST(SampleDatabase, HistoryOfEveryDatatypeWithInvalidRows) {
  std::set<int32_t> datatypes;
  bool badOrder = false, negative = false;
  for (const auto& o : walk(sample())) {
    for (const PropertyValue& p : o->properties) {
      auto h = sample().history(o->id, p.name);
      if ((p.type & protocol::kPropTypeMask) != kTypeIndex) {
        EXPECT_EQ(h, nullptr);
        continue;
      }
      if (!h) continue;
      datatypes.insert(h->dataType);
      for (const Interval& row : h->intervals) {
        auto wire = to_interval(row);
        if (auto* c = dynamic_cast<protocol::DataIntervalContinuous*>(wire->data.get())) {
          EXPECT_EQ(h->dataType, 5);
          badOrder |= c->start > c->end;
          negative |= c->start < 0;
        } else if (dynamic_cast<protocol::DataIntervalSawtooth*>(wire->data.get())) {
          EXPECT_TRUE(h->dataType == 2 || h->dataType == 6);
        } else if (dynamic_cast<protocol::DataIntervalEnum*>(wire->data.get())) {
          EXPECT_EQ(h->dataType, 3);
        } else if (auto* i = dynamic_cast<protocol::DataIntervalIncident*>(wire->data.get())) {
          EXPECT_EQ(h->dataType, 4);
          negative |= i->time < 0;
        } else {
          ADD_FAILURE() << "unexpected record class in " << o->id;
        }
      }
    }
  }
  EXPECT_EQ(datatypes, (std::set<int32_t>{2, 3, 4, 5, 6}));
  EXPECT_TRUE(badOrder && negative);
  auto first = sample().history("chk-bram-gw1-ping", "responseTime");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(std::get<ContinuousRow>(first->intervals.at(0)),
            (ContinuousRow{1204329600, 1204329900, 12, 7.5, 3, 5, 0}));
  EXPECT_EQ(std::get<EnumRow>(sample().history("chk-bram-gw1-ping", "status")->intervals.at(1)).mask,
            0x80000001u);
}

TEST(SampleDatabase, LoginAndUnknownIds) {
  EXPECT_TRUE(sample().checkLogin(".", "admin", "secret"));
  EXPECT_FALSE(sample().checkLogin(".", "admin", "Secret"));
  EXPECT_FALSE(sample().checkLogin("brambleton", "admin", "secret"));
  EXPECT_TRUE(sample().checkLogin("brambleton", "night-shift", "owl"));
  EXPECT_EQ(sample().find("no-such-object"), nullptr);
  EXPECT_EQ(sample().find(std::string(40, 'x')), nullptr);
  EXPECT_EQ(sample().history("chk-bram-gw1-ping", "nothing"), nullptr);
}

// --- validation --------------------------------------------------------------

// A database whose root domain "r" has the given children, plus history.
std::string doc(const std::string& children, const std::string& history = "[]",
                const std::string& more = "") {
  return R"({"rootDomain": "r", "mibRoot": "m", "users": [], "objects": [)"
         R"({"class": "Domain", "id": "r", "children": [)" +
         children + R"(]}, {"class": "MibRoot", "id": "m"})" + more + R"(], "history": )" + history + "}";
}
std::string node_with(const std::string& property) {
  return R"({"class": "Node", "id": "x", "properties": [)" + property + "]}";
}
const std::string kIndexed =
    R"({"class": "Check", "id": "x", "properties": [{"name": "v", "type": "Index", "value": 1},
       {"name": "s", "type": "String", "value": "t"}]})";
std::string series(const std::string& datatype, const std::string& rows, const std::string& index = "v") {
  return R"([{"object": "x", "index": ")" + index + R"(", "datatype": )" + datatype +
         R"(, "intervals": [)" + rows + "]}]";
}

struct BadDocument {
  const char* name;
  std::string text;
  std::string message;
};

class JsonValidation : public testing::TestWithParam<BadDocument> {};

TEST_P(JsonValidation, NamesTheFault) { EXPECT_EQ(load_error(GetParam().text), GetParam().message); }

const std::string kLongId(33, 'a');

INSTANTIATE_TEST_SUITE_P(
    Table, JsonValidation,
    testing::Values(
        BadDocument{"TopLevelArray", "[]", "database: must be a JSON object"},
        BadDocument{"NoObjects", R"({"rootDomain": "r"})", "database: field \"objects\" is missing"},
        BadDocument{"UnknownTopField", doc("").insert(1, R"("extra": 1, )"), "database: unknown field \"extra\""},
        BadDocument{"MissingRoot", R"({"objects": [], "rootDomain": "zz", "mibRoot": "m", "users": []})",
                    "database: rootDomain \"zz\" does not exist"},
        BadDocument{"UnknownTypeName", doc(node_with(R"({"name": "p", "type": "Strin", "value": "a"})")),
                    "object \"x\", property \"p\": unknown type \"Strin\""},
        BadDocument{"TextForInteger", doc(node_with(R"({"name": "p", "type": "Integer", "value": "abc"})")),
                    "object \"x\", property \"p\": value \"abc\" does not fit type Integer"},
        BadDocument{"IntegerTooLarge", doc(node_with(R"({"name": "p", "type": 3, "value": 2147483648})")),
                    "object \"x\", property \"p\": value 2147483648 does not fit type Integer"},
        BadDocument{"NegativeUnsigned", doc(node_with(R"({"name": "p", "type": "Index", "value": -1})")),
                    "object \"x\", property \"p\": value -1 does not fit type Index"},
        BadDocument{"NumberForBoolean", doc(node_with(R"({"name": "p", "type": "Boolean", "value": 1})")),
                    "object \"x\", property \"p\": value 1 does not fit type Boolean"},
        BadDocument{"ImpossibleDate",
                    doc(node_with(R"({"name": "p", "type": "Date", "value": "2008-02-30T00:00:00Z"})")),
                    "object \"x\", property \"p\": value \"2008-02-30T00:00:00Z\" does not fit type Date"},
        BadDocument{"BadHexBlob", doc(node_with(R"({"name": "p", "type": "Blob", "value": {"hex": "abc"}})")),
                    "object \"x\", property \"p\": value an object does not fit type Blob"},
        BadDocument{"BadBigNum", doc(node_with(R"({"name": "p", "type": "BigNum", "value": "12a"})")),
                    "object \"x\", property \"p\": value \"12a\" does not fit type BigNum"},
        BadDocument{"BadGid", doc(node_with(R"({"name": "p", "type": "Gid", "value": "10.0.0.1"})")),
                    "object \"x\", property \"p\": value \"10.0.0.1\" does not fit type Gid"},
        BadDocument{"EnumWithText", doc(node_with(R"({"name": "p", "enum": 4, "value": "up"})")),
                    "object \"x\", property \"p\": value \"up\" does not fit type Enumeration(4)"},
        BadDocument{"ValueClassMismatch",
                    doc(node_with(R"({"name": "p", "type": 9, "valueClass": "Real", "value": true})")),
                    "object \"x\", property \"p\": value true does not fit value class Real"},
        BadDocument{"CodeWithoutClass", doc(node_with(R"({"name": "p", "type": 9, "value": 1})")),
                    "object \"x\", property \"p\": type code 9 has no value class; give \"valueClass\""},
        BadDocument{"TypeAndEnum", doc(node_with(R"({"name": "p", "type": "Integer", "enum": 2, "value": 1})")),
                    "object \"x\", property \"p\": give exactly one of \"type\", \"enum\" and \"typeWord\""},
        BadDocument{"PropertyWithoutName", doc(node_with(R"({"type": "Integer", "value": 1})")),
                    "object \"x\", property 0: field \"name\" is missing"},
        BadDocument{"DuplicateProperty",
                    doc(node_with(R"({"name": "p", "type": 3, "value": 1}, {"name": "p", "type": 3, "value": 2})")),
                    "object \"x\": duplicate property \"p\""},
        BadDocument{"MissingId", doc(R"({"class": "Node"})"), "object at children[0] of \"r\": field \"id\" is missing"},
        BadDocument{"DuplicateId", doc(R"({"class": "Node", "id": "r"})"), "object \"r\": duplicate id"},
        BadDocument{"EmptyId", doc(R"({"class": "Node", "id": ""})"), "object \"\": id is empty"},
        BadDocument{"LongId", doc(R"({"class": "Node", "id": ")" + kLongId + R"("})"),
                    "object \"" + kLongId + "\": id is longer than 32 octets (33)"},
        BadDocument{"MissingClass", doc(R"({"id": "x"})"), "object \"x\": field \"class\" is missing"},
        BadDocument{"FlagsNegative", doc(R"({"class": "Node", "id": "x", "flags": -1})"),
                    "object \"x\": field \"flags\" must be an integer from 0 to 4294967295, not -1"},
        BadDocument{"MisspeltField", doc(R"({"class": "Node", "id": "x", "childs": []})"),
                    "object \"x\": unknown field \"childs\""},
        BadDocument{"MissingChild", doc(R"("ghost")"), "object \"r\": child \"ghost\" does not exist"},
        BadDocument{"TwoParents", doc(R"({"class": "Node", "id": "n"})", "[]", R"(, {"class": "X", "id": "y", "children": ["n"]})"),
                    "object \"n\": child of both \"r\" and \"y\""},
        BadDocument{"Cycle", doc("", "[]", R"(, {"class": "X", "id": "a", "children": ["b"]}, {"class": "X", "id": "b", "children": ["a"]})"),
                    "object \"a\": is its own ancestor"},
        BadDocument{"HistoryUnknownObject", doc("", series("5", "")),
                    "history of \"x\" index \"v\": object \"x\" does not exist"},
        BadDocument{"HistoryNotIndex", doc(kIndexed, series("5", "", "s")),
                    "history of \"x\" index \"s\": the object has no Index property \"s\""},
        BadDocument{"UnknownDatatype", doc(kIndexed, series(R"("average")", "")),
                    "history of \"x\" index \"v\": unknown datatype \"average\""},
        BadDocument{"DatatypeTooLarge", doc(kIndexed, series("18", "")),
                    "history of \"x\" index \"v\": datatype must be a datatype name or a number from 0 to 17, not 18"},
        BadDocument{"DatatypeWithoutRecord", doc(kIndexed, series("9", "{}")),
                    "history of \"x\" index \"v\", interval 0: datatype 9 has no record class; give \"class\""},
        BadDocument{"EnumFieldInContinuous",
                    doc(kIndexed, series(R"("continuous")",
                                         R"({"start": 0, "end": 1, "max": 1, "avg": 1, "min": 1, "ngood": 1, "nbad": 0, "mask": 3})")),
                    "history of \"x\" index \"v\", interval 0: unknown field \"mask\""},
        BadDocument{"StartBeyond32Bits",
                    doc(kIndexed, series(R"("enum")", R"({"start": 3000000000, "end": 1, "mask": 1, "ngood": 1, "nbad": 0})")),
                    "history of \"x\" index \"v\", interval 0: field \"start\" must be a 32-bit count of seconds or "
                    "a time YYYY-MM-DDTHH:MM:SSZ, not 3000000000"},
        BadDocument{"IncidentWithoutTime",
                    doc(kIndexed, series(R"("incidents")", R"({"start": 0, "severity": 1, "message": "m"})")),
                    "history of \"x\" index \"v\", interval 0: field \"time\" is missing"},
        BadDocument{"SeriesTwice",
                    doc(kIndexed, R"([{"object": "x", "index": "v", "datatype": 5, "intervals": []},
                                     {"object": "x", "index": "v", "datatype": 4, "intervals": []}])"),
                    "history of \"x\" index \"v\": given twice"},
        BadDocument{"UserWithoutPassword",
                    doc("").replace(doc("").find("\"users\": []"), 11,
                                    R"("users": [{"domain": ".", "name": "a"}])"),
                    "users[0]: field \"password\" is missing"}),
    [](const testing::TestParamInfo<BadDocument>& info) { return std::string(info.param.name); });

TEST(JsonValidationExtra, AcceptsTheMinimalDocumentAndRawFaultCases) {
  auto db = parse_json_database(doc(kIndexed, series("9", R"({"class": "incident", "time": -5, "severity": 0, "message": ""})")));
  auto h = db->history("x", "v");
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->dataType, 9);
  EXPECT_EQ(std::get<IncidentRow>(h->intervals.at(0)).time, -5);
  auto raw = parse_json_database(doc(node_with(R"({"name": "p", "typeWord": 16, "valueClass": "Lob", "value": "xy"})")));
  EXPECT_EQ(raw->find("x")->properties.at(0).type, 16u);
  EXPECT_EQ(std::get<LobValue>(raw->find("x")->properties.at(0).value).bytes, "xy");
}

TEST(JsonValidationExtra, BigNumDecimalsBecomeMagnitudeBytes) {
  for (const char* digits : {"0", "255", "256", "18446744073709551616"}) {
    auto db = parse_json_database(
        doc(node_with(std::string(R"({"name": "p", "type": "BigNum", "value": ")") + digits + "\"}")));
    BigNum value;
    tql::decode(*to_property(db->find("x")->properties.at(0)), 18, value);
    EXPECT_EQ(bn_to_string(value), digits);
  }
}

TEST(JsonValidationExtra, SyntaxErrorsAndDeepNesting) {
  EXPECT_EQ(load_error("{\"objects\": [").rfind("Database is not valid JSON: ", 0), 0u);
  // Children nested beyond the limit are refused before the stack is at risk.
  std::string nested = R"({"class": "Domain", "id": "m", "children": [)";
  for (int i = 0; i < 1100; ++i) nested += R"({"class": "D", "id": "o)" + std::to_string(i) + R"(", "children": [)";
  for (int i = 0; i < 1100; ++i) nested += "]}";
  nested += "]}";
  std::string text = R"({"rootDomain": "m", "mibRoot": "m", "users": [], "objects": [)" + nested + "]}";
  EXPECT_EQ(load_error(text), "object \"o1000\": nested deeper than 1000 levels");
  // A deeply nested value is only named, never printed.
  std::string deep(100000, '[');
  deep += std::string(100000, ']');
  EXPECT_EQ(load_error(doc(node_with(R"({"name": "p", "type": 3, "value": )" + deep + "}"))),
            "object \"x\", property \"p\": value an array does not fit type Integer");
}

TEST(JsonValidationExtra, FileErrorsNameThePath) {
  try {
    load_json_database("/nonexistent/db.json");
    ADD_FAILURE() << "loaded";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text(), "Cannot read database file \"/nonexistent/db.json\": No such file or directory");
  }
  std::string path = testing::TempDir() + "server_database_test.json";
  std::ofstream(path) << doc(R"({"class": "Node", "id": "r"})");
  try {
    load_json_database(path);
    ADD_FAILURE() << "loaded";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text(), path + ": object \"r\": duplicate id");
  }
  std::filesystem::remove(path);
}

// --- the generator -----------------------------------------------------------

struct ShapeCase {
  GeneratorShape shape;
  GeneratedCounts counts;
};

class GeneratorShapes : public testing::TestWithParam<ShapeCase> {};

TEST_P(GeneratorShapes, WalkMatchesTheCounts) {
  const ShapeCase& c = GetParam();
  GeneratedCounts counts = generated_counts(c.shape);
  EXPECT_EQ(counts.domains, c.counts.domains);
  EXPECT_EQ(counts.nodes, c.counts.nodes);
  EXPECT_EQ(counts.checks, c.counts.checks);
  EXPECT_EQ(counts.objects, c.counts.objects);
  EXPECT_EQ(counts.historyRows, c.counts.historyRows);

  auto db = make_generated_database(c.shape);
  std::map<std::string, uint64_t> byClass;
  uint64_t rows = 0;
  std::set<std::string> labels;
  for (const auto& o : walk(*db)) {
    ++byClass[o->className];
    if (o->className == "Domain") {
      EXPECT_TRUE(labels.insert(std::get<std::string>(o->findProperty("treeLabel")->value)).second);
    }
    auto h = db->history(o->id, "value");
    if (o->className != "Check") {
      EXPECT_EQ(h, nullptr);
      continue;
    }
    ASSERT_NE(h, nullptr) << o->id;
    ASSERT_EQ(h->intervals.size(), c.shape.rowsPerCheck);
    rows += h->intervals.size();
    for (const Interval& row : h->intervals) {
      size_t expected = h->dataType == 5 ? 0 : h->dataType == 3 ? 2 : h->dataType == 4 ? 3 : 1;
      EXPECT_EQ(row.index(), expected) << o->id;
    }
  }
  EXPECT_EQ(byClass["Domain"], c.counts.domains);
  EXPECT_EQ(byClass["Node"], c.counts.nodes);
  EXPECT_EQ(byClass["Check"], c.counts.checks);
  uint64_t total = 0;
  for (const auto& [cls, n] : byClass) total += n;
  EXPECT_EQ(total, c.counts.objects);
  EXPECT_EQ(rows, c.counts.historyRows);
}

INSTANTIATE_TEST_SUITE_P(Table, GeneratorShapes,
                         testing::Values(ShapeCase{{2, 1, 10, 5, 10}, {3, 30, 150, 191, 1500}},
                                         ShapeCase{{3, 2, 2, 5, 1}, {13, 26, 130, 177, 130}},
                                         ShapeCase{{1, 4, 1, 0, 7}, {5, 5, 0, 18, 0}},
                                         ShapeCase{{5, 0, 0, 3, 3}, {1, 0, 0, 9, 0}}));

bool same(const StoredObject& a, const StoredObject& b) {
  if (a.className != b.className || a.id != b.id || a.flags != b.flags || a.parentId != b.parentId ||
      a.children != b.children || a.properties.size() != b.properties.size()) {
    return false;
  }
  for (size_t i = 0; i < a.properties.size(); ++i) {
    const PropertyValue& p = a.properties[i];
    const PropertyValue& q = b.properties[i];
    if (p.name != q.name || p.type != q.type) return false;
    const double* x = std::get_if<double>(&p.value);
    const double* y = std::get_if<double>(&q.value);
    if (x && y ? !(*x == *y || (std::isnan(*x) && std::isnan(*y))) : !(p.value == q.value)) return false;
  }
  return true;
}

TEST(Generator, SameAnswerTwiceAndNothingKept) {
  // 1001001 domains, 10^9 nodes, 10^11 checks.
  auto db = make_generated_database({1000, 2, 1000, 100, 5});
  for (const char* id : {"d0", "d1001000", "n1001000.999", "c1001000.999.99", "c7.3.4", "mib", "mibo2"}) {
    auto a = db->find(id);
    auto b = db->find(id);
    ASSERT_NE(a, nullptr) << id;
    EXPECT_TRUE(same(*a, *b)) << id;
    // Nothing is shared with the database: each answer is made for the caller.
    EXPECT_EQ(a.use_count(), 1) << id;
  }
  EXPECT_EQ(db->find("d1001001"), nullptr);
  EXPECT_EQ(db->find("n1001000.1000"), nullptr);
  auto h1 = db->history("c1001000.999.99", "value");
  auto h2 = db->history("c1001000.999.99", "value");
  ASSERT_NE(h1, nullptr);
  EXPECT_EQ(h1.use_count(), 1);
  EXPECT_EQ(h1->dataType, 4);  // checks cycle continuous, sawtooth, accumulation, enum, incidents
  EXPECT_EQ(h1->intervals, h2->intervals);
  EXPECT_EQ(db->history("c7.3.1", "value")->dataType, 2);
  EXPECT_EQ(db->history("c7.3.2", "value")->dataType, 6);
}

class GeneratorIds : public testing::TestWithParam<const char*> {};

// Each object has exactly one id: other spellings and positions outside the
// shape find nothing.
TEST_P(GeneratorIds, FindNothing) {
  auto db = make_generated_database({2, 1, 10, 5, 3});
  EXPECT_EQ(db->find(GetParam()), nullptr);
  EXPECT_EQ(db->history(GetParam(), "value"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Table, GeneratorIds,
                         testing::Values("", "d", "d3", "d01", "d-1", "d0x", "d0.1", "n0", "n0.", "n0.10",
                                         "n0.01", "n0.1.2", "c0.0", "c0.0.5", "c0.0.0.", "c0.0.00",
                                         "x0", "mibo3", "u.admin2", "c00000000000000000000000000000000"));

TEST(Generator, FixedObjectsHistoryAndLogin) {
  auto db = make_generated_database({2, 1, 1, 1, 2});
  EXPECT_EQ(db->history("c1.0.0", "other"), nullptr);
  EXPECT_EQ(db->history("n1.0", "value"), nullptr);
  EXPECT_TRUE(db->checkLogin(".", "admin", "secret"));
  EXPECT_FALSE(db->checkLogin(".", "admin", "secret "));
  auto root = db->find(db->rootDomainId());
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->children, (std::vector<std::string>{"u.admin", "ag.ops", "n0.0", "d1", "d2"}));
  EXPECT_EQ(db->find("d2")->findProperty("treeLabel")->value, Value(std::string("dom1")));
  EXPECT_EQ(db->find("mibo1")->findProperty("snmpId")->type, kTypeSnmpOid | protocol::kPropComputed);
}

struct BadShape {
  GeneratorShape shape;
  const char* message;
};

class GeneratorLimits : public testing::TestWithParam<BadShape> {};

TEST_P(GeneratorLimits, RefusesTheShape) {
  try {
    make_generated_database(GetParam().shape);
    ADD_FAILURE() << "accepted";
  } catch (const error::EFatal& e) {
    EXPECT_EQ(e.text(), GetParam().message);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, GeneratorLimits,
    testing::Values(BadShape{{0, 1, 1, 1, 1}, "Database shape: fanout 0 is outside 1..1000"},
                    BadShape{{2, 31, 1, 1, 1}, "Database shape: depth 31 is outside 0..30"},
                    BadShape{{2, 1, 1, 1, 100001}, "Database shape: rowsPerCheck 100001 is outside 0..100000"},
                    BadShape{{1000, 30, 0, 0, 0}, "Database shape: more than 2^31 domains"},
                    BadShape{{1000, 3, 1000000, 1, 0}, "Database shape: more than 2^48 objects"},
                    BadShape{{1000, 2, 1000000, 10000, 0}, "Database shape: more than 2^48 objects"}));

TEST(Generator, ParsesShapeTexts) {
  GeneratorShape s = parse_generator_shape("3x10x5x20/2");
  EXPECT_EQ(std::vector<uint32_t>({s.fanout, s.nodesPerDomain, s.checksPerNode, s.rowsPerCheck, s.depth}),
            std::vector<uint32_t>({3, 10, 5, 20, 2}));
  EXPECT_EQ(parse_generator_shape("1x0x0x0").depth, 1u);
  for (const char* bad : {"", "3x10x5", "3x10x5x20/", "3x10x5x20/2x", "03x1x1x1", "3x1x1x1x1", "3 x1x1x1",
                          "99999999999x1x1x1"}) {
    try {
      parse_generator_shape(bad);
      ADD_FAILURE() << bad;
    } catch (const error::EFatal& e) {
      EXPECT_EQ(e.text().rfind("Bad database shape \"" + std::string(bad) + "\": ", 0), 0u) << e.text();
    }
  }
}

// --- concurrent readers ------------------------------------------------------

// Several threads read the same objects and series, converting them to wire
// messages (BigNum values included), and all see what one thread saw alone.
void read_concurrently(const Database& db, const std::vector<std::string>& ids, const std::string& index) {
  std::vector<std::shared_ptr<const StoredObject>> expected;
  for (const std::string& id : ids) expected.push_back(db.find(id));
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; ++round) {
        for (size_t k = 0; k < ids.size(); ++k) {
          size_t i = (k + static_cast<size_t>(t)) % ids.size();
          auto o = db.find(ids[i]);
          if (!o || !same(*o, *expected[i])) ++mismatches;
          auto h = db.history(ids[i], index);
          for (const PropertyValue& p : o->properties) to_property(p);
          if (h) {
            for (const Interval& row : h->intervals) to_interval(row);
          }
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
}

TEST(ConcurrentReaders, SampleDatabase) {
  std::vector<std::string> ids;
  for (const auto& o : walk(sample())) ids.push_back(o->id);
  read_concurrently(sample(), ids, "responseTime");
}

TEST(ConcurrentReaders, GeneratedDatabase) {
  auto db = make_generated_database({2, 2, 3, 2, 10});
  std::vector<std::string> ids;
  for (const auto& o : walk(*db)) ids.push_back(o->id);
  read_concurrently(*db, ids, "value");
}

}  // namespace
}  // namespace server
