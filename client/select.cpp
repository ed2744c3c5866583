#include "client/select.h"

#include <algorithm>
#include <utility>

#include "client/session.h"
#include "protocol/messages.h"
#include "protocol/property_codec.h"
#include "tql/parser.h"
#include "util/error.h"

namespace client {

ResultObject::ResultObject(protocol::Object& object)
    : className_(std::move(object.className)),
      flags_(object.flags),
      id_(std::move(object.id)) {
  properties_.reserve(object.properties.size());
  for (std::unique_ptr<protocol::Property>& property : object.properties) {
    if (!property) continue;
    const std::string_view name = property->name;
    properties_.emplace_back(name, std::move(property));
  }
  object.properties.clear();
  const auto byName = [](const NamedProperty& a, const NamedProperty& b) {
    return a.first < b.first;
  };
  // Stable, so that of equal names the first sent comes first and stays.
  std::stable_sort(properties_.begin(), properties_.end(), byName);
  properties_.erase(std::unique(properties_.begin(), properties_.end(),
                                [](const NamedProperty& a, const NamedProperty& b) {
                                  return a.first == b.first;
                                }),
                    properties_.end());
  children_.reserve(object.children.size());
  for (const std::unique_ptr<protocol::Object>& child : object.children) {
    if (child) children_.push_back(std::make_unique<ResultObject>(*child));
  }
}

ResultObject::~ResultObject() = default;

const protocol::Property* ResultObject::find(std::string_view name) const {
  auto found = std::lower_bound(
      properties_.begin(), properties_.end(), name,
      [](const NamedProperty& entry, std::string_view wanted) { return entry.first < wanted; });
  if (found == properties_.end() || found->first != name) return nullptr;
  return found->second.get();
}

bool ResultObject::has_property(const std::string& name) const { return find(name) != nullptr; }

const protocol::Property& ResultObject::property(const std::string& name) const {
  const protocol::Property* found = find(name);
  if (found == nullptr) {
    throw util::EObjectError("Property \"" + name + "\" not found in " + id_);
  }
  return *found;
}

bool ResultObject::is_null(const std::string& name) const {
  const protocol::Property& value = property(name);
  return protocol::is_null_value(value);
}

std::string ResultObject::get_string(const std::string& name) const {
  std::string text;
  protocol::decode_property(property(name), protocol::kTypeString, text);
  return text;
}

Select::Select(const std::string& startId, const std::string& patternText, uint32_t flags)
    : startIds_{startId}, pattern_(tql::parse(patternText)), flags_(flags),
      patternText_(patternText) {}

Select::~Select() = default;

std::string Select::name() const {
  std::string text = "[";
  for (size_t i = 0; i < startIds_.size(); ++i) {
    if (i != 0) text += ", ";
    text += "\"" + startIds_[i] + "\"";
  }
  return text + "] " + patternText_;
}

std::unique_ptr<protocol::BerConstructed> Select::makeBody() {
  auto body = std::make_unique<protocol::SelectReq>();
  body->startIds = startIds_;
  body->pattern = std::move(pattern_);
  body->flags = flags_;
  return body;
}

void Select::decode(protocol::BerConstructed* body) {
  if (auto* answer = dynamic_cast<protocol::SelectResp*>(body)) {
    results_.clear();
    for (const std::unique_ptr<protocol::Object>& object : answer->objects) {
      if (!object) continue;
      auto result = std::make_unique<ResultObject>(*object);
      std::string id = result->id();
      results_.insert_or_assign(std::move(id), std::move(result));
    }
    error = 0;
  } else if (auto* refusal = dynamic_cast<protocol::ErrorResp*>(body)) {
    error = static_cast<uint32_t>(refusal->code);
  } else {
    throw util::EBerError("Wrong type in Select::decode.");
  }
}

void Select::done(Session& session) { client::forget(session, *this); }

const ResultObject& Select::find_result(const std::string& id) const {
  if (state != kAnswered) {
    throw util::ESelectError("find_result() invoked before await() for query \"" + patternText_ +
                             "\"");
  }
  auto found = results_.find(id);
  if (found == results_.end()) {
    throw util::ESelectError("Id (" + id + ") not found in result set for query \"" + patternText_ +
                             "\"");
  }
  return *found->second;
}

const ResultObject* Select::find_result_opt(const std::string& id) const {
  if (state != kAnswered) {
    throw util::ESelectError("find_result_opt() invoked before await() for query \"" +
                             patternText_ + "\"");
  }
  auto found = results_.find(id);
  return found == results_.end() ? nullptr : found->second.get();
}

}  // namespace client
