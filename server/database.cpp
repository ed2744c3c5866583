#include "server/database.h"

#include <type_traits>

namespace server {

namespace {

template <class Prop, class V>
std::unique_ptr<protocol::BerConstructed> make_value(const V& value) {
  auto p = std::make_unique<Prop>();
  p->value = value;
  return p;
}

std::unique_ptr<protocol::BerConstructed> make_value_object(const Value& value) {
  return std::visit(
      [](const auto& v) -> std::unique_ptr<protocol::BerConstructed> {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          return make_value<protocol::StringProp>(v);
        } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
          return make_value<protocol::StringListProp>(v);
        } else if constexpr (std::is_same_v<T, int32_t>) {
          return make_value<protocol::SignedIntProp>(v);
        } else if constexpr (std::is_same_v<T, uint32_t>) {
          return make_value<protocol::UnsignedIntProp>(v);
        } else if constexpr (std::is_same_v<T, double>) {
          return make_value<protocol::RealProp>(v);
        } else if constexpr (std::is_same_v<T, bool>) {
          return make_value<protocol::BooleanProp>(v);
        } else if constexpr (std::is_same_v<T, NullValue>) {
          return std::make_unique<protocol::NullProp>();
        } else if constexpr (std::is_same_v<T, BlobValue>) {
          return make_value<protocol::BlobProp>(v.bytes);
        } else if constexpr (std::is_same_v<T, std::vector<uint32_t>>) {
          return make_value<protocol::UnsignedIntListProp>(v);
        } else if constexpr (std::is_same_v<T, int64_t>) {
          return make_value<protocol::SignedInt64Prop>(v);
        } else if constexpr (std::is_same_v<T, uint64_t>) {
          return make_value<protocol::UnsignedInt64Prop>(v);
        } else if constexpr (std::is_same_v<T, BigNumValue>) {
          // A fresh BigNum per message: BigNum arrays are shared
          // copy-on-write without locking, so none may be shared across
          // the threads that serve connections.
          auto p = std::make_unique<protocol::BigNumProp>();
          util::bn_set_data(p->value, reinterpret_cast<const uint8_t*>(v.bytes.data()),
                            v.bytes.size());
          return p;
        } else {
          static_assert(std::is_same_v<T, LobValue>);
          return make_value<protocol::LobProp>(v.bytes);
        }
      },
      value);
}

template <class Record>
void copy_measurement(Record& to, const ContinuousRow& from) {
  to.start = from.start;
  to.end = from.end;
  to.max = from.max;
  to.avg = from.avg;
  to.min = from.min;
  to.ngood = from.ngood;
  to.nbad = from.nbad;
}

std::unique_ptr<protocol::BerConstructed> make_record(const Interval& row) {
  return std::visit(
      [](const auto& r) -> std::unique_ptr<protocol::BerConstructed> {
        using T = std::decay_t<decltype(r)>;
        if constexpr (std::is_same_v<T, ContinuousRow>) {
          auto m = std::make_unique<protocol::DataIntervalContinuous>();
          copy_measurement(*m, r);
          return m;
        } else if constexpr (std::is_same_v<T, SawtoothRow>) {
          auto m = std::make_unique<protocol::DataIntervalSawtooth>();
          copy_measurement(*m, ContinuousRow{r.start, r.end, r.max, r.avg, r.min, r.ngood, r.nbad});
          return m;
        } else if constexpr (std::is_same_v<T, EnumRow>) {
          auto m = std::make_unique<protocol::DataIntervalEnum>();
          m->start = r.start;
          m->end = r.end;
          m->mask = r.mask;
          m->ngood = r.ngood;
          m->nbad = r.nbad;
          return m;
        } else if constexpr (std::is_same_v<T, IncidentRow>) {
          auto m = std::make_unique<protocol::DataIntervalIncident>();
          m->time = r.time;
          m->severity = r.severity;
          m->message = r.message;
          return m;
        } else if constexpr (std::is_same_v<T, ContinuousDeprecatedRow>) {
          auto m = std::make_unique<protocol::DataIntervalContinuousDEPRECATED>();
          m->start = r.start;
          m->end = r.end;
          m->max = r.max;
          m->min = r.min;
          m->values = r.values;
          return m;
        } else {
          static_assert(std::is_same_v<T, RawDeprecatedRow>);
          auto m = std::make_unique<protocol::DataIntervalRawDEPRECATED>();
          for (const ContinuousRow& e : r.elements) {
            auto element = std::make_unique<protocol::DataIntervalRawElement>();
            copy_measurement(*element, e);
            m->elements.push_back(std::move(element));
          }
          return m;
        }
      },
      row);
}

}  // namespace

std::unique_ptr<protocol::Property> to_property(const PropertyValue& p) {
  auto property = std::make_unique<protocol::Property>();
  property->name = p.name;
  property->type = p.type;
  property->data = make_value_object(p.value);
  return property;
}

std::unique_ptr<protocol::DataInterval> to_interval(const Interval& row) {
  auto interval = std::make_unique<protocol::DataInterval>();
  interval->data = make_record(row);
  return interval;
}

const PropertyValue* StoredObject::findProperty(const std::string& name) const {
  for (const PropertyValue& p : properties) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

}  // namespace server
