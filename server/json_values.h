// The pieces of the JSON database format below the object level: a checked
// reader of one JSON object's fields, and the readers of property type
// words, property values and history rows. Used by database_json.cpp only.
//
// Every reader throws util::EFatal with "<where>: <what>", where `where`
// names the object, property or history row being read.
#ifndef TALVIX_SERVER_JSON_VALUES_H_
#define TALVIX_SERVER_JSON_VALUES_H_

#include <cstdint>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "server/database.h"

namespace server::json_format {

using Json = nlohmann::json;

// The fields of one JSON object. Each field read is remembered; finish()
// rejects the fields that were never read. The Json must outlive the reader.
class Fields {
 public:
  // Throws "<where>: must be a JSON object" when `j` is not one.
  Fields(const Json& j, std::string where);

  const std::string& where() const { return where_; }
  // The field, or nullptr when it is absent.
  const Json* find(const char* key);
  // The field; throws "<where>: field \"<key>\" is missing" when absent.
  const Json& get(const char* key);

  // Typed reads; a field of the wrong kind throws
  // "<where>: field \"<key>\" must be <kind>".
  std::string string(const char* key);
  int64_t integer(const char* key, int64_t min, int64_t max);
  double real(const char* key);  // a number, or "nan", "inf", "-inf"
  int32_t time(const char* key);  // seconds or "YYYY-MM-DDTHH:MM:SSZ"
  bool boolean(const char* key, bool absent);

  // Throws "<where>: unknown field \"<key>\"" for the first field not read.
  void finish();

 private:
  const Json& json_;
  std::string where_;
  std::set<std::string> read_;
};

// Throws util::EFatal "<where>: <what>".
[[noreturn]] void fail(const std::string& where, const std::string& what);

// A value shortened for messages: the JSON text, cut at 40 characters.
std::string shown(const Json& j);

// Reads one property ({"name", "type" | "enum" | "typeWord", "const",
// "computed", "valueClass", "value"}). `owner` names the object.
PropertyValue read_property(const Json& j, const std::string& owner, size_t index);

// The datatype number of a "datatype" field: a name of the datatype table
// or a number 0..17.
int32_t read_datatype(const Json& j, const std::string& where);

// Reads row `index` of a series of `dataType`. The row's record class is the
// datatype's own unless the row names one in "class".
Interval read_interval(const Json& j, int32_t dataType, const std::string& where, size_t index);

}  // namespace server::json_format

#endif  // TALVIX_SERVER_JSON_VALUES_H_
