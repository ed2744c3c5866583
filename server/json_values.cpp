#include "server/json_values.h"

#include <array>
#include <cmath>
#include <limits>
#include <optional>

#include "protocol/property_types.h"
#include "util/error.h"

namespace server::json_format {

namespace {

using enum protocol::PropertyType;

constexpr size_t kMaxPropertyName = 128;
constexpr size_t kMaxString = 1024;
constexpr size_t kMaxBlob = 2048;
constexpr size_t kMaxLob = 2097152;
constexpr size_t kMaxMessage = 65536;
constexpr size_t kMaxBigNumDigits = 4096;

struct NamedCode {
  const char* name;
  uint32_t code;
};

constexpr std::array<NamedCode, 17> kTypeNames = {{
    {"Boolean", kTypeBoolean}, {"Unsigned Integer", kTypeUnsigned}, {"Integer", kTypeInteger},
    {"Real", kTypeReal}, {"Date", kTypeDate}, {"String", kTypeString}, {"Object", kTypeObject},
    {"ObjectSet", kTypeObjectSet}, {"Index", kTypeIndex}, {"StringList", kTypeStringList},
    {"Blob", kTypeBlob}, {"Gid", kTypeGid}, {"GidList", kTypeGidList}, {"SnmpOid", kTypeSnmpOid},
    {"Int64", kTypeInt64}, {"BigNum", kTypeBigNum}, {"Lob", kTypeLob},
}};

// Names of the value classes, by alternative number (Value::index()).
constexpr std::array<const char*, 13> kClassNames = {
    "String", "StringList", "SignedInt", "UnsignedInt", "Real",
    "Boolean", "Null", "Blob", "UnsignedIntList", "SignedInt64",
    "UnsignedInt64", "BigNum", "Lob"};
enum ValueClass : int {
  kString, kStringList, kSignedInt, kUnsignedInt, kReal, kBoolean, kNull,
  kBlob, kUnsignedIntList, kSignedInt64, kUnsignedInt64, kBigNum, kLob
};

constexpr std::array<const char*, 7> kDatatypeNames = {
    "rawDEPRECATED", "continuousDEPRECATED", "sawtooth", "enum",
    "incidents", "continuous", "accumulation"};
constexpr int32_t kMaxDatatype = 17;

// Record classes of history rows, by Interval::index().
constexpr std::array<const char*, 6> kRecordNames = {
    "continuous", "sawtooth", "enum", "incident", "continuousDEPRECATED", "rawDEPRECATED"};
enum RecordClass : int { kRecContinuous, kRecSawtooth, kRecEnum, kRecIncident, kRecContDep, kRecRawDep };

std::string in_quotes(const std::string& text) { return "\"" + text + "\""; }

std::optional<int64_t> as_int64(const Json& j) {
  if (j.is_number_unsigned()) {
    uint64_t u = j.get<uint64_t>();
    if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
    return static_cast<int64_t>(u);
  }
  if (j.is_number_integer()) return j.get<int64_t>();
  return std::nullopt;
}

std::optional<double> as_real(const Json& j) {
  if (j.is_number()) return j.get<double>();
  if (j.is_string()) {
    const std::string& s = j.get_ref<const std::string&>();
    if (s == "nan") return std::numeric_limits<double>::quiet_NaN();
    if (s == "inf") return std::numeric_limits<double>::infinity();
    if (s == "-inf") return -std::numeric_limits<double>::infinity();
  }
  return std::nullopt;
}

int64_t days_from_civil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

// "YYYY-MM-DDTHH:MM:SS" with an optional "Z", in UTC.
std::optional<int64_t> parse_date_text(const std::string& s) {
  if (s.size() != 19 && !(s.size() == 20 && s[19] == 'Z')) return std::nullopt;
  static const char kPattern[] = "dddd-dd-ddTdd:dd:dd";
  for (size_t i = 0; i < 19; ++i) {
    if (kPattern[i] == 'd' ? (s[i] < '0' || s[i] > '9') : s[i] != kPattern[i]) return std::nullopt;
  }
  auto num = [&](size_t at, size_t n) {
    int v = 0;
    for (size_t i = 0; i < n; ++i) v = v * 10 + (s[at + i] - '0');
    return v;
  };
  int year = num(0, 4), month = num(5, 2), day = num(8, 2);
  int hour = num(11, 2), minute = num(14, 2), second = num(17, 2);
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12) return std::nullopt;
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  int monthDays = kDays[month - 1] + (month == 2 && leap ? 1 : 0);
  if (day < 1 || day > monthDays || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  return days_from_civil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
         hour * 3600 + minute * 60 + second;
}

std::optional<uint32_t> parse_gid_text(const std::string& s) {
  if (s.size() != 11) return std::nullopt;
  uint32_t value = 0;
  for (size_t i = 0; i < 11; ++i) {
    char c = s[i];
    if (i % 3 == 2) {
      if (c != ':') return std::nullopt;
      continue;
    }
    int digit;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    else return std::nullopt;
    value = value << 4 | static_cast<uint32_t>(digit);
  }
  return value;
}

std::optional<std::string> decode_hex(const std::string& s) {
  if (s.size() % 2 != 0) return std::nullopt;
  std::string out;
  for (size_t i = 0; i < s.size(); i += 2) {
    int v = 0;
    for (size_t k = i; k < i + 2; ++k) {
      char c = s[k];
      int digit;
      if (c >= '0' && c <= '9') digit = c - '0';
      else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
      else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
      else return std::nullopt;
      v = v * 16 + digit;
    }
    out.push_back(static_cast<char>(v));
  }
  return out;
}

std::optional<std::string> decode_base64(const std::string& s) {
  if (s.size() % 4 != 0) return std::nullopt;
  std::string out;
  uint32_t bits = 0;
  int count = 0;
  size_t padding = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    int v;
    if (c >= 'A' && c <= 'Z') v = c - 'A';
    else if (c >= 'a' && c <= 'z') v = c - 'a' + 26;
    else if (c >= '0' && c <= '9') v = c - '0' + 52;
    else if (c == '+') v = 62;
    else if (c == '/') v = 63;
    else if (c == '=' && i + 2 >= s.size()) {
      ++padding;
      v = 0;
    } else {
      return std::nullopt;
    }
    if (padding > 0 && c != '=') return std::nullopt;
    bits = bits << 6 | static_cast<uint32_t>(v);
    if (++count == 4) {
      out.push_back(static_cast<char>(bits >> 16));
      out.push_back(static_cast<char>(bits >> 8 & 0xff));
      out.push_back(static_cast<char>(bits & 0xff));
      bits = 0;
      count = 0;
    }
  }
  out.resize(out.size() - padding);
  return out;
}

// Decimal digits to big-endian magnitude bytes without leading zeros.
std::optional<std::string> decimal_to_bytes(const std::string& digits) {
  if (digits.empty() || digits.size() > kMaxBigNumDigits) return std::nullopt;
  std::string bytes;  // little-endian while building
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    unsigned carry = static_cast<unsigned>(c - '0');
    for (char& b : bytes) {
      unsigned v = static_cast<unsigned char>(b) * 10u + carry;
      b = static_cast<char>(v & 0xff);
      carry = v >> 8;
    }
    if (carry != 0) bytes.push_back(static_cast<char>(carry));
  }
  return std::string(bytes.rbegin(), bytes.rend());
}

