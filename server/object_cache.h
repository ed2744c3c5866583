// The objects that selects ask for again and again, and their encoded
// heads, remembered.
//
// A database may compute its objects on every lookup (the generated one
// does), while an export looks each object up several times in a short
// while: as a child of its parent, as the start of its own select, for its
// history; and it asks for the same heads more than once. Each table keeps
// what was asked for recently in two generations: lookups fill the current
// one, and when it holds `capacity` entries it becomes the previous one
// (the older previous generation is dropped); an entry found in the
// previous generation moves to the current one. So at most 2 x capacity
// entries are kept per table, and a walk over more objects than that never
// empties the cache of the objects it is working on.
#ifndef TALVIX_SERVER_OBJECT_CACHE_H_
#define TALVIX_SERVER_OBJECT_CACHE_H_

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "server/answer_encoder.h"
#include "server/database.h"

namespace server {

class ObjectCache {
 public:
  explicit ObjectCache(size_t capacity = 100000)
      : objects_(capacity), heads_(capacity) {}
  ObjectCache(const ObjectCache&) = delete;
  ObjectCache& operator=(const ObjectCache&) = delete;

  // db.find(id), remembered. Thread-safe. The database must not change
  // while the cache is in use; nullptr (not found) is not remembered.
  std::shared_ptr<const StoredObject> find(const Database& db, const std::string& id);

  // Appends the head of `object` (append_object_head()) to `out`. Heads
  // with properties are remembered by object id. Thread-safe. Throws
  // protocol::EBer as append_object_head() does, leaving `out` as it was;
  // nothing is remembered then.
  void appendHead(std::string& out, const StoredObject& object, bool withProperties);

 private:
  template <class V>
  class Generations {
   public:
    explicit Generations(size_t capacity) : capacity_(capacity == 0 ? 1 : capacity) {}
    // The entry for `key`, moved up to the current generation, or nullptr.
    std::shared_ptr<const V> find(const std::string& key);
    void keep(const std::string& key, std::shared_ptr<const V> value);
    size_t size() const { return current_.size() + previous_.size(); }

   private:
    using Table = std::unordered_map<std::string, std::shared_ptr<const V>>;
    size_t capacity_;
    Table current_;
    Table previous_;
  };

  mutable std::mutex mutex_;  // guards the tables
  Generations<StoredObject> objects_;
  Generations<std::string> heads_;
};

}  // namespace server

#endif  // TALVIX_SERVER_OBJECT_CACHE_H_
