#include "server/object_encoder.h"

namespace server {

namespace {

std::string encode_head(const StoredObject& object, PropertyChoice choice, bool legacy) {
  std::string bytes;
  append_object_head(bytes, object, choice, legacy);
  return bytes;
}

}  // namespace

std::shared_ptr<const std::string> ObjectEncoder::head(const StoredObject& object,
                                                       PropertyChoice choice, bool legacy) {
  const bool limited = choice.any && choice.only != nullptr && !choice.only->empty();
  if (limited) return std::make_shared<const std::string>(encode_head(object, choice, legacy));
  auto& table = heads_[(choice.any ? 2 : 0) + (legacy ? 1 : 0)];
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = table.find(object.id);
    if (found != table.end()) return found->second;
  }
  auto bytes = std::make_shared<const std::string>(encode_head(object, choice, legacy));
  std::lock_guard<std::mutex> lock(mutex_);
  size_t total = 0;
  for (const auto& t : heads_) total += t.size();
  if (total >= capacity_) {
    for (auto& t : heads_) t.clear();
  }
  table.emplace(object.id, bytes);
  return bytes;
}

std::shared_ptr<const StoredObject> ObjectEncoder::find(const Database& db, const std::string& id) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = objects_.find(id);
    if (found != objects_.end()) return found->second;
  }
  std::shared_ptr<const StoredObject> object = db.find(id);
  if (!object) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  if (objects_.size() >= capacity_) objects_.clear();
  objects_.emplace(id, object);
  return object;
}

size_t ObjectEncoder::cached() const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t total = 0;
  for (const auto& t : heads_) total += t.size();
  return total;
}

}  // namespace server
