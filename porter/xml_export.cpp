#include "porter/xml_export.h"

#include <array>
#include <ctime>
#include <typeinfo>
#include <iterator>
#include <vector>

#include "porter/out_stream.h"
#include "porter/run_statistics.h"
#include "protocol/messages_data.h"
#include "protocol/property_codec.h"
#include "protocol/property_values.h"
#include "util/bignum.h"
#include "util/error.h"
#include "util/format.h"
#include "util/time.h"

namespace porter {

namespace {

constexpr std::string_view kIndentUnit = "  ";

constexpr bool plain_byte(unsigned char c) {
  return c == ' ' || (c >= 33 && c <= 126 && c != '"' && c != '<' && c != '>' && c != '&');
}

// plain_byte() of every byte, looked up once per byte of every value.
constexpr std::array<bool, 256> kPlain = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 256; ++c) table[static_cast<size_t>(c)] = plain_byte(static_cast<unsigned char>(c));
  return table;
}();

bool is_plain(unsigned char c) { return kPlain[c]; }

// Renders the value of a property without the enumeration flag by its type
// code: appends the display name to `type` and sets `value`. Returns 1 when
// the property is left out.
int render_value(const protocol::Property& p, uint32_t code, std::ostream& err, std::string& type,
                 std::string& value) {
  switch (code) {
    case protocol::kTypeBoolean: {
      bool v = false;
      protocol::decode_property(p, code, v);
      type += "Boolean";
      value = v ? "true" : "false";
      return 0;
    }
    case protocol::kTypeUnsigned:
    case protocol::kTypeIndex: {
      uint32_t v = 0;
      protocol::decode_property(p, code, v);
      type += code == protocol::kTypeUnsigned ? "Unsigned Integer" : "Index";
      value = util::uint_to_string(v);
      return 0;
    }
    case protocol::kTypeInteger: {
      int32_t v = 0;
      protocol::decode_property(p, code, v);
      type += "Integer";
      value = util::int_to_string(v);
      return 0;
    }
    case protocol::kTypeReal: {
      double v = 0;
      protocol::decode_property(p, code, v);
      type += "Real";
      value = util::real_to_string(v);
      return 0;
    }
    case protocol::kTypeDate: {
      int64_t v = 0;
      protocol::decode_property(p, code, v);
      type += "Date";
      if (v < 0) {
        err << "(ignoring date less than zero)";
        return 1;
      }
      value = util::iso_time2str(v);
      return 0;
    }
    case protocol::kTypeString:
    case protocol::kTypeObject:
    case protocol::kTypeSnmpOid:
      protocol::decode_property(p, code, value);
      type += code == protocol::kTypeString   ? "String"
              : code == protocol::kTypeObject ? "Object"
                                              : "SnmpOid";
      return 0;
    case protocol::kTypeObjectSet:
    case protocol::kTypeStringList: {
      std::vector<std::string> v;
      protocol::decode_property(p, code, v);
      type += code == protocol::kTypeObjectSet ? "ObjectSet" : "StringList";
      for (size_t i = 0; i < v.size(); ++i) {
        if (i > 0) value += ',';
        value += v[i];
      }
      return 0;
    }
    case protocol::kTypeHidden:
      return 1;
    case protocol::kTypeBlob: {
      std::vector<uint8_t> v;
      protocol::decode_property(p, code, v);
      type += "Blob";
      util::base64_encode(v, value);
      return 0;
    }
    case protocol::kTypeGid: {
      uint32_t v = 0;
      protocol::decode_property(p, code, v);
      type += "Gid";
      value = util::gid_to_string(v);
      return 0;
    }
    case protocol::kTypeGidList: {
      std::vector<uint32_t> v;
      protocol::decode_property(p, code, v);
      type += "GidList";
      for (size_t i = 0; i < v.size(); ++i) {
        if (i > 0) value += ',';
        value += util::gid_to_string(v[i]);
      }
      return 0;
    }
    case protocol::kTypeBigNum: {
      util::BigNum v;
      protocol::decode_property(p, code, v);
      type += "BigNum";
      value = util::bn_to_string(v);
      return 0;
    }
    default:
      throw util::EFatal("Unknown property " + util::uint_to_string(p.type) + " : " + type + " = " +
                         value);
  }
}

// ---- History rows ----------------------------------------------------------

// Datatypes of history series.
constexpr int32_t kSawtooth = 2;
constexpr int32_t kEnum = 3;
constexpr int32_t kIncidents = 4;
constexpr int32_t kContinuous = 5;
constexpr int32_t kAccumulation = 6;

