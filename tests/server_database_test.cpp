// The stand-in server's databases: the JSON loader with its validation
// messages, the generated database's shape, ids and limits, and the cache of
// looked-up objects. The values
// the loader converts are checked byte for byte by the end-to-end export.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "server/database_json.h"
#include "server/generator.h"
#include "server/object_cache.h"
#include "support/error_text.h"
#include "support/run_export.h"
#include "util/error.h"

namespace server {
namespace {

// The text of the util::EFatal that `f` throws.
template <class F>
std::string fatal_text(F f) {
  return support::errorText<util::EFatal>(f);
}

std::string load_error(const std::string& text) {
  return fatal_text([&] { parse_json_database(text); });
}

// Every object reachable from the two roots, each checked for its parent
// link and for being reached once.
std::vector<std::shared_ptr<const StoredObject>> walk(const Database& db) {
  std::vector<std::shared_ptr<const StoredObject>> all;
  std::set<std::string> seen;
  std::vector<std::pair<std::string, std::string>> stack = {{db.rootDomainId(), ""}, {db.mibRootId(), ""}};
  while (!stack.empty()) {
    const auto [id, parent] = stack.back();
    stack.pop_back();
    auto o = db.find(id);
    EXPECT_TRUE(o && o->id == id && o->parentId == parent) << "missing or misplaced: " << id;
    if (!o || !seen.insert(id).second) {
      EXPECT_TRUE(o == nullptr) << "reached twice: " << id;
      continue;
    }
    for (const std::string& child : o->children) stack.emplace_back(child, id);
    all.push_back(std::move(o));
  }
  return all;
}

// --- the JSON loader ---------------------------------------------------------

// A database whose root domain "r" has the given children, plus history and
// more top-level objects.
std::string doc(const std::string& children, const std::string& history = "[]", const std::string& more = "") {
  return R"({"rootDomain": "r", "mibRoot": "m", "users": [], "objects": [{"class": "Domain", "id": "r", "children": [)" +
         children + R"(]}, {"class": "MibRoot", "id": "m"})" + more + R"(], "history": )" + history + "}";
}
// A document whose one Node "x" has the given properties.
std::string prop(const std::string& properties) {
  return doc(R"({"class": "Node", "id": "x", "properties": [)" + properties + "]}");
}
const std::string kIndexed = R"({"class": "Check", "id": "x", "properties": [{"name": "v", "type": "Index", "value": 1},
                                {"name": "s", "type": "String", "value": "t"}]})";
std::string series(const std::string& datatype, const std::string& rows, const std::string& index = "v") {
  return R"([{"object": "x", "index": ")" + index + R"(", "datatype": )" + datatype + R"(, "intervals": [)" + rows + "]}]";
}

// One document per check of the loader, with the message it must give.
TEST(JsonDatabase, ValidationNamesTheFault) {
  const std::string longId(33, 'a');
  const std::string x = "object \"x\", property \"p\": ", h = "history of \"x\" index \"v\"";
  const struct {
    std::string text;
    std::string message;
  } cases[] = {
      {R"({"rootDomain": "r"})", "database: field \"objects\" is missing"},
      {doc("").insert(1, R"("extra": 1, )"), "database: unknown field \"extra\""},
      {R"({"objects": [], "rootDomain": "zz", "mibRoot": "m", "users": []})", "database: rootDomain \"zz\" does not exist"},
      // Properties.
      {prop(R"({"name": "p", "type": 9, "value": 1})"), x + "type code 9 has no value class; give \"valueClass\""},
      {prop(R"({"name": "p", "type": "Integer", "enum": 2, "value": 1})"),
       x + "give exactly one of \"type\", \"enum\" and \"typeWord\""},
      {prop(R"({"name": "p", "type": 3, "value": 1}, {"name": "p", "type": 3, "value": 2})"),
       "object \"x\": duplicate property \"p\""},
      // A deeply nested value is only named, never printed.
      {prop(R"({"name": "p", "type": 3, "value": )" + std::string(100000, '[') + std::string(100000, ']') + "}"),
       x + "value an array does not fit type Integer"},
      // Objects and the tree.
      {doc(R"({"class": "Node"})"), "object at children[0] of \"r\": field \"id\" is missing"},
      {doc(R"({"class": "Node", "id": ")" + longId + R"("})"), "object \"" + longId + "\": id is longer than 32 octets (33)"},
      {doc(R"("ghost")"), "object \"r\": child \"ghost\" does not exist"},
      {doc(R"({"class": "Node", "id": "n"})", "[]", R"(, {"class": "X", "id": "y", "children": ["n"]})"),
       "object \"n\": child of both \"r\" and \"y\""},
      {doc("", "[]", R"(, {"class": "X", "id": "a", "children": ["b"]}, {"class": "X", "id": "b", "children": ["a"]})"),
       "object \"a\": is its own ancestor"},
      // History.
      {doc("", series("5", "")), h + ": object \"x\" does not exist"},
      {doc(kIndexed, series("5", "", "s")), "history of \"x\" index \"s\": the object has no Index property \"s\""},
      {doc(kIndexed, series("18", "")), h + ": datatype must be a datatype name or a number from 0 to 17, not 18"},
  };
  for (const auto& c : cases) EXPECT_EQ(load_error(c.text), c.message);
}

