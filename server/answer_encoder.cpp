#include "server/answer_encoder.h"

#include <limits>
#include <type_traits>

#include "protocol/ber_primitives.h"
#include "protocol/messages.h"
#include "protocol/tags.h"
#include "server/byte_sink.h"
#include "util/bignum.h"

namespace server {

namespace {

using protocol::TagCode;

constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kIdMax = 0x7fffffff;
constexpr int32_t kMaxDataType = 17;
// The protocol's flag for the legacy encoding, which the server never uses.
constexpr bool kLegacy = false;

// The identifier octet of a tag below 248, as protocol::encode_tag writes it.
constexpr uint8_t short_tag(TagCode tag) {
  return static_cast<uint8_t>((tag >> 3) | ((tag & 7) << 5));
}
static_assert(protocol::BE_BOOLEAN < 248 && protocol::BE_INTEGER < 248);

// Appends to one string. The primitives are written as the protocol's
// classes write them; a value outside its limits is handed to the
// protocol's class, which throws its own failure.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  // Tag and indefinite length of a constructed value.
  void open(TagCode tag) {
    uint8_t octets[8];
    const size_t n = protocol::encode_tag(tag, octets);
    octets[n] = 0x80;
    out_.append(reinterpret_cast<const char*>(octets), n + 1);
  }
  void close() { out_.append(2, '\0'); }

  void int32(int32_t v, int32_t min = kIntMin, int32_t max = kIntMax) {
    if (v < min || v > max) {
      AppendingSink sink(out_);
      protocol::BerInt32::encode(sink, v, min, max, protocol::BE_INTEGER);
    }
    integer(v);
  }
  void uint32(uint32_t v) { integer(v); }
  template <class T>
  void integer64(T v) {
    integer(v);
  }
  void text(const std::string& v, size_t max) {
    if (v.size() > max) {
      AppendingSink sink(out_);
      protocol::BerString::encode(sink, v, max, stringTag_);
    }
    uint8_t header[16];
    size_t h = protocol::encode_tag(stringTag_, header);
    h += protocol::encode_length(v.size(), header + h);
    out_.append(reinterpret_cast<const char*>(header), h);
    out_.append(v);
  }
  void boolean(bool v) {
    const char octets[3] = {static_cast<char>(short_tag(protocol::BE_BOOLEAN)), 1,
                            v ? '\x01' : '\0'};
    out_.append(octets, 3);
  }
  void severity(int32_t v) {
    AppendingSink sink(out_);
    protocol::Severity::encode(sink, v);
  }
  void real(double v) {
    AppendingSink sink(out_);
    protocol::BerReal::encode(sink, v, protocol::BE_REAL);
  }

  std::string& out() { return out_; }

 private:
  // A primitive integer of the full range of T.
  template <class T>
  void integer(T v) {
    uint8_t octets[2 + sizeof(T) + 1];
    octets[0] = short_tag(protocol::BE_INTEGER);
    const size_t n = protocol::integer_content(v, octets + 2);
    octets[1] = static_cast<uint8_t>(n);
    out_.append(reinterpret_cast<const char*>(octets), n + 2);
  }

  std::string& out_;
  static constexpr TagCode stringTag_ = protocol::string_tag(kLegacy);
};

constexpr TagCode kSeq = protocol::seq_tag(kLegacy);

void write_value(Writer& w, const Value& value) {
  std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          w.open(protocol::StringProp::staticTag(kLegacy));
          w.text(v, 1024);
        } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
          w.open(protocol::StringListProp::staticTag(kLegacy));
          w.open(kSeq);
          for (const std::string& s : v) w.text(s, 1024);
          w.close();
        } else if constexpr (std::is_same_v<T, int32_t>) {
          w.open(protocol::SignedIntProp::staticTag(kLegacy));
          w.int32(v);
        } else if constexpr (std::is_same_v<T, uint32_t>) {
          w.open(protocol::UnsignedIntProp::staticTag(kLegacy));
          w.uint32(v);
        } else if constexpr (std::is_same_v<T, double>) {
          w.open(protocol::RealProp::staticTag(kLegacy));
          w.real(v);
        } else if constexpr (std::is_same_v<T, bool>) {
          w.open(protocol::BooleanProp::staticTag(kLegacy));
          w.boolean(v);
        } else if constexpr (std::is_same_v<T, NullValue>) {
          w.open(protocol::NullProp::staticTag(kLegacy));
        } else if constexpr (std::is_same_v<T, BlobValue>) {
          w.open(protocol::BlobProp::staticTag(kLegacy));
          w.text(v.bytes, 2048);
        } else if constexpr (std::is_same_v<T, std::vector<uint32_t>>) {
          w.open(protocol::UnsignedIntListProp::staticTag(kLegacy));
          w.open(kSeq);
          for (uint32_t n : v) w.uint32(n);
          w.close();
        } else if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, uint64_t>) {
          w.open(std::is_same_v<T, int64_t> ? protocol::SignedInt64Prop::staticTag(kLegacy)
                                            : protocol::UnsignedInt64Prop::staticTag(kLegacy));
          w.integer64(v);
        } else if constexpr (std::is_same_v<T, BigNumValue>) {
          // Rare: the protocol's own value, made fresh for every answer:
          // BigNum arrays are shared copy-on-write without locking, so none
          // may be shared across the threads that serve connections.
          protocol::BigNumProp p;
          util::bn_set_data(p.value, reinterpret_cast<const uint8_t*>(v.bytes.data()),
                            v.bytes.size());
          AppendingSink sink(w.out());
          p.write(sink, kLegacy);
          return;
        } else {
          static_assert(std::is_same_v<T, LobValue>);
          w.open(protocol::LobProp::staticTag(kLegacy));
          w.text(v.bytes, 2097152);
        }
        w.close();
      },
      value);
}