// A continuous, sawtooth or accumulation row; the reals in message order.
struct MeasureRow {
  int64_t start, end;
  double max, avg, min;
  uint32_t ngood, nbad;
};

struct EnumRow {
  int64_t start, end;
  uint32_t mask, ngood, nbad;
};

struct IncidentRow {
  int64_t time;
  int32_t severity;
  const std::string* message;  // in the row's record
};

const protocol::BerConstructed* record_of(const std::unique_ptr<protocol::DataInterval>& row) {
  return row ? row->data.get() : nullptr;
}

template <class Record>
const Record& asserted_record(const std::unique_ptr<protocol::DataInterval>& row) {
  const protocol::BerConstructed* record = record_of(row);
  // Record classes are leaves: comparing the dynamic type is dynamic_cast
  // without its search through the bases.
  if (record == nullptr || typeid(*record) != typeid(Record)) {
    util::assert_failed("Error in data format");
  }
  return static_cast<const Record&>(*record);
}

template <class Record>
MeasureRow measure_row(const Record& r) {
  return {r.start, r.end, r.max, r.avg, r.min, r.ngood, r.nbad};
}

MeasureRow read_continuous(const std::unique_ptr<protocol::DataInterval>& row) {
  return measure_row(asserted_record<protocol::DataIntervalContinuous>(row));
}

MeasureRow read_sawtooth(const std::unique_ptr<protocol::DataInterval>& row) {
  return measure_row(*util::checked_cast<const protocol::DataIntervalSawtooth>(record_of(row)));
}

EnumRow read_enum(const std::unique_ptr<protocol::DataInterval>& row) {
  const auto& r = asserted_record<protocol::DataIntervalEnum>(row);
  return {r.start, r.end, r.mask, r.ngood, r.nbad};
}

IncidentRow read_incident(const std::unique_ptr<protocol::DataInterval>& row) {
  const auto& r = asserted_record<protocol::DataIntervalIncident>(row);
  return {r.time, r.severity, &r.message};
}

bool valid_interval(int64_t start, int64_t end) { return start >= 0 && end >= 0 && start <= end; }

// The attributes of a row: `first` opens the element, every later one
// closes the attribute before it.
void first_attribute(std::string& out, std::string_view name) {
  out += "<Data ";
  out += name;
  out += "=\"";
}
void next_attribute(std::string& out, std::string_view name) {
  out += "\" ";
  out += name;
  out += "=\"";
}
void end_row(std::string& out) { out += "\"/>\n"; }

void append_measure_row(const MeasureRow& row, std::string& out) {
  first_attribute(out, "start");
  util::append_iso_time(out, row.start);
  next_attribute(out, "end");
  util::append_iso_time(out, row.end);
  next_attribute(out, "max");
  util::append_real(out, row.max);
  next_attribute(out, "avg");
  util::append_real(out, row.avg);
  next_attribute(out, "min");
  util::append_real(out, row.min);
  next_attribute(out, "ngood");
  util::append_uint(out, row.ngood);
  next_attribute(out, "nbad");
  util::append_uint(out, row.nbad);
  end_row(out);
}

// The numbers of the set bits, lowest first, joined with ".".
void append_mask_list(uint32_t mask, std::string& out) {
  bool first = true;
  for (int bit = 0; bit < 32; ++bit) {
    if ((mask >> bit) & 1u) {
      if (!first) out += '.';
      util::append_int(out, bit);
      first = false;
    }
  }
}

void append_enum_row(const EnumRow& row, std::string& out) {
  first_attribute(out, "start");
  util::append_iso_time(out, row.start);
  next_attribute(out, "end");
  util::append_iso_time(out, row.end);
  next_attribute(out, "mask");
  append_mask_list(row.mask, out);
  next_attribute(out, "ngood");
  util::append_uint(out, row.ngood);
  next_attribute(out, "nbad");
  util::append_uint(out, row.nbad);
  end_row(out);
}

void append_incident_row(const IncidentRow& row, std::string& out) {
  first_attribute(out, "time");
  util::append_iso_time(out, row.time);
  next_attribute(out, "severity");
  util::append_int(out, row.severity);
  next_attribute(out, "message");
  XMLExport::escape(*row.message, out);
  end_row(out);
}

}  // namespace

int64_t XMLExport::system_clock() { return static_cast<int64_t>(time(nullptr)); }