// Forms the end-to-end sample does not use: a record class given for a
// datatype without one, a raw type word with its value class, a time before
// 1970.
TEST(JsonDatabase, AcceptsRawFormsAndEarlyTimes) {
  const std::string properties = R"({"name": "raw", "typeWord": 16, "valueClass": "Lob", "value": "xy"},
                                    {"name": "d", "type": "Date", "value": "1969-12-31T23:00:00Z"})";
  auto db = parse_json_database(
      doc(kIndexed, series("9", R"({"class": "incident", "time": -5, "severity": 0, "message": ""})"),
          R"(, {"class": "Node", "id": "y", "properties": [)" + properties + "]}"));
  EXPECT_EQ(db->history("x", "v")->dataType, 9);
  EXPECT_EQ(std::get<IncidentRow>(db->history("x", "v")->intervals.at(0)).time, -5);
  auto y = db->find("y");
  EXPECT_EQ(y->properties.at(0).type, 16u);
  EXPECT_EQ(std::get<LobValue>(y->properties.at(0).value).bytes, "xy");
  EXPECT_EQ(y->findProperty("d")->value, Value(int32_t{-3600}));
}

TEST(JsonDatabase, SyntaxErrorsNestingAndFiles) {
  EXPECT_EQ(load_error("{\"objects\": [").rfind("Database is not valid JSON: ", 0), 0u);
  // Children nested beyond the limit are refused before the stack is at risk.
  std::string nested = R"({"class": "Domain", "id": "m", "children": [)";
  for (int i = 0; i < 1100; ++i) nested += R"({"class": "D", "id": "o)" + std::to_string(i) + R"(", "children": [)";
  for (int i = 0; i < 1100; ++i) nested += "]}";
  EXPECT_EQ(load_error(R"({"rootDomain": "m", "mibRoot": "m", "users": [], "objects": [)" + nested + "]}]}"),
            "object \"o1000\": nested deeper than 1000 levels");
  EXPECT_EQ(fatal_text([] { load_json_database("/nonexistent/db.json"); }),
            "Cannot read database file \"/nonexistent/db.json\": No such file or directory");
  const std::string path = testing::TempDir() + "server_database_test.json";
  std::ofstream(path) << doc(R"({"class": "Node", "id": "r"})");
  EXPECT_EQ(fatal_text([&] { load_json_database(path); }), path + ": object \"r\": duplicate id");
  std::filesystem::remove(path);
}

// --- the generator -----------------------------------------------------------

std::vector<uint64_t> as_list(const GeneratedCounts& c) { return {c.domains, c.nodes, c.checks, c.objects, c.historyRows}; }

// The counts of a shape, and a walk of the generated tree finding exactly
// them: unique domain labels, and a series of the right record class on
// every check and nowhere else.
TEST(Generator, WalkMatchesTheCounts) {
  const struct {
    GeneratorShape shape;
    std::vector<uint64_t> counts;  // domains, nodes, checks, objects, history rows
  } cases[] = {
      {{2, 1, 10, 5, 10}, {3, 30, 150, 191, 1500}},
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
      walked.nodes += o->className == "Node";
      if (o->className == "Domain") {
        ++walked.domains;
        EXPECT_TRUE(labels.insert(std::get<std::string>(o->findProperty("treeLabel")->value)).second);
      }
      auto h = db->history(o->id, "value");
      ASSERT_EQ(h != nullptr, o->className == "Check") << o->id;
      if (!h) continue;
      ++walked.checks;
      ASSERT_EQ(h->intervals.size(), c.shape.rowsPerCheck);
      walked.historyRows += h->intervals.size();
      const size_t recordClass = h->dataType == 5 ? 0 : h->dataType == 3 ? 2 : h->dataType == 4 ? 3 : 1;
      for (const Interval& row : h->intervals) EXPECT_EQ(row.index(), recordClass) << o->id;
    }
    EXPECT_EQ(as_list(walked), c.counts);
  }
}

