// The stand-in server's databases: the JSON loader with the bundled sample
// and its validation messages, and the generated database's shape and ids.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <set>

#include <nlohmann/json.hpp>

#include "protocol/property_codec.h"
#include "server/database_json.h"
#include "server/generator.h"
#include "util/error.h"

namespace server {
namespace {

const std::string kSamplePath =
    (std::filesystem::path(TALVIX_SOURCE_DIR) / "server/sample/sample.json").string();

const Database& sample() {
  static const std::unique_ptr<Database> db = load_json_database(kSamplePath);
  return *db;
}

// The text of the error::EFatal that `f` throws.
template <class F>
std::string fatal_text(F f) {
  try {
    f();
  } catch (const error::EFatal& e) {
    return e.text();
  }
  return "(accepted)";
}

std::string load_error(const std::string& text) {
  return fatal_text([&] { parse_json_database(text); });
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

// The other conversions are checked byte for byte by the end-to-end export
// of tests/data/e2e_types.json; these forms appear only in the sample.
TEST(SampleDatabase, DatesBefore1970AndMarkupTextLoadAsWritten) {
  EXPECT_EQ(sample().find("node-bram-gw1")->findProperty("installed")->value, Value(int32_t{-3600}));
  EXPECT_EQ(sample().find("dom-root")->findProperty("created")->value, Value(int32_t{1204329600}));
  EXPECT_EQ(sample().find("dom-root")->findProperty("description")->value,
            Value(std::string("Racks A & B <main> \"east\" 'wing'\nsecond floor")));
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

// Series of every datatype, including rows the exporter must cope with: an
// interval ending before it starts and times before 1970.
TEST(SampleDatabase, HistoryOfEveryDatatypeWithInvalidRows) {
  std::set<int32_t> datatypes;
  bool badOrder = false, negative = false;
  for (const auto& o : walk(sample())) {
    for (const PropertyValue& p : o->properties) {
      auto h = sample().history(o->id, p.name);
      if ((p.type & protocol::kPropTypeMask) != kTypeIndex || !h) {
        EXPECT_EQ(h, nullptr);  // history only of Index properties
        continue;
      }
      datatypes.insert(h->dataType);
      for (const Interval& row : h->intervals) {
        if (auto* c = std::get_if<ContinuousRow>(&row)) {
          badOrder |= c->start > c->end;
          negative |= c->start < 0;
        } else if (auto* i = std::get_if<IncidentRow>(&row)) {
          negative |= i->time < 0;
        }
      }
    }
  }
  EXPECT_EQ(datatypes, (std::set<int32_t>{2, 3, 4, 5, 6}));
  EXPECT_TRUE(badOrder && negative);
  EXPECT_EQ(std::get<ContinuousRow>(sample().history("chk-bram-gw1-ping", "responseTime")->intervals.at(0)),
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

// One document per check of the loader, with the message it must give.
TEST(JsonValidation, NamesTheFault) {
  const std::string longId(33, 'a');
  const struct {
    std::string text;
    std::string message;
  } cases[] = {
      {"[]", "database: must be a JSON object"},
      {R"({"rootDomain": "r"})", "database: field \"objects\" is missing"},
      {doc("").insert(1, R"("extra": 1, )"), "database: unknown field \"extra\""},
      {R"({"objects": [], "rootDomain": "zz", "mibRoot": "m", "users": []})",
       "database: rootDomain \"zz\" does not exist"},
      {doc("").replace(doc("").find("\"users\": []"), 11, R"("users": [{"domain": ".", "name": "a"}])"),
       "users[0]: field \"password\" is missing"},
      // Properties.
      {doc(node_with(R"({"name": "p", "type": "Strin", "value": "a"})")),
       "object \"x\", property \"p\": unknown type \"Strin\""},
      {doc(node_with(R"({"name": "p", "type": 3, "value": 2147483648})")),
       "object \"x\", property \"p\": value 2147483648 does not fit type Integer"},
      {doc(node_with(R"({"name": "p", "type": "Date", "value": "2008-02-30T00:00:00Z"})")),
       "object \"x\", property \"p\": value \"2008-02-30T00:00:00Z\" does not fit type Date"},
      {doc(node_with(R"({"name": "p", "enum": 4, "value": "up"})")),
       "object \"x\", property \"p\": value \"up\" does not fit type Enumeration(4)"},
      {doc(node_with(R"({"name": "p", "type": 9, "value": 1})")),
       "object \"x\", property \"p\": type code 9 has no value class; give \"valueClass\""},
      {doc(node_with(R"({"name": "p", "type": "Integer", "enum": 2, "value": 1})")),
       "object \"x\", property \"p\": give exactly one of \"type\", \"enum\" and \"typeWord\""},
      {doc(node_with(R"({"name": "p", "type": 3, "value": 1}, {"name": "p", "type": 3, "value": 2})")),
       "object \"x\": duplicate property \"p\""},
      // Objects and the tree.
      {doc(R"({"class": "Node"})"), "object at children[0] of \"r\": field \"id\" is missing"},
      {doc(R"({"class": "Node", "id": ""})"), "object \"\": id is empty"},
      {doc(R"({"class": "Node", "id": ")" + longId + R"("})"),
       "object \"" + longId + "\": id is longer than 32 octets (33)"},
      {doc(R"({"class": "Node", "id": "x", "childs": []})"), "object \"x\": unknown field \"childs\""},
      {doc(R"("ghost")"), "object \"r\": child \"ghost\" does not exist"},
      {doc(R"({"class": "Node", "id": "n"})", "[]", R"(, {"class": "X", "id": "y", "children": ["n"]})"),
       "object \"n\": child of both \"r\" and \"y\""},
      {doc("", "[]", R"(, {"class": "X", "id": "a", "children": ["b"]}, {"class": "X", "id": "b", "children": ["a"]})"),
       "object \"a\": is its own ancestor"},
      // History.
      {doc("", series("5", "")), "history of \"x\" index \"v\": object \"x\" does not exist"},
      {doc(kIndexed, series("5", "", "s")), "history of \"x\" index \"s\": the object has no Index property \"s\""},
      {doc(kIndexed, series("18", "")),
       "history of \"x\" index \"v\": datatype must be a datatype name or a number from 0 to 17, not 18"},
      {doc(kIndexed, series("9", "{}")),
       "history of \"x\" index \"v\", interval 0: datatype 9 has no record class; give \"class\""},
      {doc(kIndexed, series(R"("enum")", R"({"start": 3000000000, "end": 1, "mask": 1, "ngood": 1, "nbad": 0})")),
       "history of \"x\" index \"v\", interval 0: field \"start\" must be a 32-bit count of seconds or "
       "a time YYYY-MM-DDTHH:MM:SSZ, not 3000000000"},
      {doc(kIndexed, R"([{"object": "x", "index": "v", "datatype": 5, "intervals": []},
                         {"object": "x", "index": "v", "datatype": 4, "intervals": []}])"),
       "history of \"x\" index \"v\": given twice"},
  };
  for (const auto& c : cases) EXPECT_EQ(load_error(c.text), c.message);
}

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
  EXPECT_EQ(fatal_text([] { load_json_database("/nonexistent/db.json"); }),
            "Cannot read database file \"/nonexistent/db.json\": No such file or directory");
  std::string path = testing::TempDir() + "server_database_test.json";
  std::ofstream(path) << doc(R"({"class": "Node", "id": "r"})");
  EXPECT_EQ(fatal_text([&] { load_json_database(path); }), path + ": object \"r\": duplicate id");
  std::filesystem::remove(path);
}

// --- the generator -----------------------------------------------------------

std::vector<uint64_t> as_list(const GeneratedCounts& c) {
  return {c.domains, c.nodes, c.checks, c.objects, c.historyRows};
}

// The counts of a shape, and a walk of the generated tree finding exactly
// them: unique domain labels, and a series of the right record class on
// every check and nowhere else.
TEST(Generator, WalkMatchesTheCounts) {
  const struct {
    GeneratorShape shape;
    std::vector<uint64_t> counts;  // domains, nodes, checks, objects, history rows
  } cases[] = {
      {{2, 1, 10, 5, 10}, {3, 30, 150, 191, 1500}},
      {{1, 4, 1, 0, 7}, {5, 5, 0, 18, 0}},
      {{5, 0, 0, 3, 3}, {1, 0, 0, 9, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.counts[3]);
    EXPECT_EQ(as_list(generated_counts(c.shape)), c.counts);
    auto db = make_generated_database(c.shape);
    GeneratedCounts walked;
    std::set<std::string> labels;
    for (const auto& o : walk(*db)) {
      ++walked.objects;
      if (o->className == "Domain") {
        ++walked.domains;
        EXPECT_TRUE(labels.insert(std::get<std::string>(o->findProperty("treeLabel")->value)).second);
      }
      walked.nodes += o->className == "Node";
      auto h = db->history(o->id, "value");
      if (o->className != "Check") {
        EXPECT_EQ(h, nullptr);
        continue;
      }
      ++walked.checks;
      ASSERT_NE(h, nullptr) << o->id;
      ASSERT_EQ(h->intervals.size(), c.shape.rowsPerCheck);
      walked.historyRows += h->intervals.size();
      for (const Interval& row : h->intervals) {
        size_t expected = h->dataType == 5 ? 0 : h->dataType == 3 ? 2 : h->dataType == 4 ? 3 : 1;
        EXPECT_EQ(row.index(), expected) << o->id;
      }
    }
    EXPECT_EQ(as_list(walked), c.counts);
  }
}

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
  // Each object has exactly one id: other spellings and positions outside
  // the shape find nothing.
  for (const char* id : {"", "d", "d1001001", "d01", "d-1", "d0x", "n0.", "n1001000.1000", "n0.01",
                         "c0.0.100", "c0.0.00", "c0.0.0.", "mibo3", "c00000000000000000000000000000000"}) {
    EXPECT_EQ(db->find(id), nullptr) << id;
    EXPECT_EQ(db->history(id, "value"), nullptr) << id;
  }
  auto h1 = db->history("c1001000.999.99", "value");
  auto h2 = db->history("c1001000.999.99", "value");
  ASSERT_NE(h1, nullptr);
  EXPECT_EQ(h1.use_count(), 1);
  EXPECT_EQ(h1->dataType, 4);  // checks cycle continuous, sawtooth, accumulation, enum, incidents
  EXPECT_EQ(h1->intervals, h2->intervals);
  EXPECT_EQ(db->history("c7.3.4", "other"), nullptr);
  EXPECT_EQ(db->history("c7.3.1", "value")->dataType, 2);
  EXPECT_EQ(db->history("c7.3.2", "value")->dataType, 6);
}

TEST(Generator, RefusesShapesOutsideTheLimits) {
  const struct {
    GeneratorShape shape;
    const char* message;
  } cases[] = {
      {{0, 1, 1, 1, 1}, "Database shape: fanout 0 is outside 1..1000"},
      {{2, 31, 1, 1, 1}, "Database shape: depth 31 is outside 0..30"},
      {{2, 1, 1, 1, 100001}, "Database shape: rowsPerCheck 100001 is outside 0..100000"},
      {{1000, 30, 0, 0, 0}, "Database shape: more than 2^31 domains"},
      {{1000, 2, 1000000, 10000, 0}, "Database shape: more than 2^48 objects"},
  };
  for (const auto& c : cases) EXPECT_EQ(fatal_text([&] { make_generated_database(c.shape); }), c.message);
}

TEST(Generator, ParsesShapeTexts) {
  GeneratorShape s = parse_generator_shape("3x10x5x20/2");
  EXPECT_EQ(std::vector<uint32_t>({s.fanout, s.nodesPerDomain, s.checksPerNode, s.rowsPerCheck, s.depth}),
            std::vector<uint32_t>({3, 10, 5, 20, 2}));
  EXPECT_EQ(parse_generator_shape("1x0x0x0").depth, 1u);
  for (const char* bad : {"", "3x10x5", "3x10x5x20/", "3x10x5x20/2x", "03x1x1x1", "3x1x1x1x1", "3 x1x1x1",
                          "99999999999x1x1x1"}) {
    const std::string text = fatal_text([&] { parse_generator_shape(bad); });
    EXPECT_EQ(text.rfind("Bad database shape \"" + std::string(bad) + "\": ", 0), 0u) << text;
  }
}

}  // namespace
}  // namespace server