XMLExport::XMLExport(OutStream& out, std::ostream& err, Clock clock, RunStatistics* statistics)
    : out_(out), err_(err), clock_(clock), statistics_(statistics) {}

void XMLExport::indent(std::string& text) const {
  for (int32_t i = 0; i < depth_; ++i) text += kIndentUnit;
}

void XMLExport::writeHeader() {
  const int64_t now = clock_();
  out_.write("<?xml version=\"1.0\"?>\n");
  out_.write("<Meta version=\"1.0\" description=\"Talvix exported database\" ");
  out_.write("timestamp=\"" + util::iso_time2str(now) + "\">\n");
  out_.write("</Meta>");
}

void XMLExport::openObject(std::string_view type, std::string_view id) {
  open(id, type, {});
  if (statistics_ != nullptr) {
    ++statistics_->objects;
    ++statistics_->objectsByClass[std::string(type)];
  }
}

void XMLExport::openSeries(std::string_view indexName, std::string_view datatype) {
  open(indexName, "Data", datatype);
  if (statistics_ != nullptr) ++statistics_->historySeries;
}

void XMLExport::open(std::string_view id, std::string_view type, std::string_view datatype) {
  std::string& text = scratch_;
  text.clear();
  indent(text);
  text += "<Object id=\"";
  escape(id, text);
  text += "\" type=\"";
  escape(type, text);
  if (!datatype.empty()) {
    text += "\" datatype=\"";
    escape(datatype, text);
  }
  text += "\">\n";
  out_.write(text);
  ++depth_;
}

void XMLExport::closeObject() {
  --depth_;
  std::string& text = scratch_;
  text.clear();
  indent(text);
  text += "</Object>\n";
  out_.write(text);
}

bool XMLExport::writeProperty(const protocol::Property& property) {
  const uint32_t word = property.type;
  std::string type;
  std::string value;
  if (word & protocol::kPropConstant) type = "Const ";
  if (word & protocol::kPropComputed) type += "Computed ";
  if (word & protocol::kPropEnumeration) {
    uint32_t v = 0;
    protocol::decode_property(property, word & protocol::kPropTypeMask, v);
    value = util::int_to_string(static_cast<int32_t>(v));
    type += "Enumeration(";
    type += util::uint_to_string(word & 0xffffu);
    type += ')';
  } else if (render_value(property, word & protocol::kPropTypeMask, err_, type, value) != 0) {
    return false;
  }
  if (property.name.empty()) throw util::EFatal("Property resolved empty name");
  std::string& text = scratch_;
  text.clear();
  indent(text);
  text += "<Property type=\"";
  escape(type, text);
  text += "\" name=\"";
  escape(property.name, text);
  text += "\" value=\"";
  escape(value, text);
  text += "\"/>\n";
  out_.write(text);
  return true;
}

void XMLExport::writeData(int32_t datatype, const Rows& rows) {
  if (datatype != kSawtooth && datatype != kEnum && datatype != kIncidents &&
      datatype != kContinuous && datatype != kAccumulation) {
    throw util::EFatal("Got unknown datatype for rows [" + util::int_to_string(datatype) + "]");
  }
  std::string& line = scratch_;
  for (const auto& row : rows) {
    line.clear();
    indent(line);
    switch (datatype) {
      case kContinuous:
      case kSawtooth:
      case kAccumulation: {
        const MeasureRow r = datatype == kContinuous ? read_continuous(row) : read_sawtooth(row);
        if (!valid_interval(r.start, r.end)) continue;
        append_measure_row(r, line);
        break;
      }
      case kEnum: {
        const EnumRow r = read_enum(row);
        if (!valid_interval(r.start, r.end)) continue;
        append_enum_row(r, line);
        break;
      }
      case kIncidents: {
        const IncidentRow r = read_incident(row);
        if (r.time < 0) continue;
        append_incident_row(r, line);
        break;
      }
    }
    out_.write(line);
    if (statistics_ != nullptr) ++statistics_->historyRows;
  }
}

void XMLExport::escape(std::string_view value, std::string& out) {
  size_t plainStart = 0;
  for (size_t i = 0; i < value.size(); ++i) {
    const auto c = static_cast<unsigned char>(value[i]);
    if (is_plain(c)) continue;
    out.append(value, plainStart, i - plainStart);
    out += "&#";
    util::append_uint(out, c);
    out += ';';
    plainStart = i + 1;
  }
  out.append(value, plainStart, std::string_view::npos);
}


}  // namespace porter