std::string type_label(uint32_t typeWord) {
  if (typeWord & protocol::kPropEnumeration) {
    return "type Enumeration(" + std::to_string(typeWord & 0xffff) + ")";
  }
  uint32_t code = protocol::type_code(typeWord);
  for (const NamedCode& t : kTypeNames) {
    if (t.code == code) return std::string("type ") + t.name;
  }
  return "type code " + std::to_string(code);
}

// The value class a type word carries, or -1 for codes without one.
int default_class(uint32_t typeWord) {
  if (typeWord & protocol::kPropEnumeration) return kUnsignedInt;
  switch (protocol::type_code(typeWord)) {
    case kTypeBoolean: return kBoolean;
    case kTypeUnsigned: case kTypeIndex: case kTypeGid: return kUnsignedInt;
    case kTypeInteger: case kTypeDate: return kSignedInt;
    case kTypeReal: return kReal;
    case kTypeString: case kTypeObject: case kTypeSnmpOid: return kString;
    case kTypeObjectSet: case kTypeStringList: return kStringList;
    case kTypeBlob: return kBlob;
    case kTypeGidList: return kUnsignedIntList;
    case kTypeInt64: return kSignedInt64;
    case kTypeBigNum: return kBigNum;
    case kTypeLob: return kLob;
    default: return -1;
  }
}

