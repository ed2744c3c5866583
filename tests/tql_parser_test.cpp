#include "tql/parser.h"

#include <cstdio>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "protocol/messages.h"
#include "support/error_text.h"
#include "util/bignum.h"
#include "util/error.h"

namespace {

using namespace protocol;  // NOLINT(build/namespaces)

// A compact rendering of a parsed tree, so that each table row states the
// whole tree it expects:
//   step  := className " f" flags [" n" number] [" [" props "]"]
//            [" {" cond (" & " cond)* "}"]
//            [" > (" step (" | " step)* [" : " step (" | " step)*] ")"]
//   cond  := propName " op" code " t0x" typeWord(hex) " " value
//   value := "text" | ["id",...] | int:N | uint:N | big:N | true | false | null
std::string renderValue(const BerConstructed* data) {
  if (auto* v = dynamic_cast<const StringProp*>(data)) return "\"" + v->value + "\"";
  if (auto* v = dynamic_cast<const SignedIntProp*>(data)) return "int:" + std::to_string(v->value);
  if (auto* v = dynamic_cast<const UnsignedIntProp*>(data)) return "uint:" + std::to_string(v->value);
  if (auto* v = dynamic_cast<const BigNumProp*>(data)) return "big:" + util::bn_to_string(v->value);
  if (auto* v = dynamic_cast<const BooleanProp*>(data)) return v->value ? "true" : "false";
  if (auto* v = dynamic_cast<const StringListProp*>(data)) {
    std::string out;
    for (const std::string& id : v->value) out += (out.empty() ? "\"" : ",\"") + id + "\"";
    return "[" + out + "]";
  }
  return dynamic_cast<const NullProp*>(data) != nullptr ? "null" : "<other value>";
}

// Each item of `items` rendered, after `open` first and `sep` between.
template <class List, class F>
std::string joined(const List& items, const char* open, const char* sep, F render) {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) out += (i ? sep : open) + render(items[i]);
  return out;
}

std::string render(const PathPattern& step) {
  std::string out = step.className + " f" + std::to_string(step.flags);
  if (step.hasNumber) out += " n" + std::to_string(step.number);
  out += joined(step.properties, " [", ",", [](const std::string& p) { return p; });
  if (!step.properties.empty()) out += "]";
  out += joined(step.conditions, " {", " & ", [](const auto& c) {
    char type[16];
    std::snprintf(type, sizeof type, " t0x%x ", c->prop->type);
    return c->prop->name + " op" + std::to_string(c->op) + type + renderValue(c->prop->data.get());
  });
  if (!step.conditions.empty()) out += "}";
  if (step.children.empty() && step.colonChildren.empty()) return out;
  const auto sub = [](const auto& child) { return render(*child); };
  return out + " > (" + joined(step.children, "", " | ", sub) +
         joined(step.colonChildren, " : ", " | ", sub) + ")";
}

std::string parsed(const std::string& pattern) { return render(*tql::parse(pattern)); }

const std::pair<const char*, const char*> kTrees[] = {
    // Steps; modifiers in any order and repeated; the number wraps in 32 bits.
    {"Node - $ ! # *", "Node f31"}, {"Node!!*!", "Node f3"}, {"Node=4294967297", "Node f0 n1"},
    {"Node [ name , id,x_1 ]", "Node f0 [name,id,x_1]"},
    {"Node! =3 [name] {id = \"x\"} > .", "Node f2 n3 [name] {id op0 t0x7 \"x\"} > (. f0)"},
    {"A > (B | C : D)", "A f0 > (B f0 | C f0 : D f0)"},
    {"A > (B > (C : D) : E)", "A f0 > (B f0 > (C f0 : D f0) : E f0)"},
    // Conditions; unsigned, Index and BigNum constants (plain and T keep the low 32 bits).
    {"A{true}", "A f0"}, {"A{true and a = 1}", "A f0 {a op0 t0x2 uint:1}"},
    {"A{a = 1 & b = 2 and c = 0007}",
     "A f0 {a op0 t0x2 uint:1 & b op0 t0x2 uint:2 & c op0 t0x2 uint:7}"},
    {"A{a = 4294967296}", "A f0 {a op0 t0x2 uint:0}"}, {"A{a = 4294967301T}", "A f0 {a op0 t0xa uint:5}"},
    {"A{a = 18446744073709551615}", "A f0 {a op0 t0x2 uint:4294967295}"},
    {"A{a = 18446744073709551616B}", "A f0 {a op0 t0x12 big:18446744073709551616}"},
    // Signed constants, wrapping in 32 bits.
    {"A{a = -5}", "A f0 {a op0 t0x3 int:-5}"}, {"A{a = -}", "A f0 {a op0 t0x3 int:0}"},
    {"A{a = +4294967295}", "A f0 {a op0 t0x3 int:-1}"},
    // Strings (escapes resolved, not translated) and the "id" rule.
    {R"(A{name = "a\"b\nc"})", R"(A f0 {name op0 t0x6 "a"bnc"})"},
    {"A{id = \"abc\"}", "A f0 {id op0 t0x7 \"abc\"}"}, {"A{idx = \"abc\"}", "A f0 {idx op0 t0x6 \"abc\"}"},
    {"A{name = \"abc\"I}", "A f0 {name op0 t0x7 \"abc\"}"},
    {"A{name = \"\"I}", "A f0 {name op0 t0x7 null}"}, {"A{id = \"\"}", "A f0 {id op0 t0x7 \"\"}"},
    {"A{oid = \"1.3.6.1\"S}", "A f0 {oid op0 t0xf \"1.3.6.1\"}"},
    {"A{id = \"1.3\"S}", "A f0 {id op0 t0xf \"1.3\"}"},
    // Booleans and one constant of each enumeration.
    {"A{up = true}", "A f0 {up op0 t0x1 true}"}, {"A{up = bool_null}", "A f0 {up op0 t0x1 null}"},
    {"A{s = ES_ALERT}", "A f0 {s op0 t0x10005 uint:13}"},
    {"A{n = NOTIFY_AsAlert}", "A f0 {n op0 t0x1000e uint:2}"},
    {"A{r = RIF_Table}", "A f0 {r op0 t0x10009 uint:8}"},
    {"A{t = NRT_Grouping}", "A f0 {t op0 t0x10015 uint:4}"},
    // ObjectSet lists; {"a"I} keeps the quote and loses the I.
    {"A{id in {\"a\", \"b\"}}", "A f0 {id op8 t0x8 [\"a\",\"b\"]}"},
    {"A{id in { }}", "A f0 {id op8 t0x8 []}"}, {"A{ids = {[}}", "A f0 {ids op0 t0x8 [\"\"]}"},
    {"A{ids = {\"a\"I}}", "A f0 {ids op0 t0x8 [\"a\"\"]}"},
    {"A{ids = {\"a\"} & b = 1}", "A f0 {ids op0 t0x8 [\"a\"] & b op0 t0x2 uint:1}"},
};

