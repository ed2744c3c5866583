// The select query: the objects that a TQL path pattern reaches from a start
// object, kept as a result set of ResultObjects keyed by object id.
//
// Typical use:
//   auto select = std::make_shared<client::Select>(id, ".! > .", 0);
//   client::send(session, select);
//   client::await(session, *select);
//   const client::ResultObject* object = select->find_result_opt(id);
#ifndef TALVIX_CLIENT_SELECT_H_
#define TALVIX_CLIENT_SELECT_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/request.h"

namespace protocol {
class Object;
class PathPattern;
class Property;
}  // namespace protocol

namespace client {

// One selected object with its properties and child objects.
class ResultObject {
 public:
  // A property with its name, a view of the property's own name field.
  using NamedProperty = std::pair<std::string_view, std::unique_ptr<protocol::Property>>;

  // Takes the class name, id and properties of `object` over (they are left
  // empty) and builds the children recursively. Of two properties with the
  // same name the first one is kept. Children come without properties from
  // a session that keeps none of nested objects
  // (Session::keepNestedProperties).
  explicit ResultObject(protocol::Object& object);
  ResultObject(const ResultObject&) = delete;
  ResultObject& operator=(const ResultObject&) = delete;
  ~ResultObject();

  const std::string& className() const { return className_; }
  uint32_t flags() const { return flags_; }
  const std::string& id() const { return id_; }
  // By name, in byte-wise order of the names, each name once.
  const std::vector<NamedProperty>& properties() const { return properties_; }
  // In the order the server sent them.
  const std::vector<std::unique_ptr<ResultObject>>& children() const { return children_; }

  bool has_property(const std::string& name) const;
  // The named property; raises util::EObjectError
  // "Property \"<name>\" not found in <id>" when there is none.
  const protocol::Property& property(const std::string& name) const;
  // Whether the named property holds the null value; raises as property().
  bool is_null(const std::string& name) const;
  // The named property as text (wanted type String); raises as property(),
  // and util::ETqlError for a property of another type or a null value.
  std::string get_string(const std::string& name) const;

 private:
  std::string className_;
  uint32_t flags_;
  std::string id_;
  const protocol::Property* find(std::string_view name) const;

  std::vector<NamedProperty> properties_;
  std::vector<std::unique_ptr<ResultObject>> children_;
};

class Select : public Request {
 public:
  // Parses `patternText` with tql::parse; its errors pass out and no Select
  // is made. `flags` travel in the SelectReq unchanged.
  Select(const std::string& startId, const std::string& patternText, uint32_t flags);
  ~Select() override;

  // "[\"<start id>\"] <pattern text>".
  std::string name() const override;
  // A SelectReq that takes the parsed pattern over: a Select is sent once.
  std::unique_ptr<protocol::BerConstructed> makeBody() override;
  // SelectResp: replaces the result set (a repeated id keeps the later
  // object). ErrorResp: stores its code in `error`, results unchanged. Any
  // other body raises util::EBerError "Wrong type in Select::decode.".
  void decode(protocol::BerConstructed* body) override;
  // Forgets the request.
  void done(Session& session) override;

  // The top-level object with that id. Raises util::ESelectError before the
  // answer has arrived and when the id is not in the result set. The object
  // stays valid until the Select is destroyed or decodes another answer.
  const ResultObject& find_result(const std::string& id) const;
  // As find_result(), but nullptr when the id is not in the result set.
  const ResultObject* find_result_opt(const std::string& id) const;

  const std::string& patternText() const { return patternText_; }

 private:
  std::map<std::string, std::unique_ptr<ResultObject>> results_;
  std::vector<std::string> startIds_;
  std::unique_ptr<protocol::PathPattern> pattern_;  // until makeBody()
  uint32_t flags_;
  std::string patternText_;
};

}  // namespace client

#endif  // TALVIX_CLIENT_SELECT_H_