uint32_t read_type_word(Fields& f) {
  const Json* type = f.find("type");
  const Json* enumeration = f.find("enum");
  const Json* raw = f.find("typeWord");
  if ((type != nullptr) + (enumeration != nullptr) + (raw != nullptr) != 1) {
    fail(f.where(), "give exactly one of \"type\", \"enum\" and \"typeWord\"");
  }
  uint32_t word = 0;
  if (type != nullptr && type->is_string()) {
    const std::string& name = type->get_ref<const std::string&>();
    bool found = false;
    for (const NamedCode& t : kTypeNames) {
      if (name == t.name) {
        word = t.code;
        found = true;
      }
    }
    if (!found) fail(f.where(), "unknown type " + in_quotes(name));
  } else if (type != nullptr) {
    word = static_cast<uint32_t>(f.integer("type", 0, 0xffff));
  } else if (enumeration != nullptr) {
    word = protocol::kPropEnumeration | static_cast<uint32_t>(f.integer("enum", 0, 0xffff));
  } else {
    word = static_cast<uint32_t>(f.integer("typeWord", 0, 0xffffffff));
  }
  if (f.boolean("const", false)) word |= protocol::kPropConstant;
  if (f.boolean("computed", false)) word |= protocol::kPropComputed;
  return word;
}

std::optional<std::string> read_bytes(const Json& v) {
  if (v.is_string()) return v.get<std::string>();
  if (!v.is_object() || v.size() != 1) return std::nullopt;
  if (v.contains("hex") && v["hex"].is_string()) return decode_hex(v["hex"].get<std::string>());
  if (v.contains("base64") && v["base64"].is_string()) {
    return decode_base64(v["base64"].get<std::string>());
  }
  return std::nullopt;
}

std::optional<uint32_t> read_u32(const Json& v, bool gid) {
  if (gid && v.is_string()) return parse_gid_text(v.get<std::string>());
  std::optional<int64_t> n = as_int64(v);
  if (!n || *n < 0 || *n > 0xffffffffLL) return std::nullopt;
  return static_cast<uint32_t>(*n);
}

// The value of class `cls` from `v`, or nothing when it does not fit.
std::optional<Value> read_value(const Json& v, int cls, uint32_t typeWord) {
  const uint32_t code = protocol::type_code(typeWord);  // no plain code when an enumeration
  const bool gid = code == kTypeGid || code == kTypeGidList;
  switch (cls) {
    case kString:
      if (!v.is_string() || v.get_ref<const std::string&>().size() > kMaxString) break;
      return Value(v.get<std::string>());
    case kStringList: {
      if (!v.is_array()) break;
      std::vector<std::string> list;
      for (const Json& e : v) {
        if (!e.is_string() || e.get_ref<const std::string&>().size() > kMaxString) return std::nullopt;
        list.push_back(e.get<std::string>());
      }
      return Value(std::move(list));
    }
    case kSignedInt: {
      std::optional<int64_t> n;
      if (code == kTypeDate && v.is_string()) n = parse_date_text(v.get<std::string>());
      else n = as_int64(v);
      if (!n || *n < std::numeric_limits<int32_t>::min() || *n > std::numeric_limits<int32_t>::max()) {
        break;
      }
      return Value(static_cast<int32_t>(*n));
    }
    case kUnsignedInt:
      if (std::optional<uint32_t> n = read_u32(v, gid)) return Value(*n);
      break;
    case kReal:
      if (std::optional<double> d = as_real(v)) return Value(*d);
      break;
    case kBoolean:
      if (!v.is_boolean()) break;
      return Value(v.get<bool>());
    case kNull:
      break;  // only null fits, handled by the caller
    case kBlob:
    case kLob: {
      std::optional<std::string> bytes = read_bytes(v);
      if (!bytes || bytes->size() > (cls == kBlob ? kMaxBlob : kMaxLob)) break;
      if (cls == kBlob) return Value(BlobValue{std::move(*bytes)});
      return Value(LobValue{std::move(*bytes)});
    }
    case kUnsignedIntList: {
      if (!v.is_array()) break;
      std::vector<uint32_t> list;
      for (const Json& e : v) {
        std::optional<uint32_t> n = read_u32(e, gid);
        if (!n) return std::nullopt;
        list.push_back(*n);
      }
      return Value(std::move(list));
    }
    case kSignedInt64:
      if (std::optional<int64_t> n = as_int64(v)) return Value(*n);
      break;
    case kUnsignedInt64:
      if (v.is_number_unsigned()) return Value(v.get<uint64_t>());
      if (v.is_number_integer() && v.get<int64_t>() >= 0) {
        return Value(static_cast<uint64_t>(v.get<int64_t>()));
      }
      break;
    case kBigNum: {
      std::optional<std::string> bytes;
      if (v.is_string()) bytes = decimal_to_bytes(v.get<std::string>());
      else if (v.is_number_unsigned() || (v.is_number_integer() && v.get<int64_t>() >= 0)) {
        bytes = decimal_to_bytes(v.dump());
      }
      if (!bytes) break;
      return Value(BigNumValue{std::move(*bytes)});
    }
    default:
      break;
  }
  return std::nullopt;
}

