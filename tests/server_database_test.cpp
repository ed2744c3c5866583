// The stand-in server's databases: the JSON loader's validation messages,
// and the generated database's shape texts and limits. The values the loader
// converts are checked byte for byte by the end-to-end export, and generated
// trees are exported by the pipelined export tests.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "server/database_json.h"
#include "server/generator.h"
#include "support/error_text.h"
#include "util/error.h"

namespace server {
namespace {

// The text of the util::EFatal that `f` throws, "(no error)" when none.
constexpr auto fatal_text = [](auto f) { return support::errorText<util::EFatal>(f); };

// --- the JSON loader ---------------------------------------------------------

// A database whose root domain "r" has the given children and history.
std::string doc(const std::string& children, const std::string& history = "[]") {
  return R"({"rootDomain": "r", "mibRoot": "m", "users": [], "objects": [{"class": "Domain", "id": "r", "children": [)" +
         children + R"(]}, {"class": "MibRoot", "id": "m"}], "history": )" + history + "}";
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

// Children nested 1100 levels deep below the root domain.
std::string nested_doc() {
  std::string nested;
  for (int i = 0; i < 1100; ++i) nested += R"({"class": "D", "id": "o)" + std::to_string(i) + R"(", "children": [)";
  for (int i = 0; i < 1100; ++i) nested += "]}";
  return doc(nested);
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
      {prop(R"({"name": "p", "type": 9, "value": 1})"), x + "type code 9 has no value class; give \"valueClass\""},
      {prop(R"({"name": "p", "type": "Integer", "enum": 2, "value": 1})"),
       x + "give exactly one of \"type\", \"enum\" and \"typeWord\""},
      {prop(R"({"name": "p", "type": 3, "value": 1}, {"name": "p", "type": 3, "value": 2})"),
       "object \"x\": duplicate property \"p\""},
      // A deeply nested value is only named, never printed.
      {prop(R"({"name": "p", "type": 3, "value": )" + std::string(100000, '[') + std::string(100000, ']') + "}"),
       x + "value an array does not fit type Integer"},
      {doc(R"({"class": "Node"})"), "object at children[0] of \"r\": field \"id\" is missing"},
      {doc(R"({"class": "Node", "id": ")" + longId + R"("})"), "object \"" + longId + "\": id is longer than 32 octets (33)"},
      {doc(R"({"class": "Node", "id": "r"})"), "object \"r\": duplicate id"},
      {doc(R"("ghost")"), "object at children[0] of \"r\": must be a JSON object"},
      // Refused before the stack is at risk.
      {nested_doc(), "object \"o1000\": nested deeper than 1000 levels"},
      {doc("", series("5", "")), h + ": object \"x\" does not exist"},
      {doc(kIndexed, series("5", "", "s")), "history of \"x\" index \"s\": the object has no Index property \"s\""},
      {doc(kIndexed, series("18", "")), h + ": datatype must be a datatype name or a number from 0 to 17, not 18"},
  };
  for (const auto& c : cases) EXPECT_EQ(fatal_text([&] { parse_json_database(c.text); }), c.message);
  EXPECT_EQ(fatal_text([] { parse_json_database("{\"objects\": ["); }).rfind("Database is not valid JSON: ", 0), 0u);
  EXPECT_EQ(fatal_text([] { load_json_database("/nonexistent/db.json"); }),
            "Cannot read database file \"/nonexistent/db.json\": No such file or directory");
  const std::string path = testing::TempDir() + "server_database_test.json";
  std::ofstream(path) << doc(R"({"class": "Node", "id": "r"})");
  EXPECT_EQ(fatal_text([&] { load_json_database(path); }), path + ": object \"r\": duplicate id");
  std::filesystem::remove(path);
}

// --- the generator -----------------------------------------------------------

std::string counts_text(const GeneratedCounts& c) {
  return std::to_string(c.domains) + " " + std::to_string(c.nodes) + " " + std::to_string(c.checks) + " " +
         std::to_string(c.objects) + " " + std::to_string(c.historyRows);
}

// A shape text: its counts ("domains nodes checks objects rows") or the
// failure's text.
TEST(Generator, ShapeTextsCountsAndLimits) {
  const std::string expected = "expected FANOUTxNODESxCHECKSxROWS/DEPTH";
  const struct {
    const char* text;
    std::string outcome;
  } cases[] = {
      {"2x10x5x10", "3 30 150 191 1500"},
      {"5x0x3x3/0", "1 0 0 9 0"},
      {"3x1x0x0/2", "13 13 0 34 0"},
      {"0x1x1x1", "Database shape: fanout 0 is outside 1..1000"},
      {"2x1x1x100001", "Database shape: rowsPerCheck 100001 is outside 0..100000"},
      {"1000x0x0x0/30", "Database shape: more than 2^31 domains"},
      {"1000x1000000x10000x0/2", "Database shape: more than 2^48 objects"},
      {"3x10x5", "Bad database shape \"3x10x5\": " + expected},
      {"3x10x5x20/", "Bad database shape \"3x10x5x20/\": " + expected},
      {"03x1x1x1", "Bad database shape \"03x1x1x1\": " + expected},
      {"3x1x1x1x1", "Bad database shape \"3x1x1x1x1\": " + expected},
      {"99999999999x1x1x1", "Bad database shape \"99999999999x1x1x1\": " + expected},
      {"3x10x5x20/2x", "Bad database shape \"3x10x5x20/2x\": text after the depth"},
  };
  for (const auto& c : cases) {
    GeneratedCounts counts;
    const std::string failure = fatal_text([&] { counts = generated_counts(parse_generator_shape(c.text)); });
    EXPECT_EQ(failure == "(no error)" ? counts_text(counts) : failure, c.outcome) << c.text;
  }
}

}  // namespace
}  // namespace server
