#include "server/object_cache.h"

namespace server {

template <class V>
std::shared_ptr<const V> ObjectCache::Generations<V>::find(const std::string& key) {
  auto found = current_.find(key);
  if (found != current_.end()) return found->second;
  auto old = previous_.find(key);
  if (old == previous_.end()) return nullptr;
  std::shared_ptr<const V> value = std::move(old->second);
  previous_.erase(old);
  keep(key, value);
  return value;
}

template <class V>
void ObjectCache::Generations<V>::keep(const std::string& key, std::shared_ptr<const V> value) {
  if (current_.size() >= capacity_) {
    previous_ = std::move(current_);
    current_ = Table();
  }
  current_.emplace(key, std::move(value));
}

std::shared_ptr<const StoredObject> ObjectCache::find(const Database& db, const std::string& id) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::shared_ptr<const StoredObject> object = objects_.find(id)) return object;
  }
  std::shared_ptr<const StoredObject> object = db.find(id);
  if (!object) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  objects_.keep(id, object);
  return object;
}

void ObjectCache::appendHead(std::string& out, const StoredObject& object,
                             bool withProperties) {
  const size_t mark = out.size();
  try {
    if (!withProperties) {
      append_object_head(out, object, false);
      return;
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (std::shared_ptr<const std::string> head = heads_.find(object.id)) {
        out += *head;
        return;
      }
    }
    append_object_head(out, object, true);
  } catch (...) {
    out.resize(mark);
    throw;
  }
  auto head = std::make_shared<const std::string>(out, mark);
  std::lock_guard<std::mutex> lock(mutex_);
  heads_.keep(object.id, std::move(head));
}

}  // namespace server