ContinuousRow read_measurement(Fields& f) {
  ContinuousRow r;
  r.start = f.time("start");
  r.end = f.time("end");
  r.max = f.real("max");
  r.avg = f.real("avg");
  r.min = f.real("min");
  r.ngood = static_cast<uint32_t>(f.integer("ngood", 0, 0xffffffff));
  r.nbad = static_cast<uint32_t>(f.integer("nbad", 0, 0xffffffff));
  return r;
}

int record_class_of(int32_t dataType) {
  switch (dataType) {
    case 0: return kRecRawDep;
    case 1: return kRecContDep;
    case 2: case 6: return kRecSawtooth;
    case 3: return kRecEnum;
    case 4: return kRecIncident;
    case 5: return kRecContinuous;
    default: return -1;
  }
}

}  // namespace

void fail(const std::string& where, const std::string& what) {
  throw util::EFatal(where + ": " + what);
}

std::string shown(const Json& j) {
  // Containers are not printed: their depth is the document's choice.
  if (j.is_array()) return "an array";
  if (j.is_object()) return "an object";
  std::string text = j.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text.size() > 40) text = text.substr(0, 40) + "...";
  return text;
}

Fields::Fields(const Json& j, std::string where) : json_(j), where_(std::move(where)) {
  if (!j.is_object()) fail(where_, "must be a JSON object");
}

const Json* Fields::find(const char* key) {
  auto it = json_.find(key);
  if (it == json_.end()) return nullptr;
  read_.insert(key);
  return &*it;
}

const Json& Fields::get(const char* key) {
  const Json* j = find(key);
  if (j == nullptr) fail(where_, "field " + in_quotes(key) + " is missing");
  return *j;
}

std::string Fields::string(const char* key) {
  const Json& j = get(key);
  if (!j.is_string()) fail(where_, "field " + in_quotes(key) + " must be a string");
  return j.get<std::string>();
}

int64_t Fields::integer(const char* key, int64_t min, int64_t max) {
  const Json& j = get(key);
  std::optional<int64_t> n = as_int64(j);
  if (!n || *n < min || *n > max) {
    fail(where_, "field " + in_quotes(key) + " must be an integer from " + std::to_string(min) +
                     " to " + std::to_string(max) + ", not " + shown(j));
  }
  return *n;
}

double Fields::real(const char* key) {
  const Json& j = get(key);
  std::optional<double> d = as_real(j);
  if (!d) fail(where_, "field " + in_quotes(key) + " must be a number, not " + shown(j));
  return *d;
}

int32_t Fields::time(const char* key) {
  const Json& j = get(key);
  std::optional<int64_t> n = j.is_string() ? parse_date_text(j.get<std::string>()) : as_int64(j);
  if (!n || *n < std::numeric_limits<int32_t>::min() || *n > std::numeric_limits<int32_t>::max()) {
    fail(where_, "field " + in_quotes(key) +
                     " must be a 32-bit count of seconds or a time YYYY-MM-DDTHH:MM:SSZ, not " +
                     shown(j));
  }
  return static_cast<int32_t>(*n);
}

bool Fields::boolean(const char* key, bool absent) {
  const Json* j = find(key);
  if (j == nullptr) return absent;
  if (!j->is_boolean()) fail(where_, "field " + in_quotes(key) + " must be true or false");
  return j->get<bool>();
}

void Fields::finish() {
  for (auto it = json_.begin(); it != json_.end(); ++it) {
    if (read_.count(it.key()) == 0) fail(where_, "unknown field " + in_quotes(it.key()));
  }
}

