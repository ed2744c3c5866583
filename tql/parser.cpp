#include "tql/parser.h"

#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "protocol/property_codec.h"
#include "protocol/property_types.h"
#include "tql/lexer.h"
#include "util/bignum.h"
#include "util/error.h"

namespace tql {

namespace {

using enum protocol::PropertyType;
using protocol::kPropEnumeration;

struct NamedCode {
  const char* name;
  int32_t code;
};

constexpr NamedCode kOperators[] = {
    {"=", kOpEqual},           {"==", kOpEqual},         {">", kOpGreater},
    {"<", kOpLess},            {">=", kOpGreaterEqual},  {"<=", kOpLessEqual},
    {"<>", kOpNotEqual},       {"!=", kOpNotEqual},      {"~=", kOpMatch},
    {"!~", kOpNoMatch},        {"in", kOpIn},            {"intersects", kOpIntersects},
    {"subsetof", kOpSubsetOf}, {"supersetof", kOpSupersetOf}, {"isubstr", kOpISubstr},
};

constexpr NamedCode kEsNames[] = {
    {"ES_NA", 0},           {"ES_GOOD", 1},          {"ES_DOWN_GOOD", 2},
    {"ES_DEPEND_GOOD", 3},  {"ES_DOWN_UNKNOWN", 4},  {"ES_DEPEND_UNKNOWN", 5},
    {"ES_DOWN_WARN", 6},    {"ES_DEPEND_WARN", 7},   {"ES_DOWN_ALERT", 8},
    {"ES_DEPEND_ALERT", 9}, {"ES_UNINITIALIZED", 10}, {"ES_UNKNOWN", 11},
    {"ES_WARN", 12},        {"ES_ALERT", 13},
};
constexpr NamedCode kNotifyNames[] = {
    {"NOTIFY_None", 0}, {"NOTIFY_AsWarning", 1}, {"NOTIFY_AsAlert", 2}};
constexpr NamedCode kRifNames[] = {
    {"RIF_None", 0}, {"RIF_Intro", 1}, {"RIF_Summary", 2}, {"RIF_Graph", 4}, {"RIF_Table", 8}};
constexpr NamedCode kNrtNames[] = {
    {"NRT_None", 0}, {"NRT_Node", 1}, {"NRT_Domain", 2}, {"NRT_Check", 3}, {"NRT_Grouping", 4}};

// An enumeration constant family: names starting with `prefix` must be one
// of `names`; anything else with the prefix fails with `unknownTail`. The
// type word is kPropEnumeration | the number of the enumeration.
struct Enumeration {
  const char* prefix;
  uint32_t typeWord;
  const NamedCode* names;
  size_t count;
  const char* unknownTail;
};

constexpr Enumeration kEnumerations[] = {
    {"ES_", kPropEnumeration | 5, kEsNames, std::size(kEsNames), " (ES_unknown)"},
    {"NOTIFY_", kPropEnumeration | 14, kNotifyNames, std::size(kNotifyNames),
     " (NOTIFY_unknown"},
    {"RIF_", kPropEnumeration | 9, kRifNames, std::size(kRifNames), " (RIF_unknown)"},
    {"NRT_", kPropEnumeration | 21, kNrtNames, std::size(kNrtNames), " (NRT_unknown)"},
};

const NamedCode* findName(const NamedCode* table, size_t count, const std::string& name) {
  for (size_t i = 0; i < count; ++i) {
    if (name == table[i].name) return &table[i];
  }
  return nullptr;
}

bool startsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isLower(char c) { return c >= 'a' && c <= 'z'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The enumeration whose prefix `token` starts with, tried in table order.
const Enumeration* findEnumeration(const std::string& token) {
  for (const Enumeration& e : kEnumerations) {
    if (startsWith(token, e.prefix)) return &e;
  }
  return nullptr;
}

std::string quoted(const std::string& token) { return "\"" + token + "\""; }

[[noreturn]] void fail(std::string message) { throw util::EParseError(std::move(message)); }

// Recursive descent over the lexer's tokens with the current token as the
// one token of look-ahead. Every rule leaves the lexer on the first token
// after what it consumed.
class Parser {
 public:
  explicit Parser(const std::string& text) : lexer_(text) {}

  std::unique_ptr<protocol::PathPattern> parsePattern() {
    lexer_.next();
    std::unique_ptr<protocol::PathPattern> root = parseStep(1);
    if (!token().empty()) fail("Extra input at end of expression");
    return root;
  }

 private:
  const std::string& token() const { return lexer_.token(); }
  void next() { lexer_.next(); }

  std::unique_ptr<protocol::PathPattern> parseStep(int depth);
  void parseChildren(protocol::PathPattern& step, int depth);
  void parseNumber(protocol::PathPattern& step);
  void parsePropertyNames(protocol::PathPattern& step);
  void parseConditions(protocol::PathPattern& step);
  void parseConstant(protocol::Property& prop, const std::string& name);
  void parseString(protocol::Property& prop, const std::string& name);
  void parseUnsigned(protocol::Property& prop, const std::string& name);
  void parseSigned(protocol::Property& prop, const std::string& name);
  void parseIdList(protocol::Property& prop, const std::string& name);

  Lexer lexer_;
};

std::unique_ptr<protocol::PathPattern> Parser::parseStep(int depth) {
  if (depth > kMaxPatternDepth) {
    fail("Pattern nested deeper than " + std::to_string(kMaxPatternDepth) + " steps");
  }
  auto step = std::make_unique<protocol::PathPattern>();  // flags 0, no number, no lists

  if (token().empty() || !(isUpper(token()[0]) || token()[0] == '.')) {
    fail("Expected class name got: " + quoted(token()));
  }
  step->className = token();
  next();

  for (;;) {
    const std::string& t = token();
    if (t == "*") step->flags |= kFlagStar;
    else if (t == "!") step->flags |= kFlagBang;
    else if (t == "$") step->flags |= kFlagDollar;
    else if (t == "#") step->flags |= kFlagHash;
    else if (t == "-") step->flags |= kFlagMinus;
    else break;
    next();
  }

  if (token() == "=") parseNumber(*step);
  if (token() == "[") parsePropertyNames(*step);
  if (token() == "{") parseConditions(*step);
  if (token() == ">") {
    next();
    parseChildren(*step, depth);
  }
  return step;
}

void Parser::parseChildren(protocol::PathPattern& step, int depth) {
  if (token() != "(") {
    step.children.push_back(parseStep(depth + 1));
    return;
  }
  do {
    next();
    step.children.push_back(parseStep(depth + 1));
  } while (token() == "|");
  if (token() == ":") {
    do {
      next();
      step.colonChildren.push_back(parseStep(depth + 1));
    } while (token() == "|");
  }
  if (token() != ")") fail("Expected ) got: " + quoted(token()));
  next();
}

void Parser::parseNumber(protocol::PathPattern& step) {
  next();
  const std::string& t = token();
  if (t.empty() || !isDigit(t[0])) {
    fail("Expected constant got: " + quoted(t) + " after parsing '='(1).");
  }
  uint32_t number = 0;  // wraps beyond 32 bits
  for (char c : t) {
    if (!isDigit(c)) fail("Expected constant(2) got: " + quoted(t) + " after parsing '='(2).");
    number = number * 10 + static_cast<uint32_t>(c - '0');
  }
  step.number = number;
  step.hasNumber = true;
  next();
}

void Parser::parsePropertyNames(protocol::PathPattern& step) {
  do {
    next();
    if (token().empty() || !isLower(token()[0])) {
      fail("Expected property name got: " + quoted(token()) + " after parsing '['");
    }
    step.properties.push_back(token());
    next();
  } while (token() == ",");
  if (token() != "]") fail("Expected ] got: " + quoted(token()));
  next();
}

void Parser::parseConditions(protocol::PathPattern& step) {
  do {
    next();
    if (token().empty() || !isLower(token()[0])) {
      fail("Expected property name got: " + quoted(token()) + " after parsing '{'");
    }
    if (token() == "true") {
      next();
    } else {
      const std::string name = token();
      next();
      const NamedCode* op = findName(kOperators, std::size(kOperators), token());
      if (op == nullptr) fail("Expected relational operator got: " + quoted(token()));
      next();
      auto expr = std::make_unique<protocol::RelativeExpr>();
      expr->prop = std::make_unique<protocol::Property>();
      parseConstant(*expr->prop, name);
      expr->op = op->code;
      step.conditions.push_back(std::move(expr));
      next();
    }
  } while (token() == "&" || token() == "and");
  if (token() != "}") fail("Expected } got: " + quoted(token()));
  next();
}

// On return the current token is the constant's last token.
void Parser::parseConstant(protocol::Property& prop, const std::string& name) {
  const std::string& t = token();
  if (t.empty()) fail("Expected constant got: " + quoted(t) + " (blank)");
  if (t[0] == '"') {
    parseString(prop, name);
  } else if (isDigit(t[0])) {
    parseUnsigned(prop, name);
  } else if (t[0] == '+' || t[0] == '-') {
    parseSigned(prop, name);
  } else if (t == "true" || t == "false") {
    protocol::encode_property(prop, name, kTypeBoolean, t == "true");
  } else if (t == "bool_null") {
    protocol::encode_property(prop, name, kTypeBoolean);
  } else if (const Enumeration* e = findEnumeration(t)) {
    const NamedCode* value = findName(e->names, e->count, t);
    if (value == nullptr) fail("Expected constant got: " + quoted(t) + e->unknownTail);
    protocol::encode_property(prop, name, e->typeWord, static_cast<uint32_t>(value->code));
  } else if (t == "{") {
    parseIdList(prop, name);
  } else {
    fail("Expected constant but got: " + quoted(t));
  }
}

// The lexer hands over a literal as '"' content '"' plus an optional suffix
// letter I (Object) or S (SnmpOid).
void Parser::parseString(protocol::Property& prop, const std::string& name) {
  const std::string& t = token();
  const char last = t.back();
  if (last == 'S') {
    protocol::encode_property(prop, name, kTypeSnmpOid, t.substr(1, t.size() - 3));
  } else if (last == 'I' && t.size() == 3) {
    protocol::encode_property(prop, name, kTypeObject);  // an empty literal: a null Object
  } else if (last == 'I') {
    protocol::encode_property(prop, name, kTypeObject, t.substr(1, t.size() - 3));
  } else {
    protocol::encode_property(prop, name, name == "id" ? kTypeObject : kTypeString,
                              t.substr(1, t.size() - 2));
  }
}

// Digits with an optional suffix: T makes an Index, B a BigNum of any size,
// no suffix an Unsigned Integer. Index and Unsigned Integer values must fit
// 64 bits (else util::ERange) and are carried as their low 32 bits.
void Parser::parseUnsigned(protocol::Property& prop, const std::string& name) {
  const std::string& t = token();
  bool index = false;
  bool bignum = false;
  // Digits are taken nine at a time: value = value * 10^k + chunk.
  util::BigNum value;
  uint32_t chunk = 0;
  uint32_t scale = 1;
  auto flush = [&] {
    if (scale == 1) return;
    value = value * util::BigNum(scale) + util::BigNum(chunk);
    chunk = 0;
    scale = 1;
  };
  for (char c : t) {
    if (isDigit(c)) {
      chunk = chunk * 10 + static_cast<uint32_t>(c - '0');
      scale *= 10;
      if (scale == 1000000000) flush();
    } else if (c == 'T') {
      index = true;
    } else if (c == 'B') {
      bignum = true;
    } else {
      fail("Expected constant got: " + quoted(t) + " parsing uint or tsdb idx.");
    }
  }
  flush();
  if (bignum) {
    protocol::encode_property(prop, name, kTypeBigNum, value);
    return;
  }
  const uint64_t wide = util::bn_to_uint64(value);
  protocol::encode_property(prop, name, index ? kTypeIndex : kTypeUnsigned,
                            static_cast<uint32_t>(wide));
}

// A sign and digits, accumulated in 32-bit arithmetic (wrapping); a sign
// alone is 0.
void Parser::parseSigned(protocol::Property& prop, const std::string& name) {
  const std::string& t = token();
  uint32_t magnitude = 0;
  for (size_t i = 1; i < t.size(); ++i) {
    if (!isDigit(t[i])) fail("Expected constant got: " + quoted(t) + " after parsing '+/-'");
    magnitude = magnitude * 10 + static_cast<uint32_t>(t[i] - '0');
  }
  if (t[0] == '-') magnitude = 0u - magnitude;
  protocol::encode_property(prop, name, kTypeInteger, static_cast<int32_t>(magnitude));
}

// "{" id, ... "}" where an id token starts with '"' (or is "["); the id is
// the token without its first and last byte.
void Parser::parseIdList(protocol::Property& prop, const std::string& name) {
  std::vector<std::string> ids;
  next();
  if (token() != "}") {
    for (;;) {
      const std::string& t = token();
      if (t.empty() || (t[0] != '"' && t[0] != '[')) fail("Expected id got: " + quoted(t));
      ids.push_back(t.size() < 2 ? std::string() : t.substr(1, t.size() - 2));
      next();
      if (token() != ",") break;
      next();
    }
    if (token() != "}") fail("Expected } but got: " + quoted(token()));
  }
  protocol::encode_property(prop, name, kTypeObjectSet, ids);
}

}  // namespace

std::unique_ptr<protocol::PathPattern> parse(const std::string& text) {
  try {
    Parser parser(text);
    return parser.parsePattern();
  } catch (util::Exception& e) {
    e.detail += ": parsing " + text;
    throw;
  }
}

}  // namespace tql