TEST(ParserTest, Trees) {
  for (const auto& [pattern, tree] : kTrees) EXPECT_EQ(parsed(pattern), tree) << "pattern: " << pattern;
  const std::pair<const char*, int> operators[] = {
      {"==", 0}, {">", 1}, {"<", 2}, {">=", 3}, {"<=", 4}, {"<>", 5}, {"!=", 5}, {"~=", 6}, {"!~", 7},
      {"in", 8}, {"intersects", 9}, {"subsetof", 10}, {"supersetof", 11}, {"isubstr", 12}};
  for (const auto& [op, code] : operators) {
    EXPECT_EQ(parsed(std::string("A{a ") + op + " 1}"),
              "A f0 {a op" + std::to_string(code) + " t0x2 uint:1}");
  }
}

// Every error text, followed in the full text by ": parsing " and the pattern.
const std::pair<const char*, const char*> kErrors[] = {
    // Class names and the end; "!=" is one token.
    {"node", "Expected class name got: \"node\""}, {"Node!=3", "Extra input at end of expression"},
    // The number after "=".
    {"A = -3", "Expected constant got: \"-3\" after parsing '='(1)."},
    {"A = 3T", "Expected constant(2) got: \"3T\" after parsing '='(2)."},
    // Property names and conditions.
    {"A[Name]", "Expected property name got: \"Name\" after parsing '['"},
    {"A[a b]", "Expected ] got: \"b\""},
    {"A{a = 1 and Name = 2}", "Expected property name got: \"Name\" after parsing '{'"},
    {"A{a !=~ 1}", "Expected relational operator got: \"!=~\""},
    {"A{a =< 1}", "Expected constant but got: \"<\""}, {"A{a = 1 | b = 2}", "Expected } got: \"|\""},
    // Constants.
    {"A{a =", "Expected constant got: \"\" (blank)"},
    {"A{a = -5T}", "Expected constant got: \"-5T\" after parsing '+/-'"},
    {"A{a = ES_Warn}", "Expected constant got: \"ES_Warn\" (ES_unknown)"},
    {"A{a = NOTIFY_X}", "Expected constant got: \"NOTIFY_X\" (NOTIFY_unknown"},
    {"A{a = RIF_TABLE}", "Expected constant got: \"RIF_TABLE\" (RIF_unknown)"},
    {"A{a = NRT_}", "Expected constant got: \"NRT_\" (NRT_unknown)"},
    {"A{a in {\"x\",}}", "Expected id got: \"}\""},
    {"A{a in {\"x\" \"y\"}}", "Expected } but got: \"\"y\"\""},
    // Children; lexical errors pass through the same handler.
    {"A > (B : C : D)", "Expected ) got: \":\""}, {"_A", "Expected class name got: \"_\""},
    {"A{a\t= 1}", "Expected relational operator got: \"\t\""},  // only a space is blank
    {"A{a = \"x}", "Unterminated string literal"}, {"A{a = \"x\\", "Unterminated string literal"},
};

TEST(ParserTest, ErrorTexts) {
  for (const auto& [pattern, message] : kErrors) {
    EXPECT_EQ(support::errorText<util::EParseError>([&] { tql::parse(pattern); }),
              std::string(message) + ": parsing " + pattern);
  }
  for (const char* pattern : {"A{a = 18446744073709551616}", "A{a = 18446744073709551616T}"}) {
    EXPECT_EQ(support::errorText<util::ERange>([&] { tql::parse(pattern); }),
              std::string("Cannot fit 65 bits in uint64_t: parsing ") + pattern);
  }
}

TEST(ParserTest, NestingIsBoundedWithoutExhaustingTheStack) {
  std::string deep = "A";
  for (int i = 1; i < tql::kMaxPatternDepth; ++i) deep += " > A";
  EXPECT_EQ(support::errorText<util::EParseError>([&] { tql::parse(deep); }), "(no error)");
  std::string nested = "A";
  for (int i = 0; i < 100000; ++i) nested += " > (A";
  for (const std::string& pattern : {deep + " > A", nested}) {
    const std::string text = support::errorText<util::EParseError>([&] { tql::parse(pattern); });
    EXPECT_EQ(text.substr(0, 48), "Pattern nested deeper than 1000 steps: parsing A");
  }
}

}  // namespace