PropertyValue read_property(const Json& j, const std::string& owner, size_t index) {
  std::string where = owner + ", property " + std::to_string(index);
  if (j.is_object() && j.contains("name") && j["name"].is_string()) {
    where = owner + ", property " + in_quotes(j["name"].get<std::string>());
  }
  Fields f(j, where);
  PropertyValue p;
  p.name = f.string("name");
  if (p.name.size() > kMaxPropertyName) fail(where, "name is longer than 128 octets");
  p.type = read_type_word(f);

  int cls = default_class(p.type);
  std::string label = type_label(p.type);
  if (const Json* c = f.find("valueClass")) {
    cls = -1;
    for (size_t i = 0; i < kClassNames.size(); ++i) {
      if (c->is_string() && c->get_ref<const std::string&>() == kClassNames[i]) {
        cls = static_cast<int>(i);
      }
    }
    if (cls < 0) fail(where, "unknown value class " + shown(*c));
    label = std::string("value class ") + kClassNames[static_cast<size_t>(cls)];
  }
  const Json* v = f.find("value");
  if (v == nullptr || v->is_null()) {
    p.value = NullValue{};
  } else {
    if (cls < 0) fail(where, label + " has no value class; give \"valueClass\"");
    std::optional<Value> value = read_value(*v, cls, p.type);
    if (!value) fail(where, "value " + shown(*v) + " does not fit " + label);
    p.value = std::move(*value);
  }
  f.finish();
  return p;
}

int32_t read_datatype(const Json& j, const std::string& where) {
  if (j.is_string()) {
    for (size_t i = 0; i < kDatatypeNames.size(); ++i) {
      if (j.get_ref<const std::string&>() == kDatatypeNames[i]) return static_cast<int32_t>(i);
    }
    fail(where, "unknown datatype " + shown(j));
  }
  std::optional<int64_t> n = as_int64(j);
  if (!n || *n < 0 || *n > kMaxDatatype) {
    fail(where, "datatype must be a datatype name or a number from 0 to 17, not " + shown(j));
  }
  return static_cast<int32_t>(*n);
}

Interval read_interval(const Json& j, int32_t dataType, const std::string& where, size_t index) {
  Fields f(j, where + ", interval " + std::to_string(index));
  int rec = record_class_of(dataType);
  if (const Json* c = f.find("class")) {
    rec = -1;
    for (size_t i = 0; i < kRecordNames.size(); ++i) {
      if (c->is_string() && c->get_ref<const std::string&>() == kRecordNames[i]) {
        rec = static_cast<int>(i);
      }
    }
    if (rec < 0) fail(f.where(), "unknown record class " + shown(*c));
  } else if (rec < 0) {
    fail(f.where(), "datatype " + std::to_string(dataType) + " has no record class; give \"class\"");
  }
  Interval row;
  switch (rec) {
    case kRecContinuous:
      row = read_measurement(f);
      break;
    case kRecSawtooth: {
      ContinuousRow m = read_measurement(f);
      row = SawtoothRow{m.start, m.end, m.max, m.avg, m.min, m.ngood, m.nbad};
      break;
    }
    case kRecEnum: {
      EnumRow r;
      r.start = f.time("start");
      r.end = f.time("end");
      r.mask = static_cast<uint32_t>(f.integer("mask", 0, 0xffffffff));
      r.ngood = static_cast<uint32_t>(f.integer("ngood", 0, 0xffffffff));
      r.nbad = static_cast<uint32_t>(f.integer("nbad", 0, 0xffffffff));
      row = r;
      break;
    }
    case kRecIncident: {
      IncidentRow r;
      r.time = f.time("time");
      r.severity = static_cast<int32_t>(f.integer("severity", std::numeric_limits<int32_t>::min(),
                                                  std::numeric_limits<int32_t>::max()));
      r.message = f.string("message");
      if (r.message.size() > kMaxMessage) fail(f.where(), "message is longer than 65536 octets");
      row = std::move(r);
      break;
    }
    case kRecContDep: {
      ContinuousDeprecatedRow r;
      r.start = f.time("start");
      r.end = f.time("end");
      r.max = f.real("max");
      r.min = f.real("min");
      const Json& values = f.get("values");
      if (!values.is_array()) fail(f.where(), "field \"values\" must be an array");
      for (const Json& v : values) {
        std::optional<double> d = as_real(v);
        if (!d) fail(f.where(), "field \"values\" holds " + shown(v) + ", not a number");
        r.values.push_back(*d);
      }
      row = std::move(r);
      break;
    }
    default: {
      RawDeprecatedRow r;
      const Json& elements = f.get("elements");
      if (!elements.is_array()) fail(f.where(), "field \"elements\" must be an array");
      for (size_t i = 0; i < elements.size(); ++i) {
        Fields e(elements[i], f.where() + ", element " + std::to_string(i));
        r.elements.push_back(read_measurement(e));
        e.finish();
      }
      row = std::move(r);
      break;
    }
  }
  f.finish();
  return row;
}

}  // namespace server::json_format
