#include "server/database_json.h"

#include <cerrno>
#include <fstream>
#include <map>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "server/json_values.h"
#include "util/error.h"

namespace server {

namespace {

using json_format::Fields;
using json_format::Json;
using json_format::fail;

constexpr size_t kMaxClassName = 128;
constexpr size_t kMaxIndexName = 16;
constexpr int kMaxDepth = 1000;

std::string in_quotes(const std::string& text) { return "\"" + text + "\""; }

class JsonDatabase : public Database {
 public:
  std::string rootDomainId() const override { return root_; }
  std::string mibRootId() const override { return mibRoot_; }

  std::shared_ptr<const StoredObject> find(const std::string& id) const override {
    auto it = objects_.find(id);
    return it == objects_.end() ? nullptr : it->second;
  }

  std::shared_ptr<const History> history(const std::string& objectId,
                                         const std::string& indexName) const override {
    auto it = history_.find({objectId, indexName});
    return it == history_.end() ? nullptr : it->second;
  }

  bool checkLogin(const std::string& loginDomain, const std::string& user,
                  const std::string& password) const override {
    for (const User& u : users_) {
      if (u.loginDomain == loginDomain && u.name == user && u.password == password) return true;
    }
    return false;
  }

 private:
  friend class Loader;

  std::string root_;
  std::string mibRoot_;
  std::unordered_map<std::string, std::shared_ptr<const StoredObject>> objects_;
  std::map<std::pair<std::string, std::string>, std::shared_ptr<const History>> history_;
  std::vector<User> users_;
};

// Builds a JsonDatabase from a parsed document, checking as it goes.
class Loader {
 public:
  std::unique_ptr<Database> load(const Json& doc) {
    Fields top(doc, "database");
    const Json& objects = top.get("objects");
    if (!objects.is_array()) fail("database", "field \"objects\" must be an array");
    for (size_t i = 0; i < objects.size(); ++i) {
      readObject(objects[i], "objects[" + std::to_string(i) + "]", 0);
    }
    db_->root_ = top.string("rootDomain");
    if (!objects_.count(db_->root_)) fail("database", "rootDomain " + in_quotes(db_->root_) + " does not exist");
    db_->mibRoot_ = top.string("mibRoot");
    if (!objects_.count(db_->mibRoot_)) fail("database", "mibRoot " + in_quotes(db_->mibRoot_) + " does not exist");
    readUsers(top.get("users"));
    if (const Json* history = top.find("history")) readHistory(*history);
    top.finish();
    for (auto& [id, object] : objects_) db_->objects_.emplace(id, std::move(object));
    return std::move(db_);
  }

 private:
  // Reads one object and, recursively, its nested children. `at` names its
  // place in the document for messages given before its id is known.
  void readObject(const Json& j, const std::string& at, int depth) {
    std::string where = "object at " + at;
    if (j.is_object() && j.contains("id") && j["id"].is_string()) {
      where = "object " + in_quotes(j["id"].get<std::string>());
    }
    if (depth > kMaxDepth) fail(where, "nested deeper than " + std::to_string(kMaxDepth) + " levels");
    Fields f(j, where);
    auto object = std::make_shared<StoredObject>();
    object->id = f.string("id");
    if (object->id.empty()) fail(where, "id is empty");
    if (object->id.size() > kMaxIdLength) {
      fail(where, "id is longer than 32 octets (" + std::to_string(object->id.size()) + ")");
    }
    if (objects_.count(object->id)) fail(where, "duplicate id");
    object->className = f.string("class");
    if (object->className.empty() || object->className.size() > kMaxClassName) {
      fail(where, "field \"class\" must be 1 to 128 octets long");
    }
    if (f.find("flags")) object->flags = static_cast<uint32_t>(f.integer("flags", 0, 0xffffffff));
    objects_.emplace(object->id, object);

    if (const Json* properties = f.find("properties")) {
      if (!properties->is_array()) fail(where, "field \"properties\" must be an array");
      for (size_t i = 0; i < properties->size(); ++i) {
        PropertyValue p = json_format::read_property((*properties)[i], where, i);
        if (object->findProperty(p.name) != nullptr) {
          fail(where, "duplicate property " + in_quotes(p.name));
        }
        object->properties.push_back(std::move(p));
      }
    }
    if (const Json* children = f.find("children")) {
      if (!children->is_array()) fail(where, "field \"children\" must be an array");
      for (size_t i = 0; i < children->size(); ++i) {
        const Json& child = (*children)[i];
        readObject(child, "children[" + std::to_string(i) + "] of " + in_quotes(object->id), depth + 1);
        object->children.push_back(child["id"].get<std::string>());
      }
    }
    f.finish();
  }

  void readUsers(const Json& users) {
    if (!users.is_array()) fail("database", "field \"users\" must be an array");
    for (size_t i = 0; i < users.size(); ++i) {
      Fields f(users[i], "users[" + std::to_string(i) + "]");
      User u;
      u.loginDomain = f.string("domain");
      u.name = f.string("name");
      u.password = f.string("password");
      f.finish();
      db_->users_.push_back(std::move(u));
    }
  }

  void readHistory(const Json& history) {
    if (!history.is_array()) fail("database", "field \"history\" must be an array");
    for (size_t i = 0; i < history.size(); ++i) {
      const Json& j = history[i];
      Fields f(j, "history[" + std::to_string(i) + "]");
      std::string objectId = f.string("object");
      std::string index = f.string("index");
      std::string where = "history of " + in_quotes(objectId) + " index " + in_quotes(index);
      auto object = objects_.find(objectId);
      if (object == objects_.end()) fail(where, "object " + in_quotes(objectId) + " does not exist");
      if (index.size() > kMaxIndexName) fail(where, "index name is longer than 16 octets");
      const PropertyValue* p = object->second->findProperty(index);
      if (p == nullptr || protocol::type_code(p->type) != protocol::kTypeIndex) {
        fail(where, "the object has no Index property " + in_quotes(index));
      }
      auto series = std::make_shared<History>();
      series->dataType = json_format::read_datatype(f.get("datatype"), where);
      const Json& intervals = f.get("intervals");
      if (!intervals.is_array()) fail(where, "field \"intervals\" must be an array");
      for (size_t k = 0; k < intervals.size(); ++k) {
        series->intervals.push_back(json_format::read_interval(intervals[k], series->dataType, where, k));
      }
      f.finish();
      if (!db_->history_.emplace(std::make_pair(objectId, index), std::move(series)).second) {
        fail(where, "given twice");
      }
    }
  }

  std::unique_ptr<JsonDatabase> db_ = std::make_unique<JsonDatabase>();
  std::unordered_map<std::string, std::shared_ptr<StoredObject>> objects_;
};

}  // namespace

std::unique_ptr<Database> parse_json_database(const std::string& text) {
  Json doc;
  try {
    doc = Json::parse(text);
  } catch (const Json::exception& e) {
    throw util::EFatal(std::string("Database is not valid JSON: ") + e.what());
  }
  return Loader().load(doc);
}

std::unique_ptr<Database> load_json_database(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw util::EFatal("Cannot read database file " + in_quotes(path) + ": " +
                       util::last_error_text());
  }
  std::ostringstream text;
  text << in.rdbuf();
  try {
    return parse_json_database(text.str());
  } catch (util::EFatal& e) {
    throw util::EFatal(path + ": " + e.text());
  }
}

}  // namespace server
