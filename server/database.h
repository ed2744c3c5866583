// The stand-in server's object database: the objects of the tree with their
// properties and children, the stored history of index properties, the two
// root ids and the users that may log in.
//
// Database is an abstract, read-only source. Two implementations exist: one
// loaded from a JSON file (database_json.h), which keeps every object in
// memory, and a generated one (generator.h), which computes each object and
// each history series from its id on demand.
//
// Values are kept in a compact form of their own (PropertyValue, Interval)
// and encoded straight into every answer (answer_encoder.h). Nothing is
// checked there: a value of a class the type code does not carry is sent as
// it is (the JSON loader validates; fault cases rely on this).
//
// Thread safety: every const operation of a Database may be called by any
// number of threads at once without outside locking. What a lookup returns
// is immutable and reference-counted: it stays valid for as long as the
// caller holds the shared_ptr, even if the database is destroyed first.
#ifndef TALVIX_SERVER_DATABASE_H_
#define TALVIX_SERVER_DATABASE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "protocol/messages.h"

namespace server {

// Longest object id the protocol carries.
constexpr size_t kMaxIdLength = 32;

// ---------------------------------------------------------------------------
// Property values. The alternatives of Value are in the order of the value
// classes of protocol::Property::data, so Value::index() is the alternative
// number (0 StringProp ... 12 LobProp).
struct NullValue {
  bool operator==(const NullValue&) const = default;
};
struct BlobValue {  // BlobProp: raw bytes
  std::string bytes;
  bool operator==(const BlobValue&) const = default;
};
struct BigNumValue {  // BigNumProp: big-endian magnitude bytes, no sign
  std::string bytes;
  bool operator==(const BigNumValue&) const = default;
};
struct LobValue {  // LobProp: raw bytes
  std::string bytes;
  bool operator==(const LobValue&) const = default;
};

using Value = std::variant<std::string,               // 0 StringProp
                           std::vector<std::string>,  // 1 StringListProp
                           int32_t,                   // 2 SignedIntProp
                           uint32_t,                  // 3 UnsignedIntProp
                           double,                    // 4 RealProp
                           bool,                      // 5 BooleanProp
                           NullValue,                 // 6 NullProp
                           BlobValue,                 // 7 BlobProp
                           std::vector<uint32_t>,     // 8 UnsignedIntListProp
                           int64_t,                   // 9 SignedInt64Prop
                           uint64_t,                  // 10 UnsignedInt64Prop
                           BigNumValue,               // 11 BigNumProp
                           LobValue>;                 // 12 LobProp

struct PropertyValue {
  std::string name;
  uint32_t type = 0;  // the whole type word, flags included
  Value value;

  bool isNull() const { return std::holds_alternative<NullValue>(value); }
};

// ---------------------------------------------------------------------------
// History rows. Each alternative is one interval record class of
// protocol::DataInterval::data.
struct ContinuousRow {  // DataIntervalContinuous
  int32_t start = 0, end = 0;
  double max = 0, avg = 0, min = 0;
  uint32_t ngood = 0, nbad = 0;
  bool operator==(const ContinuousRow&) const = default;
};
struct SawtoothRow {  // DataIntervalSawtooth (sawtooth and accumulation)
  int32_t start = 0, end = 0;
  double max = 0, avg = 0, min = 0;
  uint32_t ngood = 0, nbad = 0;
  bool operator==(const SawtoothRow&) const = default;
};
struct EnumRow {  // DataIntervalEnum
  int32_t start = 0, end = 0;
  uint32_t mask = 0, ngood = 0, nbad = 0;
  bool operator==(const EnumRow&) const = default;
};
struct IncidentRow {  // DataIntervalIncident
  int32_t time = 0;
  int32_t severity = 0;
  std::string message;
  bool operator==(const IncidentRow&) const = default;
};
struct ContinuousDeprecatedRow {  // DataIntervalContinuousDEPRECATED
  int32_t start = 0, end = 0;
  double max = 0, min = 0;
  std::vector<double> values;
  bool operator==(const ContinuousDeprecatedRow&) const = default;
};
struct RawDeprecatedRow {  // DataIntervalRawDEPRECATED, its elements as DataIntervalRawElement
  std::vector<ContinuousRow> elements;
  bool operator==(const RawDeprecatedRow&) const = default;
};

using Interval = std::variant<ContinuousRow, SawtoothRow, EnumRow, IncidentRow,
                              ContinuousDeprecatedRow, RawDeprecatedRow>;

// The stored history of one index property of one object. `dataType` is the
// number sent in GetDataResp (0..17; 0 rawDEPRECATED, 1 continuousDEPRECATED,
// 2 sawtooth, 3 enum, 4 incidents, 5 continuous, 6 accumulation); any other
// number is sent as it is, an answer the client cannot decode. The rows
// normally use the record class of the datatype, but nothing enforces it.
struct History {
  int32_t dataType = 0;
  std::vector<Interval> intervals;
};

// ---------------------------------------------------------------------------
// One object of the tree.
struct StoredObject {
  std::string className;  // at most 128 octets
  std::string id;         // at most kMaxIdLength octets, unique in the database
  uint32_t flags = 0;     // bit 0: the exporter does not walk this child
  std::vector<PropertyValue> properties;  // in stored order, names unique
  std::vector<std::string> children;      // ids of the direct children, in order

  // The property named `name`, or nullptr. The pointer lives as long as
  // this object.
  const PropertyValue* findProperty(const std::string& name) const;
};

struct User {
  std::string loginDomain;  // e.g. "."
  std::string name;
  std::string password;
};

class Database {
 public:
  virtual ~Database() = default;

  // Id of the root domain and of the MIB root, as sent in NewSessionResp.
  // Both objects exist.
  virtual std::string rootDomainId() const = 0;
  virtual std::string mibRootId() const = 0;

  // The object with this id, or nullptr when there is none (ids of any
  // length, including over-long or malformed ones, just find nothing).
  // O(1) or O(log n) per call.
  virtual std::shared_ptr<const StoredObject> find(const std::string& id) const = 0;

  // The history of `indexName` of object `objectId`, or nullptr when the
  // object has no stored history for that property.
  virtual std::shared_ptr<const History> history(const std::string& objectId,
                                                 const std::string& indexName) const = 0;

  // True when `user` with `password` may log in to `loginDomain`.
  virtual bool checkLogin(const std::string& loginDomain, const std::string& user,
                          const std::string& password) const = 0;

 protected:
  Database() = default;
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
};

}  // namespace server

#endif  // TALVIX_SERVER_DATABASE_H_