// The pipelined exports of generated shapes ask for objects again and again
// and would tell answers changing between calls.
TEST(Generator, IdsAtTheEdgesOfAHugeShapeAndNothingKept) {
  // 1001001 domains, 10^9 nodes, 10^11 checks.
  auto db = make_generated_database({1000, 2, 1000, 100, 5});
  for (const char* id : {"d0", "d1001000", "n1001000.999", "c1001000.999.99", "c7.3.4", "mib", "mibo2"}) {
    auto o = db->find(id);
    ASSERT_NE(o, nullptr) << id;
    EXPECT_EQ(o->id, id);
    EXPECT_EQ(o.use_count(), 1) << id;  // each answer is made for the caller
  }
  // Each object has exactly one id: other spellings and positions outside
  // the shape find nothing.
  for (const char* id : {"", "d1001001", "d01", "d0x", "n0.", "n1001000.1000", "c0.0.100", "mibo3"}) {
    EXPECT_EQ(db->find(id), nullptr) << id;
    EXPECT_EQ(db->history(id, "value"), nullptr) << id;
  }
  auto h = db->history("c1001000.999.99", "value");
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h.use_count(), 1);
  // Checks cycle continuous, sawtooth, accumulation, enum, incidents.
  EXPECT_EQ(h->dataType, 4);
  EXPECT_EQ(db->history("c7.3.1", "value")->dataType, 2);
  EXPECT_EQ(db->history("c7.3.2", "value")->dataType, 6);
  EXPECT_EQ(db->history("c7.3.4", "other"), nullptr);
}

TEST(Generator, RefusesShapesOutsideTheLimits) {
  const struct {
    GeneratorShape shape;
    const char* message;
  } cases[] = {
      {{0, 1, 1, 1, 1}, "Database shape: fanout 0 is outside 1..1000"},
      {{2, 1, 1, 1, 100001}, "Database shape: rowsPerCheck 100001 is outside 0..100000"},
      {{1000, 30, 0, 0, 0}, "Database shape: more than 2^31 domains"},
      {{1000, 2, 1000000, 10000, 0}, "Database shape: more than 2^48 objects"},
  };
  for (const auto& c : cases) EXPECT_EQ(fatal_text([&] { make_generated_database(c.shape); }), c.message);
}

TEST(Generator, ParsesShapeTexts) {
  const GeneratorShape s = parse_generator_shape("3x10x5x20/2");
  EXPECT_EQ(std::vector<uint32_t>({s.fanout, s.nodesPerDomain, s.checksPerNode, s.rowsPerCheck, s.depth}),
            std::vector<uint32_t>({3, 10, 5, 20, 2}));
  EXPECT_EQ(parse_generator_shape("1x0x0x0").depth, 1u);
  for (const char* bad : {"3x10x5", "3x10x5x20/", "03x1x1x1", "3x1x1x1x1", "99999999999x1x1x1"}) {
    const std::string text = fatal_text([&] { parse_generator_shape(bad); });
    EXPECT_EQ(text.rfind("Bad database shape \"" + std::string(bad) + "\": ", 0), 0u) << text;
  }
}

// Counts the lookups that reach the database.
class CountingDatabase : public support::ForwardingDatabase {
 public:
  CountingDatabase() : ForwardingDatabase(make_generated_database({3, 2, 10, 1, 1})) {}
  std::shared_ptr<const StoredObject> find(const std::string& id) const override {
    ++finds;
    return inner_->find(id);
  }
  mutable int finds = 0;
};

// Recent objects are not looked up again, and the cache stays within two
// generations of its capacity however long the walk.
TEST(ObjectCache, KeepsTheRecentObjectsWithinTwoGenerations) {
  const struct {
    std::vector<const char*> ids;
    int finds;  // lookups reaching the database
  } cases[] = {
      {{"d0", "d0", "d0"}, 1},
      {{"d0", "d1", "d2", "d0", "d1"}, 3},        // d0 and d1 from the previous generation
      {{"d0", "d1", "d2", "d3", "d4", "d0"}, 6},  // d0 dropped with its generation
      {{"d0", "d1", "d2", "d0", "d3", "d4", "d0"}, 5},  // d0 moved up, so kept
      {{"zz", "zz", "d9"}, 3},                    // nothing found is not remembered
  };
  for (const auto& k : cases) {
    CountingDatabase db;
    ObjectCache cache(2);
    for (const char* id : k.ids) {
      auto o = cache.find(db, id);
      if (o) {
        EXPECT_EQ(o->id, id);
      }
    }
    EXPECT_EQ(db.finds, k.finds) << k.ids.size();
  }
  CountingDatabase db;
  ObjectCache cache(3);
  for (int i = 0; i < 10; ++i) {
    for (int j = 0; j < 2; ++j) ASSERT_NE(cache.find(db, "c" + std::to_string(i % 4) + "." + std::to_string(j) + ".0"), nullptr);
    EXPECT_LE(cache.cached(), 6u);
  }
}

}  // namespace
}  // namespace server