template <class Row>
void write_measurement(Writer& w, const Row& r) {
  w.int32(r.start);
  w.int32(r.end);
  w.real(r.max);
  w.real(r.avg);
  w.real(r.min);
  w.uint32(r.ngood);
  w.uint32(r.nbad);
}

void write_row(Writer& w, const Interval& row) {
  std::visit(
      [&](const auto& r) {
        using T = std::decay_t<decltype(r)>;
        if constexpr (std::is_same_v<T, ContinuousRow>) {
          w.open(protocol::DataIntervalContinuous::staticTag(kLegacy));
          write_measurement(w, r);
        } else if constexpr (std::is_same_v<T, SawtoothRow>) {
          w.open(protocol::DataIntervalSawtooth::staticTag(kLegacy));
          write_measurement(w, r);
        } else if constexpr (std::is_same_v<T, EnumRow>) {
          w.open(protocol::DataIntervalEnum::staticTag(kLegacy));
          w.int32(r.start);
          w.int32(r.end);
          w.uint32(r.mask);
          w.uint32(r.ngood);
          w.uint32(r.nbad);
        } else if constexpr (std::is_same_v<T, IncidentRow>) {
          w.open(protocol::DataIntervalIncident::staticTag(kLegacy));
          w.int32(r.time);
          w.severity(r.severity);
          w.text(r.message, 65536);
        } else if constexpr (std::is_same_v<T, ContinuousDeprecatedRow>) {
          w.open(protocol::DataIntervalContinuousDEPRECATED::staticTag(kLegacy));
          w.int32(r.start);
          w.int32(r.end);
          w.real(r.max);
          w.real(r.min);
          w.open(kSeq);
          for (double v : r.values) w.real(v);
          w.close();
        } else {
          static_assert(std::is_same_v<T, RawDeprecatedRow>);
          w.open(protocol::DataIntervalRawDEPRECATED::staticTag(kLegacy));
          w.open(kSeq);
          for (const ContinuousRow& e : r.elements) {
            w.open(protocol::DataIntervalRawElement::staticTag(kLegacy));
            write_measurement(w, e);
            w.close();
          }
          w.close();
        }
        w.close();
      },
      row);
}

}  // namespace

void append_object_head(std::string& out, const StoredObject& object, bool withProperties) {
  Writer w(out);
  w.open(protocol::Object::staticTag(kLegacy));
  w.text(object.className, 128);
  w.uint32(object.flags);
  w.text(object.id, 32);
  w.text(std::string(), 52);
  w.open(kSeq);
  if (withProperties) {
    for (const PropertyValue& p : object.properties) {
      w.open(protocol::Property::staticTag(kLegacy));
      w.text(p.name, 128);
      w.uint32(p.type);
      write_value(w, p.value);
      w.close();
    }
  }
  w.close();
}

void append_child_list_start(std::string& out) { Writer(out).open(kSeq); }

void append_object_end(std::string& out) {
  Writer w(out);
  w.close();
  w.open(protocol::set_tag(kLegacy));
  w.close();
  w.close();
}

void append_select_response_start(std::string& out, int32_t id) {
  Writer w(out);
  w.open(protocol::Response::staticTag(kLegacy));
  w.int32(id, 0, kIdMax);
  w.open(protocol::SelectResp::staticTag(kLegacy));
  w.open(kSeq);
}

void append_select_response_end(std::string& out) { out.append(6, '\0'); }

void append_get_data_response(std::string& out, int32_t id, const History& history) {
  Writer w(out);
  w.open(protocol::Response::staticTag(kLegacy));
  w.int32(id, 0, kIdMax);
  w.open(protocol::GetDataResp::staticTag(kLegacy));
  const bool inRange = history.dataType >= 0 && history.dataType <= kMaxDataType;
  w.int32(history.dataType, inRange ? 0 : kIntMin, inRange ? kMaxDataType : kIntMax);
  w.open(kSeq);
  for (const Interval& row : history.intervals) {
    w.open(protocol::DataInterval::staticTag(kLegacy));
    write_row(w, row);
    w.close();
  }
  w.close();
  w.close();
  w.close();
}

void append_error_response(std::string& out, int32_t id, int32_t code, const std::string& text) {
  Writer w(out);
  w.open(protocol::Response::staticTag(kLegacy));
  w.int32(id, 0, kIdMax);
  w.open(protocol::ErrorResp::staticTag(kLegacy));
  w.int32(code);
  w.open(kSeq);
  w.text(text, 1024);
  w.close();
  w.close();
  w.close();
}

}  // namespace server
